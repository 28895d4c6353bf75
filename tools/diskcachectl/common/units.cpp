#include "common/units.h"

#include <fmt/core.h>

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <system_error>

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

std::chrono::seconds parseAge(const std::string& text) {
  constexpr std::string_view NAMES = "smhdw";
  constexpr int64_t SECONDS[] = {1, 60, 3600, 86400, 604800};
  constexpr int64_t LONGEST = 1'000'000'000;  // of a unit; so that no sum overflows
  int64_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  const std::string_view unit = std::string_view(text).substr(static_cast<size_t>(end - text.data()));
  const size_t at = unit.size() == 1 ? NAMES.find(unit) : std::string_view::npos;
  if (error != std::errc() || count < 0 || count > LONGEST || at == std::string_view::npos) {
    throw std::invalid_argument(fmt::format("\"{}\" is no age (examples: 30s, 90m, 12h, 7d, 4w)", text));
  }
  return std::chrono::seconds(count * SECONDS[at]);
}

std::string formatAge(int64_t seconds) {
  if (seconds < 0) seconds = 0;
  if (seconds < 100) return fmt::format("{} s", seconds);
  if (seconds < 100 * 60) return fmt::format("{} min", seconds / 60);
  if (seconds < 48 * 3600) return fmt::format("{} h", seconds / 3600);
  return fmt::format("{} d", seconds / 86400);
}

namespace {

template <typename Parse>
std::string toNumber(std::string& text, Parse parse) {
  try {
    text = std::to_string(parse(text));
    return "";
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
}

}  // namespace

std::string sizeToNumber(std::string& text) { return toNumber(text, parseSize); }

std::string ageToNumber(std::string& text) {
  return toNumber(text, [](const std::string& age) { return parseAge(age).count(); });
}

std::string formatCount(uint64_t count) {
  std::string digits = std::to_string(count);
  for (size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, 1, ',');
  return digits;
}

}  // namespace diskcachectl
