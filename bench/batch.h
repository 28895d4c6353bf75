// Timing a batch of operations, each for itself and all together, on one thread or several.
#pragma once

#include <functional>
#include <vector>

#include "store.h"

namespace bench {

// Microseconds an operation.
struct Timing {
  double wall = 0;  // of the batch, from the first thread's begin to the last one's end
  double p50 = 0;   // median of single operations
  double p99 = 0;
  double p999 = 0;  // 99.9 %; the longest of fewer than 1,000
  double cpu = 0;   // of the threads that made the calls; a store's own threads do not count
};

using Operation = std::function<void(Session&, size_t segment, Buffer buffer)>;

// Each thread has a session and a buffer of `bytes` and takes its share of `order`.
Timing timeBatch(const std::vector<std::unique_ptr<Session>>& sessions, size_t threads,
                 const std::vector<size_t>& order, size_t bytes, const Operation& operation);

// The value that this share of them, below 1, does not exceed; they come back in another order.
double quantileOf(std::vector<double>& values, double share);
inline double medianOf(std::vector<double>& values) { return quantileOf(values, 0.5); }

}  // namespace bench
