// The library as a client uses it.
#pragma once

#include "diskcache/diskcache.h"
#include "store.h"

namespace bench {

// What watches the cache while it is timed.
enum class Watch { Nothing, Counters, Log };

struct CacheOptions {
  ObjectStore::PruningMode mode = ObjectStore::PruningMode::Lru;
  Watch watch = Watch::Nothing;
  bool isTouching = false;  // reads count as use in the recency list
  uint64_t listEntries = 1'000'000;
};

// Several caches of one `dir` share its volume, and with it their segments; `name` keeps apart what is each
// one's own.
std::unique_ptr<Store> makeCache(const std::string& dir, const std::string& name, const Guids& guids,
                                 const CacheOptions& options);

}  // namespace bench
