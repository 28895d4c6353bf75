// Words of a request and of its headers. Pure functions.
#pragma once

#include <algorithm>
#include <string_view>

namespace diskcached {

// Of ASCII letters; others stay.
inline char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

// Without the blanks at its ends.
inline std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// What the name of a header is made of.
inline bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (lower(c) >= 'a' && lower(c) <= 'z') || (c >= '0' && c <= '9') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
  });
}
// Of which no header's value holds one.
inline bool isControl(char c) { return (static_cast<unsigned char>(c) < 32 && c != '\t') || c == 127; }
inline bool hasControl(std::string_view text) { return std::any_of(text.begin(), text.end(), isControl); }

}  // namespace diskcached
