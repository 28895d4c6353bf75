#include "http/target.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "http/text.h"

namespace diskcached {
namespace {

constexpr std::string_view HEX = "0123456789ABCDEF";

bool isPlain(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string encode(std::string_view text, bool keepsSlash) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (isPlain(c) || (keepsSlash && c == '/')) {
      out += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      out += {'%', HEX[byte >> 4U], HEX[byte & 15U]};
    }
  }
  return out;
}

bool hasDotSegment(std::string_view path) {
  while (true) {
    const size_t slash = path.find('/');
    const std::string_view segment = path.substr(0, slash);
    if (segment == "." || segment == "..") return true;
    if (slash == std::string_view::npos) return false;
    path.remove_prefix(slash + 1);
  }
}

template <typename F>
void eachParameter(std::string_view query, F visit) {
  while (!query.empty()) {
    const size_t end = std::min(query.find('&'), query.size());
    const std::string_view part = query.substr(0, end);
    const size_t equals = std::min(part.find('='), part.size());
    if (!part.empty()) visit(part.substr(0, equals), part.substr(std::min(equals + 1, part.size())));
    query.remove_prefix(std::min(end + 1, query.size()));
  }
}

bool isOfSignature(std::string_view name, std::string_view value, bool isOldKind) {
  const auto is = [name](std::string_view other) { return equalsIgnoringCase(name, other); };
  if (isOldKind && (is("awsaccesskeyid") || is("signature") || is("expires"))) return true;
  if (is("x-amz-content-sha256")) return equalsIgnoringCase(value, "UNSIGNED-PAYLOAD");
  return is("x-amz-algorithm") || is("x-amz-credential") || is("x-amz-date") || is("x-amz-expires") ||
         is("x-amz-signedheaders") || is("x-amz-signature") || is("x-amz-security-token");
}

}  // namespace

std::optional<std::string> decodeEscapes(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    const int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? hexValue(text[i + 2]) : -1;
    if (high < 0 || low < 0) return std::nullopt;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

std::optional<Target> parseTarget(std::string_view text) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (!text.starts_with(scheme)) continue;
    text.remove_prefix(std::min(text.find('/', scheme.size()), text.size()));
    if (text.empty()) text = "/";
  }
  const bool isOdd = std::any_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == '\x7f' || c == '#';
  });
  if (!text.starts_with('/') || isOdd) return std::nullopt;
  const size_t mark = std::min(text.find('?'), text.size());
  const auto key = decodeEscapes(text.substr(1, mark - 1));
  if (!key || key->find('\0') != std::string::npos || hasDotSegment(*key)) return std::nullopt;
  return Target{*key, std::string(text.substr(std::min(mark + 1, text.size())))};
}

bool repeatsMethod(std::string_view query, std::string_view method) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 4> NAMES = {
      {{"GET", "x-id=GetObject"},
       {"HEAD", "x-id=HeadObject"},
       {"PUT", "x-id=PutObject"},
       {"DELETE", "x-id=DeleteObject"}}};
  return std::find(NAMES.begin(), NAMES.end(), std::pair(method, query)) != NAMES.end();
}

std::string encodePath(std::string_view key) { return encode(key, true); }

std::string canonicalQuery(std::string_view query) {
  std::vector<std::string> parts;
  eachParameter(query, [&](std::string_view name, std::string_view value) {
    const auto plainName = decodeEscapes(name), plainValue = decodeEscapes(value);
    parts.push_back((plainName ? encode(*plainName, false) : encode(name, false)) + '=' +
                    (plainValue ? encode(*plainValue, false) : encode(value, false)));
  });
  std::sort(parts.begin(), parts.end());
  std::string out;
  for (const std::string& part : parts) out += (out.empty() ? "" : "&") + part;
  return out;
}

std::string withoutSignature(std::string_view query) {
  const bool isOldKind = queryValue(query, "AWSAccessKeyId").has_value();
  std::string out;
  eachParameter(query, [&](std::string_view name, std::string_view value) {
    if (isOfSignature(decodeEscapes(name).value_or(""), value, isOldKind)) return;
    const char* const end = value.data() + value.size();
    out.append(out.empty() ? "" : "&").append(name.data(), end);
  });
  return out;
}

std::optional<std::string> queryValue(std::string_view query, std::string_view name) {
  std::optional<std::string> found;
  eachParameter(query, [&](std::string_view itsName, std::string_view value) {
    if (!found && itsName == name) found = decodeEscapes(value);
  });
  return found;
}

}  // namespace diskcached
