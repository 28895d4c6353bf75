#include "common/output.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "support/plainText.h"

namespace diskcachectl {
namespace {

bool isColoured() {
  static const bool coloured = isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
  return coloured;
}

const char* codeOf(Colour colour) {
  switch (colour) {
    case Colour::Red: return "31";
    case Colour::Green: return "32";
    case Colour::Yellow: return "33";
    case Colour::Bold: return "1";
  }
  return "0";
}

// The text with escape(control) in place of each control character.
template <typename Escape>
std::string withControls(std::string_view text, Escape&& escape) {
  const bool isPlain = std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
  if (isPlain) return std::string(text);  // most are, and lists are long
  std::string shown;
  shown.reserve(text.size());
  while (!text.empty()) {
    const size_t control = ObjectStore::controlAtFront(text);
    const size_t length = std::max<size_t>(control, 1);
    shown += control == 0 ? std::string(1, text.front()) : escape(text.substr(0, length));
    text.remove_prefix(length);
  }
  return shown;
}

// Of a character of one to three bytes of UTF-8.
unsigned codePoint(std::string_view character) {
  const unsigned front = static_cast<unsigned char>(character.front());
  unsigned point = character.size() == 1 ? front : front & (0x3fU >> (character.size() - 1));
  for (const char c : character.substr(1)) point = point << 6 | (static_cast<unsigned char>(c) & 0x3fU);
  return point;
}

}  // namespace

std::string painted(Colour colour, std::string_view text) {
  return isColoured() ? fmt::format("\033[{}m{}\033[0m", codeOf(colour), text) : std::string(text);
}

std::string printable(std::string_view text) {
  return withControls(text, [](std::string_view control) {
    std::string bytes;
    for (const char c : control) bytes += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    return bytes;
  });
}

std::string jsonText(const nlohmann::ordered_json& value, int indent) {
  const std::string text = value.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  return withControls(text, [](std::string_view control) {
    if (control == "\n") return std::string(control);  // of the layout: in a string it is escaped already
    return fmt::format("\\u{:04x}", codePoint(control));
  });
}

void printError(std::string_view text) {
  std::fflush(stdout);  // in the order in which things happened
  fmt::print(stderr, "diskcachectl: {}\n", printable(text));
}

void printJson(const nlohmann::ordered_json& object) { fmt::print("{}\n", jsonText(object, 2)); }

}  // namespace diskcachectl
