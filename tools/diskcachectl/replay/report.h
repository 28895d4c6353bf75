// What a replay counted, and how it is told.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace diskcachectl {

// Kept by each thread for itself and merged at the end.
struct Tally {
  uint64_t rejected = 0;  // misses whose write was refused for lack of space
  uint64_t verifyFailures = 0;
  uint64_t bytesRead = 0;     // from the cache
  uint64_t bytesWritten = 0;  // into it
  std::vector<float> hitUs;   // microseconds, one a hit
  std::vector<float> missUs;
  std::string firstFailure;  // the file of one segment with wrong bytes

  void merge(const Tally& other);
};

struct Report {
  std::string mode;
  Tally tally;
  uint64_t pruned = 0;
  double elapsedS = 0;
  std::string leftOut;
  std::map<std::string, std::string> status;
  std::map<std::string, std::string> counters;
};

// Both reorder the latencies.
std::string asTable(Report& report);
std::string asJson(Report& report);

}  // namespace diskcachectl
