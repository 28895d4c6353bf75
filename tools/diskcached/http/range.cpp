#include "http/range.h"

#include <algorithm>
#include <charconv>

#include "http/text.h"

namespace diskcached {
namespace {

constexpr std::string_view UNIT = "bytes=";

}  // namespace

std::optional<uint64_t> parseNumber(std::string_view text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

RangeChoice chooseRange(std::string_view header, uint64_t objectSize) {
  if (!equalsIgnoringCase(header.substr(0, UNIT.size()), UNIT)) return {};
  header = trimmed(header.substr(UNIT.size()));
  const size_t dash = header.find('-');
  if (dash == std::string_view::npos || header.find(',') != std::string_view::npos) return {};
  const std::string_view first = trimmed(header.substr(0, dash)), last = trimmed(header.substr(dash + 1));
  const auto from = parseNumber(first), to = parseNumber(last);
  if (first.empty()) {
    if (!to) return {};
    const uint64_t size = std::min(*to, objectSize);
    if (size == 0) return {RangeChoice::Unsatisfiable};
    return {RangeChoice::Part, {objectSize - size, size}};
  }
  if (!from || (!last.empty() && (!to || *to < *from))) return {};
  if (*from >= objectSize) return {RangeChoice::Unsatisfiable};
  const uint64_t end = last.empty() ? objectSize - 1 : std::min(*to, objectSize - 1);
  return {RangeChoice::Part, {*from, end - *from + 1}};
}

std::optional<ContentRange> parseContentRange(std::string_view header) {
  constexpr std::string_view BYTES = "bytes ";
  if (!header.starts_with(BYTES)) return std::nullopt;
  header = trimmed(header.substr(BYTES.size()));
  const size_t dash = header.find('-'), slash = header.find('/');
  if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) return std::nullopt;
  const auto from = parseNumber(header.substr(0, dash));
  const auto last = parseNumber(header.substr(dash + 1, slash - dash - 1));
  const auto total = parseNumber(header.substr(slash + 1));
  if (!from || !last || *last < *from || (!total && header.substr(slash + 1) != "*")) return std::nullopt;
  return ContentRange{*from, *last, total};
}

}  // namespace diskcached
