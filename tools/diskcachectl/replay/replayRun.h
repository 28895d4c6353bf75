// Carries a workload's requests out against a cache.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "replay/cacheClient.h"
#include "replay/report.h"
#include "replay/workload.h"

namespace diskcachectl {

struct RunSettings {
  uint64_t requests = 0;
  unsigned threads = 1;
  bool verify = true;        // compare the bytes of every hit with the origin's
  std::string moveVolumeTo;  // where the first volume goes half-way through; empty: nowhere
  // Told each request before it is made, by any thread; may be empty.
  std::function<void(const std::string& id, uint32_t size)> onRequest;
};

// Every thread takes the next request until there is none; the first error ends the run and is thrown. A
// hit's latency is the cache's read; a miss's is all that a client waits for: the question, the fetch from
// the origin and the write.
Tally runReplay(const Workload& workload, CacheClient& cache, const RunSettings& settings);

}  // namespace diskcachectl
