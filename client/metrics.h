// Counters that cost a hit a few nanoseconds: relaxed atomics, spread over cache lines by thread.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <string>

#include "client/objectCacheMetrics.h"

namespace ObjectStore {

enum class Count : unsigned {
#define DISKCACHE_CLIENT_ENUMERATOR(field, name, labels, help) field,
  DISKCACHE_CLIENT_COUNTERS(DISKCACHE_CLIENT_ENUMERATOR)
#undef DISKCACHE_CLIENT_ENUMERATOR
      number  // of counters
};

// Bounds first · 2^(step · i).
class AtomicHistogram {
 public:
  constexpr AtomicHistogram(uint64_t first, unsigned step) : m_first(first), m_step(step) {}
  void add(uint64_t value);
  // In units of `perUnit` of what was added.
  Histogram read(double perUnit) const;
  double bound(size_t bucket) const { return static_cast<double>(m_first << (m_step * bucket)); }

 private:
  const uint64_t m_first;
  const unsigned m_step;
  std::array<std::atomic<uint64_t>, Histogram::BUCKETS + 1> m_counts{};
  std::atomic<uint64_t> m_sum{0};
};

class Metrics {
 public:
  void add(Count counter, uint64_t n = 1) {
    m_stripes[stripe()].counters[static_cast<unsigned>(counter)].fetch_add(n, std::memory_order_relaxed);
  }
  // Whether this thread's next hit is to be timed.
  static bool isSampled() {
    thread_local unsigned turn = 0;
    return ++turn % 16 == 0;
  }
  void fill(ObjectCacheMetrics& out) const;

  AtomicHistogram hits{1000, 1};    // nanoseconds
  AtomicHistogram misses{1000, 2};  // nanoseconds
  AtomicHistogram evicted{1, 2};    // seconds

 private:
  static constexpr unsigned STRIPES = 16;
  struct alignas(64) Stripe {
    std::array<std::atomic<uint64_t>, static_cast<size_t>(Count::number)> counters{};
  };

  static unsigned stripe() {
    static std::atomic<unsigned> next{0};
    thread_local const unsigned mine = next.fetch_add(1, std::memory_order_relaxed) % STRIPES;
    return mine;
  }

  std::array<Stripe, STRIPES> m_stripes{};
};

class Stopwatch {
 public:
  uint64_t elapsed() const {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - m_start)
            .count());
  }

 private:
  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

void renderPrometheus(const ObjectCacheMetrics& metrics, std::string& out);

}  // namespace ObjectStore
