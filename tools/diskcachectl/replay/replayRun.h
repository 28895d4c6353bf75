// Carries a workload's requests out against a cache.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "client/objectCache.h"
#include "replay/report.h"
#include "replay/workload.h"

namespace diskcachectl {

struct RunSettings {
  uint64_t requests = 0;
  unsigned threads = 1;
  bool verify = true;                // compare the bytes of every hit with the origin's
  std::vector<std::string> volumes;  // the cache's
  std::string moveVolumeTo;          // where the first of them goes half-way through; empty: nowhere
  // Told each request before it is made, by any thread; may be empty.
  std::function<void(const std::string& id, uint32_t size)> onRequest;
};

// Every thread takes the next request until there is none; an error ends the run and is thrown, but for the move's,
// which the report holds. A miss's latency holds the fetch from the origin and the write. Of the report, the tally,
// the time until the last request has ended and the move's error are set.
//
// An object is its identifier, in the version that its size is: asked for in another size it has been replaced, and
// the older one is dropped. So with one thread in mode lru the cache holds exactly the objects that were asked for
// last, if none is larger than a block.
Report runReplay(const Workload& workload, ObjectStore::ObjectCache& cache, const RunSettings& settings);

}  // namespace diskcachectl
