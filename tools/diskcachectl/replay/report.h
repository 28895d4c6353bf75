// What a replay counted, and how it is told.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "client/objectCacheMetrics.h"
#include "support/error.h"

namespace diskcachectl {

// Kept by each thread for itself and merged at the end.
struct Tally {
  uint64_t verifyFailures = 0;
  uint64_t bytesRead = 0;    // from the cache
  std::vector<float> hitUs;  // microseconds, one a hit
  std::vector<float> missUs;
  std::string firstFailure;  // the file of one object with wrong bytes

  void merge(const Tally& other);
};

struct Report {
  std::string mode;
  Tally tally;
  ObjectStore::ObjectCacheMetrics metrics;
  double elapsedS = 0;
  ObjectStore::CZuError moveError;
  std::string leftOut;

  uint64_t rejected() const { return metrics.refusedForRoom + metrics.refusedByDisk; }
};

// Both reorder the latencies.
std::string asTable(Report& report);
std::string asJson(Report& report);

}  // namespace diskcachectl
