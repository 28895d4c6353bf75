#include "common/helpText.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <sstream>

namespace diskcachectl {

namespace {

constexpr size_t NARROWEST = 40, WIDEST = 110, WITHOUT_TERMINAL = 100;

// Where a line's text goes on: under a description, which two blanks set off, or under the line's beginning.
size_t hangingIndent(const std::string& line) {
  const size_t begin = std::min(line.find_first_not_of(' '), line.size());
  if (begin != 2) return begin;
  const size_t gap = line.find("  ", begin);
  return gap == std::string::npos ? begin : std::min(line.find_first_not_of(' ', gap), line.size());
}

void appendWrapped(std::string& out, std::string line, size_t width) {
  size_t indent = hangingIndent(line);
  if (indent + NARROWEST / 2 > width) indent = 4;
  while (line.size() > width) {
    size_t cut = line.rfind(' ', width);
    if (cut == std::string::npos || cut <= indent) cut = line.find(' ', std::max(width, indent));
    if (cut == std::string::npos) break;
    const size_t end = line.find_last_not_of(' ', cut);
    out.append(line, 0, end + 1).append("\n");
    line = std::string(indent, ' ') + line.substr(cut + 1);
  }
  out.append(line).append("\n");
}

bool isHeading(const std::string& line) { return !line.empty() && line.front() != ' ' && line.back() == ':'; }

}  // namespace

size_t terminalWidth() {
  const char* columns = std::getenv("COLUMNS");
  size_t width = columns == nullptr ? 0 : std::strtoul(columns, nullptr, 10);
  winsize size{};
  if (width == 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) width = size.ws_col;
  return width == 0 ? WITHOUT_TERMINAL : std::clamp(width, NARROWEST, WIDEST);
}

std::string wrapped(const std::string& help, size_t width) {
  std::istringstream lines(help);
  std::string out, paragraph;
  bool isExample = false;
  const auto flush = [&] {
    if (!paragraph.empty()) appendWrapped(out, paragraph, width);
    paragraph.clear();
  };
  for (std::string line; std::getline(lines, line);) {
    const bool isText = !line.empty() && line.front() != ' ' && !isHeading(line);
    if (!isText || line.starts_with("Exit status:") || line.starts_with("Usage:")) flush();
    if (isText) {
      paragraph.append(paragraph.empty() ? "" : " ").append(line);
      continue;
    }
    isExample = isExample || line == "Example:";
    isExample ? void(out.append(line).append("\n")) : appendWrapped(out, line, width);
  }
  flush();
  return out;
}

std::string nearest(std::string_view word, const std::vector<std::string>& words) {
  const auto distance = [word](const std::string& other) {
    std::vector<size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (const char c : word) {
      size_t diagonal = row[0]++;
      for (size_t i = 1; i < row.size(); ++i) {
        const size_t changed = diagonal + (other[i - 1] == c ? 0 : 1);
        diagonal = row[i];
        row[i] = std::min({changed, row[i] + 1, row[i - 1] + 1});
      }
    }
    return row.back();
  };
  return *std::min_element(words.begin(), words.end(), [&](const std::string& a, const std::string& b) {
    return distance(a) < distance(b);
  });
}

}  // namespace diskcachectl
