#include "object/objectInfo.h"

#include <algorithm>

#include "http/httpDate.h"
#include "http/range.h"

namespace diskcached {
namespace {

using std::chrono::seconds;

constexpr uint64_t MOST_SECONDS = 1U << 31U;
// Of an object: 8 TiB in blocks of a MiB. Giving an object up means a look at each, whatever a store says of its size.
constexpr uint64_t MOST_BLOCKS = 1 << 23;

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return out;
}

// Stores name years that the clock does not reach.
Clock::time_point clockTimeOf(std::time_t when) {
  const auto last = std::chrono::duration_cast<seconds>(Clock::time_point::max().time_since_epoch());
  return when > last.count() ? Clock::time_point::max() : Clock::from_time_t(std::max<std::time_t>(when, 0));
}

// What Cache-Control says to a cache that many share.
struct Directives {
  bool mayStore = true;
  bool mayServeStale = true;
  bool isImmutable = false;
  std::optional<seconds> maxAge{}, sharedMaxAge{};

  std::optional<seconds> age() const { return sharedMaxAge ? sharedMaxAge : maxAge; }
};

void readDirective(std::string_view part, Directives& found) {
  const size_t equals = std::min(part.find('='), part.size());
  const std::string_view name = part.substr(0, equals);
  std::string_view value = part.substr(std::min(equals + 1, part.size()));
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
    value = value.substr(1, value.size() - 2);
  const auto number = parseNumber(value);
  const auto age = number ? std::optional(seconds(std::min(*number, MOST_SECONDS))) : std::nullopt;
  if (name == "no-store" || name == "private") found.mayStore = false;
  if (name == "no-cache") found.maxAge = found.sharedMaxAge = seconds(0);
  if (name == "must-revalidate" || name == "proxy-revalidate" || name == "no-cache")
    found.mayServeStale = false;
  if (name == "max-age" && !found.maxAge) found.maxAge = age.value_or(seconds(0));
  if (name == "s-maxage" && !found.sharedMaxAge) {
    found.sharedMaxAge = age.value_or(seconds(0));
    found.mayServeStale = false;
  }
  if (name == "immutable") found.isImmutable = true;
}

Directives readCacheControl(std::string_view text) {
  Directives found;
  const std::string lower = lowered(text);
  std::string_view rest = lower;
  while (!rest.empty()) {
    const size_t comma = std::min(rest.find(','), rest.size());
    std::string_view part = rest.substr(0, comma);
    while (!part.empty() && (part.front() == ' ' || part.front() == '\t')) part.remove_prefix(1);
    while (!part.empty() && (part.back() == ' ' || part.back() == '\t')) part.remove_suffix(1);
    readDirective(part, found);
    rest.remove_prefix(std::min(comma + 1, rest.size()));
  }
  return found;
}

}  // namespace

bool isCachedHeader(std::string_view name) {
  for (const std::string_view kept :
       {"etag", "last-modified", "content-type", "content-encoding", "content-language",
        "content-disposition", "cache-control", "expires"}) {
    if (name == kept) return true;
  }
  return name.starts_with("x-amz-meta-");
}

Metadata cachedHeaders(const Headers& headers) {
  Metadata kept;
  for (const auto& [name, value] : headers) {
    std::string lower = lowered(name);
    if (!isCachedHeader(lower)) continue;
    std::string& all = kept[std::move(lower)];
    all += (all.empty() ? "" : ", ") + value;
  }
  return kept;
}

std::string versionOf(const Metadata& headers, uint64_t size) {
  if (const auto tag = headers.find("etag"); tag != headers.end() && !tag->second.empty()) return tag->second;
  if (const auto date = headers.find("last-modified"); date != headers.end() && !date->second.empty())
    return date->second + '/' + std::to_string(size);
  return "";
}

std::optional<ObjectInfo> describeObject(const Headers& headers, const Options& options,
                                         Clock::time_point now) {
  const auto size = parseNumber(headerOf(headers, "content-length"));
  if (!size || *size / options.blockSize >= MOST_BLOCKS) return std::nullopt;
  const seconds age(std::min(parseNumber(headerOf(headers, "age")).value_or(0), MOST_SECONDS));
  return describeObject(cachedHeaders(headers), *size, options, now, age);
}

ObjectInfo describeObject(Metadata kept, uint64_t size, const Options& options, Clock::time_point now,
                          seconds age) {
  ObjectInfo info;
  info.size = size;
  info.version = versionOf(kept, size);
  info.headers = std::move(kept);
  info.checkedAt = now - age;
  const Directives directives = readCacheControl(info.header("cache-control"));
  info.mayStore = directives.mayStore && !info.version.empty();
  // Two objects of one weak tag, or of one date and size, may differ in bytes.
  if (info.header("etag").empty() || info.header("etag").starts_with("W/")) info.forbidParts(options);
  info.mayServeStale = directives.mayServeStale;
  const bool isForEver = options.freshFor == seconds::max() || (directives.isImmutable && !directives.age());
  const auto lifetime = directives.age();
  const auto expires = parseHttpDate(std::string(info.header("expires")));
  if (lifetime) {
    info.freshUntil = info.checkedAt + *lifetime;
  } else if (!info.header("expires").empty()) {
    info.freshUntil = expires ? clockTimeOf(*expires) : now;
  } else if (isForEver) {
    info.freshUntil = Clock::time_point::max();
  } else {
    info.freshUntil = now + options.freshFor;
  }
  return info;
}

}  // namespace diskcached
