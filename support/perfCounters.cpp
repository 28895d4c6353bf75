#include "support/perfCounters.h"

#include <chrono>
#include <utility>

#include "support/log.h"

namespace ObjectStore {

PerfSwitch g_object_store_enable_perf;
std::atomic<ThrdPerfCounter*> g_object_store_counter{nullptr};

namespace {

std::atomic<uint64_t> g_switchChanges{0};  // of all switches of the process

struct Start {
  uint64_t ns = 0;  // of steady time; 0 when the counter is not running
  uint64_t switchChanges = 0;
};
// When the calling thread started each counter.
thread_local std::array<Start, NUM_PERF_COUNTERS> t_started;

uint64_t nowNs() {
  return static_cast<uint64_t>(
      std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count());
}

bool inTable(int id) { return id >= 0 && id < NUM_PERF_COUNTERS; }

std::array<PerfCounterInfo, NUM_PERF_COUNTERS> makeTable() {
  static constexpr std::array<const char*, NUM_PERF_COUNTERS> names = {"backupinit",
                                                                       "backupjobstart",
                                                                       "backupitem",
                                                                       "create",
                                                                       "createAndOpen",
                                                                       "createSymLink",
                                                                       "mkdir",
                                                                       "open",
                                                                       "close",
                                                                       "writeExtent",
                                                                       "write",
                                                                       "readExtent",
                                                                       "read",
                                                                       "unlink",
                                                                       "rmdir",
                                                                       "rename",
                                                                       "getattr",
                                                                       "setattr",
                                                                       "getxattr",
                                                                       "setxattr",
                                                                       "fsync",
                                                                       "flock",
                                                                       "lock",
                                                                       "chmod",
                                                                       "utimes",
                                                                       "chown",
                                                                       "truncate",
                                                                       "guidToPath",
                                                                       "pathToGuid",
                                                                       "readdir",
                                                                       "read_for_backup",
                                                                       "write_to_pipeline",
                                                                       "updateVolumeSize",
                                                                       "readDirEnt",
                                                                       "addToDirEnt",
                                                                       "diskRead",
                                                                       "diskWrite",
                                                                       "custom1",
                                                                       "custom2",
                                                                       "custom3",
                                                                       "DiskCacheSync",
                                                                       "DiskCacheFstat",
                                                                       "DiskCacheDiskRead",
                                                                       "DiskCacheDiskWrite",
                                                                       "DiskCacheOpen",
                                                                       "DiskCacheSeek",
                                                                       "DiskCacheClose",
                                                                       "pipeline_commit",
                                                                       "stream_lock_wait"};
  std::array<PerfCounterInfo, NUM_PERF_COUNTERS> table;
  for (uint32_t id = 0; id < table.size(); ++id) table[id] = {id, names[id], 0};
  return table;
}

}  // namespace

const std::array<PerfCounterInfo, NUM_PERF_COUNTERS>& PerfCounters() {
  static const auto table = makeTable();
  return table;
}

void PerfSwitch::store(bool isOn) {
  if (m_isOn.exchange(isOn, std::memory_order_relaxed) != isOn) {
    g_switchChanges.fetch_add(1, std::memory_order_relaxed);
  }
}

void ThrdPerfCounter::StartPerfCounter(const char* /*name*/, int id) {
  if (!m_enabled || !inTable(id)) return;
  t_started[static_cast<size_t>(id)] = {nowNs(), g_switchChanges.load(std::memory_order_relaxed)};
}

void ThrdPerfCounter::StopPerfCounter(const char* /*name*/, int id, int /*reserved*/) {
  if (!m_enabled || !inTable(id)) return;
  const Start start = std::exchange(t_started[static_cast<size_t>(id)], {});
  if (start.ns == 0 || start.switchChanges != g_switchChanges.load(std::memory_order_relaxed)) return;
  const uint64_t elapsed = nowNs() - start.ns;
  Total& total = m_totals[static_cast<size_t>(id)];
  total.count.fetch_add(1, std::memory_order_relaxed);
  total.totalNs.fetch_add(elapsed, std::memory_order_relaxed);
  uint64_t max = total.maxNs.load(std::memory_order_relaxed);
  while (elapsed > max && !total.maxNs.compare_exchange_weak(max, elapsed, std::memory_order_relaxed)) {
  }
  if (!m_logEachStop.load(std::memory_order_relaxed)) return;
  try {
    _LogPerfCounters("For All The Files", -1);
  } catch (const std::bad_alloc&) {  // no reason to end a read that went well
  }
}

std::vector<ThrdPerfCounter::Row> ThrdPerfCounter::table() const {
  std::vector<Row> rows;
  for (const PerfCounterInfo& info : PerfCounters()) {
    const Total& total = m_totals[info.id];
    const uint64_t count = total.count.load(std::memory_order_relaxed);
    if (count == 0) continue;
    const uint64_t totalNs = total.totalNs.load(std::memory_order_relaxed);
    rows.push_back({info.id, info.name, count, totalNs,
                    static_cast<double>(totalNs) / static_cast<double>(count),
                    total.maxNs.load(std::memory_order_relaxed)});
  }
  return rows;
}

void ThrdPerfCounter::_LogPerfCounters(const char* label, int id) const {
  for (const Row& row : table()) {
    if (id >= 0 && row.id != static_cast<uint32_t>(id)) continue;
    DC_LOG(LogLevel::Notice, "%s: %s count=%lu total_ns=%lu mean_ns=%.0f max_ns=%lu", label, row.name.c_str(),
           row.count, row.totalNs, row.meanNs, row.maxNs);
  }
}

}  // namespace ObjectStore
