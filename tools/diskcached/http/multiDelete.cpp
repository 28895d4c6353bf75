#include "http/multiDelete.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

namespace diskcached {
namespace {

std::string utf8Of(uint32_t point) {
  if (point < 0x80) return {static_cast<char>(point)};
  std::string out;
  for (; point >= 0x40U >> out.size(); point >>= 6U)
    out.insert(0, 1, static_cast<char>(0x80U | (point & 0x3fU)));
  return out.insert(0, 1, static_cast<char>((0xff00U >> (out.size() + 1)) | point));
}

// What stands for "&name;"; none when nothing is known to.
std::optional<std::string> referred(std::string_view name) {
  const struct {
    std::string_view name, text;
  } known[] = {{"amp", "&"}, {"lt", "<"}, {"gt", ">"}, {"quot", "\""}, {"apos", "'"}};
  for (const auto& each : known) {
    if (name == each.name) return std::string(each.text);
  }
  const bool isHex = name.starts_with("#x");
  const std::string_view digits = name.substr(std::min<size_t>(isHex ? 2 : 1, name.size()));
  uint32_t point = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), point, isHex ? 16 : 10);
  const bool isNumber = error == std::errc() && end == digits.data() + digits.size();
  if (!name.starts_with('#') || !isNumber || point > 0x10ffff) return std::nullopt;
  return utf8Of(point);
}

std::optional<std::string> decodeReferences(std::string_view text) {
  std::string out;
  for (size_t mark = text.find('&'); mark != std::string_view::npos; mark = text.find('&')) {
    const size_t end = text.find(';', mark);
    const auto meant = referred(text.substr(mark + 1, std::min(end, text.size()) - mark - 1));
    if (end == std::string_view::npos || !meant) return std::nullopt;
    out.append(text.substr(0, mark)).append(*meant);
    text.remove_prefix(end + 1);
  }
  return out.append(text);
}

// Of a tag, without the prefix of its namespace; empty for one that ends an element.
std::string_view nameOf(std::string_view tag) {
  tag = tag.substr(0, tag.find_first_of(" \t\r\n/"));
  return tag.substr(tag.find(':') + 1);
}

}  // namespace

std::vector<std::string> keysToDelete(std::string_view xml) {
  std::vector<std::string> keys;
  for (size_t at = xml.find('<'); at != std::string_view::npos; at = xml.find('<')) {
    const size_t end = xml.find('>', at);
    if (end == std::string_view::npos) return {};
    const std::string_view name = nameOf(xml.substr(at + 1, end - at - 1));
    xml.remove_prefix(end + 1);
    if (name != "Key") continue;
    const std::string_view text = xml.substr(0, xml.find('<'));
    auto key = decodeReferences(text);
    if (!key || !xml.substr(text.size()).starts_with("</")) return {};
    keys.push_back(std::move(*key));
  }
  return keys;
}

}  // namespace diskcached
