#include "common/units.h"

#include <fmt/core.h>

#include <cctype>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace diskcachectl {
namespace {

constexpr std::string_view UNITS = "KMGTP";
constexpr uint64_t LARGEST = uint64_t{1} << 60;

[[noreturn]] void refuse(const std::string& text) {
  throw std::invalid_argument(fmt::format("\"{}\" is no size (examples: 4096, 64MiB, 1.5G)", text));
}

// What one of a unit is in bytes; 0 for no known unit.
uint64_t unitSize(std::string_view unit) {
  if (unit.empty() || unit == "B") return 1;
  const size_t power = UNITS.find(unit.front()) + 1;
  const std::string_view rest = unit.substr(1);
  if (power == 0 || (!rest.empty() && rest != "IB" && rest != "B")) return 0;
  uint64_t size = 1;
  for (size_t i = 0; i < power; ++i) size *= rest == "B" ? 1000 : 1024;
  return size;
}

}  // namespace

uint64_t parseSize(const std::string& text) {
  const size_t end = text.find_first_not_of("0123456789.");
  const std::string number = text.substr(0, end);
  std::string unit = end == std::string::npos ? "" : text.substr(end);
  if (!unit.empty() && unit.front() == ' ') unit.erase(0, 1);
  for (char& c : unit) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));

  // A number with two points ends early.
  char* stop = nullptr;
  const long double value = std::strtold(number.c_str(), &stop);
  if (number.empty() || *stop != '\0' || stop == number.c_str() || unitSize(unit) == 0) refuse(text);
  const long double bytes = std::round(value * static_cast<long double>(unitSize(unit)));
  if (bytes > static_cast<long double>(LARGEST)) refuse(text);
  return static_cast<uint64_t>(bytes);
}

std::string formatSize(uint64_t bytes) {
  if (bytes < 1024) return fmt::format("{} B", bytes);
  auto value = static_cast<double>(bytes);
  size_t power = 0;
  while (value >= 1023.95 && power < UNITS.size()) {
    value /= 1024;
    ++power;
  }
  return fmt::format("{:.1f} {}iB", value, UNITS[power - 1]);
}

std::string formatCount(uint64_t count) {
  std::string digits = std::to_string(count);
  for (size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, 1, ',');
  return digits;
}

}  // namespace diskcachectl
