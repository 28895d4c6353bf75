// What is known of an object without its bytes.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "client/blockTrailer.h"
#include "http/headers.h"
#include "options/options.h"

namespace diskcached {

using ObjectStore::Metadata;
using Clock = std::chrono::system_clock;

struct ObjectInfo {
  std::string version;  // its identity in the cache: the ETag, or else date and size
  uint64_t size = 0;
  Metadata headers;  // those that are cached, by lower-case name
  Clock::time_point checkedAt, freshUntil;
  Clock::time_point leaveAloneUntil{};  // until then served stale without asking a store in trouble
  bool mayStore = true;                 // the store allows it, and its version tells enough
  bool isWithoutRanges = false;         // the store gives this object as a whole only
  bool mayServeStale = true;            // the store allows it
  bool isStaged = false;                // not uploaded yet: nobody else has it
  bool isRemembered = false;  // from before a restart; the headers are to be had from the cache first

  std::string_view header(std::string_view name) const {
    const auto found = headers.find(std::string(name));
    return found == headers.end() ? std::string_view() : found->second;
  }
  // From now on it is stored only if it is one block.
  void forbidParts(const Options& options) { mayStore = mayStore && size <= options.blockSize; }
  bool isFresh(Clock::time_point now) const { return !isRemembered && (isStaged || now < freshUntil); }
};
using ObjectInfoPointer = std::shared_ptr<const ObjectInfo>;

// Headers of the store that are kept with an object and given to clients.
bool isCachedHeader(std::string_view lowerCaseName);
Metadata cachedHeaders(const Headers& headers);

// The version that an answer's validators make; empty when it has none.
std::string versionOf(const Metadata& headers, uint64_t size);

// From the answer to a HEAD, or none when it does not tell a size, or one that no object has.
std::optional<ObjectInfo> describeObject(const Headers& headers, const Options& options,
                                         Clock::time_point now);
// The same of headers that were kept, from an answer that was so old when it came.
ObjectInfo describeObject(Metadata kept, uint64_t size, const Options& options, Clock::time_point now,
                          std::chrono::seconds age = {});

}  // namespace diskcached
