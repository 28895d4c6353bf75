// How much longer than usual a test is to go on: DISKCACHE_SOAK=N, as scripts/check --soak sets it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace ObjectStore {

inline size_t soaked(size_t usual) {
  const char* const factor = std::getenv("DISKCACHE_SOAK");
  return usual * (factor ? std::max(1UL, std::strtoul(factor, nullptr, 10)) : 1);
}

}  // namespace ObjectStore
