// The rules of Prometheus' text format, and the values in such a text.
#pragma once

#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>

namespace ObjectStore {

// What is wrong with a text in Prometheus' format, by the rules that its own checker has; "" when nothing is.
inline std::string faultOf(const std::string& text) {
  static const std::regex head("# (HELP|TYPE) ([a-z_]+) (.+)");
  static const std::string label = R"_([a-z]+="(?:[^"\\]|\\[\\"n])*")_";
  static const std::regex sample("([a-z_]+)(\\{" + label + "(?:," + label +
                                 ")*\\})? (-?[0-9.]+(e[+-]?[0-9]+)?)");
  std::set<std::string> families, samples;
  std::string family, type;
  double inBucket = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::smatch part;
    if (std::regex_match(line, part, head)) {
      if (part[1] == "HELP") {
        if (!families.insert(part[2]).second) return "twice: " + line;
        family = part[2];
        type.clear();
      } else {
        type = part[3];
        const bool isTotal = family.ends_with("_total");
        if (part[2] != family || isTotal != (type == "counter")) return "type: " + line;
      }
      continue;
    }
    if (line.starts_with("# ")) continue;  // a comment
    if (!std::regex_match(line, part, sample)) return "no sample: " + line;
    if (type.empty() || !samples.insert(line.substr(0, line.rfind(' '))).second) return "stray: " + line;
    const std::string name = part[1], suffix = name.starts_with(family) ? name.substr(family.size()) : "?";
    const double value = std::stod(part[3]);
    if (type != "histogram") {
      if (!suffix.empty()) return "stray: " + line;
    } else if (suffix == "_bucket") {
      if (value < inBucket) return "falls: " + line;
      inBucket = value;
    } else if (suffix == "_count") {
      if (value != std::exchange(inBucket, 0) || !samples.contains(family + "_bucket{le=\"+Inf\"}"))
        return line;
    } else if (suffix != "_sum") {
      return "stray: " + line;
    }
  }
  return text.ends_with('\n') ? "" : "no end";
}

}  // namespace ObjectStore
