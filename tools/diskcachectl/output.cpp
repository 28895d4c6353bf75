#include "output.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

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

}  // namespace

std::string painted(Colour colour, std::string_view text) {
  return isColoured() ? fmt::format("\033[{}m{}\033[0m", codeOf(colour), text) : std::string(text);
}

std::string printable(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      line += fmt::format("\\x{:02x}", byte);
    } else {
      line += c;
    }
  }
  return line;
}

void printError(std::string_view text) {
  std::fflush(stdout);  // in the order in which things happened
  fmt::print(stderr, "diskcachectl: {}\n", printable(text));
}

void printJson(const nlohmann::ordered_json& object) {
  fmt::print("{}\n", object.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

}  // namespace diskcachectl
