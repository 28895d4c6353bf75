// A page of metrics in Prometheus' text format, piece by piece.
#pragma once

#include <concepts>
#include <cstdio>
#include <string>
#include <string_view>

namespace ObjectStore {

// Appends to a text. Samples of one name are given one after the other; the first one brings the name's head.
class MetricsText {
 public:
  // Every name begins with `prefix`, which outlives the page.
  MetricsText(std::string& out, std::string_view prefix) : m_out(out), m_prefix(prefix) {}

  template <typename Number>
  void value(std::string_view name, std::string_view labels, std::string_view type, std::string_view help,
             Number number) {
    if (name != m_last) head(name, type, help);
    sample(name, labels, number);
  }
  void head(std::string_view name, std::string_view type, std::string_view help) {
    m_out.append("# HELP ").append(m_prefix).append(name).append(" ").append(help).append("\n");
    m_out.append("# TYPE ").append(m_prefix).append(name).append(" ").append(type).append("\n");
    m_last = name;
  }
  template <typename Number>
  void sample(std::string_view name, std::string_view labels, Number number) {
    m_out.append(m_prefix).append(name).append(labels).append(" ").append(text(number)).append("\n");
  }

  static std::string text(std::integral auto number) { return std::to_string(number); }
  static std::string text(double number) {
    char digits[32];
    std::snprintf(digits, sizeof(digits), "%.9g", number);
    return digits;
  }
  // What may stand between the quotes of a label.
  static std::string escaped(std::string_view label) {
    std::string safe;
    for (const char c : label) {
      if (c == '\\' || c == '"') safe += '\\';
      safe += c == '\n' ? "\\n" : std::string(1, c);
    }
    return safe;
  }

 private:
  std::string& m_out;
  const std::string_view m_prefix;
  std::string m_last;
};

}  // namespace ObjectStore
