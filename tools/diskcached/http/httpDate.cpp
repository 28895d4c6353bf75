#include "http/httpDate.h"

#include <array>

namespace diskcached {

namespace {

constexpr const char* FORMAT = "%a, %d %b %Y %H:%M:%S GMT";

}  // namespace

std::string formatHttpDate(std::time_t when) {
  std::tm parts{};
  std::array<char, 64> text{};
  if (gmtime_r(&when, &parts) == nullptr) return "";
  return {text.data(), std::strftime(text.data(), text.size(), FORMAT, &parts)};
}

std::optional<std::time_t> parseHttpDate(const std::string& text) {
  std::tm parts{};
  const char* const end = strptime(text.c_str(), FORMAT, &parts);
  if (end == nullptr || *end != '\0') return std::nullopt;
  return timegm(&parts);
}

}  // namespace diskcached
