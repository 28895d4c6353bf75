// Timers around the cache's disk work, one row for each of the object store's counters.
//
// Off unless the hosting process sets both g_object_store_counter and g_object_store_enable_perf; while
// the switch is off, starting and stopping a counter costs one test of a flag. Counters may be started and
// stopped on any thread; each thread times its own work. What was under way when a switch changed is not
// counted.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "support/export.h"

namespace ObjectStore {

struct PerfCounterInfo {
  uint32_t id;
  std::string name;
  uint32_t reserved;
};

inline constexpr int NUM_PERF_COUNTERS = 49;

// The rows that the cache times; the others serve the rest of the object store.
inline constexpr int PERF_DISK_READ_OP = 35;   // "diskRead": a section-reading operation as a whole
inline constexpr int PERF_DISK_WRITE_OP = 36;  // "diskWrite": writeSections as a whole
inline constexpr int PERF_SYNC = 40;
inline constexpr int PERF_FSTAT = 41;
inline constexpr int PERF_DISK_READ = 42;
inline constexpr int PERF_DISK_WRITE = 43;
inline constexpr int PERF_OPEN = 44;
inline constexpr int PERF_SEEK = 45;
inline constexpr int PERF_CLOSE = 46;

// The table of names, id = index.
DISKCACHE_EXPORT const std::array<PerfCounterInfo, NUM_PERF_COUNTERS>& PerfCounters();

// A flag that any thread may change at any time. No timing spans a change, or a stop that was ignored while
// it was off would leave its start to be taken for that of a later one.
class PerfSwitch {
 public:
  PerfSwitch& operator=(bool isOn) {
    store(isOn);
    return *this;
  }
  DISKCACHE_EXPORT void store(bool isOn);
  bool load(std::memory_order order = std::memory_order_relaxed) const { return m_isOn.load(order); }
  operator bool() const { return load(); }

 private:
  std::atomic<bool> m_isOn{false};
};

// The process's counters. The totals are shared and atomic; the times at which counters were started are
// kept per thread, so a counter started on one thread is stopped on the same one.
class DISKCACHE_EXPORT ThrdPerfCounter {
 public:
  struct Row {
    uint32_t id;
    std::string name;
    uint64_t count;    // completed timings
    uint64_t totalNs;  // nanoseconds of steady time, all threads added up
    double meanNs;
    uint64_t maxNs;
  };

  // Does nothing unless the counter is enabled. An id outside the table is ignored. `name`, the calling
  // operation's, is for subclasses of the hosting process's own; this counter goes by the id.
  void StartPerfCounter(const char* name, int id);
  void StopPerfCounter(const char* name, int id, int reserved);

  void enable(bool enabled) { m_enabled = enabled; }
  void logEachStop(bool logged) { m_logEachStop.store(logged, std::memory_order_relaxed); }

  // Every row that was timed at least once, in order of id.
  std::vector<Row> table() const;
  // Writes the table to the log at level 0 under a label; `id` limits it to one row, -1 means all.
  void _LogPerfCounters(const char* label, int id) const;

 private:
  struct Total {
    std::atomic<uint64_t> count{0};
    std::atomic<uint64_t> totalNs{0};
    std::atomic<uint64_t> maxNs{0};
  };

  PerfSwitch m_enabled;
  std::atomic<bool> m_logEachStop{false};
  std::array<Total, NUM_PERF_COUNTERS> m_totals;
};

DISKCACHE_EXPORT extern PerfSwitch g_object_store_enable_perf;
DISKCACHE_EXPORT extern std::atomic<ThrdPerfCounter*> g_object_store_counter;

inline void OBJECT_STORE_START_PERF_COUNTER(const char* name, int id) {
  if (!g_object_store_enable_perf) return;
  if (ThrdPerfCounter* counter = g_object_store_counter.load(std::memory_order_acquire)) {
    counter->StartPerfCounter(name, id);
  }
}

inline void OBJECT_STORE_STOP_PERF_COUNTER(const char* name, int id) {
  if (!g_object_store_enable_perf) return;
  if (ThrdPerfCounter* counter = g_object_store_counter.load(std::memory_order_acquire)) {
    counter->StopPerfCounter(name, id, 0);
  }
}

// Times a scope.
class TimeFunction {
 public:
  TimeFunction(const char* name, int id) : m_name(name), m_id(id) {
    OBJECT_STORE_START_PERF_COUNTER(name, id);
  }
  ~TimeFunction() { OBJECT_STORE_STOP_PERF_COUNTER(m_name, m_id); }
  TimeFunction(const TimeFunction&) = delete;
  TimeFunction& operator=(const TimeFunction&) = delete;

 private:
  const char* m_name;
  int m_id;
};

}  // namespace ObjectStore
