// How full the cache is, who waits because of it, and what is counted.
//
// Internal. Any thread may call the operations; none takes a lock. Sizes are in bytes, watermarks in percent
// of the capacity. The counters drift from what the volumes hold until these are measured again.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "diskcache/diskcacheSettings.h"
#include "diskcache/diskcacheTypes.h"
#include "diskcache/engineCounters.h"
#include "support/atomicCounter.h"
#include "support/error.h"
#include "support/event.h"

namespace ObjectStore {

class DiskCacheSpace {
 public:
  explicit DiskCacheSpace(const DiskCacheSettings& settings) : m_settings(settings) {}

  uint64_t used() const { return m_totalCacheUsed.value(); }
  uint64_t capacity() const { return m_totalCache.value(); }
  uint64_t segments() const { return m_segmentsInCache.value(); }
  void setUsed(uint64_t bytes) { m_totalCacheUsed = static_cast<int64_t>(bytes); }
  void setCapacity(uint64_t bytes) { m_totalCache = static_cast<int64_t>(bytes); }
  // Negative for bytes that have gone.
  void addUsed(int64_t bytes) { m_totalCacheUsed += bytes; }
  void addCapacity(int64_t bytes) { m_totalCache += bytes; }
  void segmentMade() { m_segmentsInCache++; }
  void segmentGone() { m_segmentsInCache--; }
  void forgetSegments() {
    m_segmentsInCache = 0;
    m_otherFiles = 0;
  }
  // What the count above leaves out: segments found at the start, override copies, recycled ones.
  void addFiles(int64_t files) { m_otherFiles += files; }
  void filesFound(uint64_t files) {
    addFiles(static_cast<int64_t>(files));
    m_areFilesKnown = true;
  }
  // The volumes are empty, while the count of segments stays.
  void filesCleared() { m_otherFiles = -static_cast<int64_t>(segments()); }
  // Some volumes are empty, and nobody counted what lay on them.
  void filesLost() { m_areFilesKnown = false; }
  // Segments' files on the volumes; none while nobody has counted those of an earlier run. Below 0 when more went than
  // were known.
  std::optional<int64_t> files() const {
    if (!m_areFilesKnown) return std::nullopt;
    return static_cast<int64_t>(segments() + m_otherFiles.value());
  }

  // In no checked range or order. A reader may see some new and some old.
  void setWatermarks(int high, int low, int alarm);
  void getWatermarks(int& high, int& low, int& alarm) const;
  bool isOverLowWatermark() const;
  bool isOverHighWatermark() const;
  bool isOverAlarmWatermark() const;

  // Makes a writer wait up to a second while the cache is over its high watermark.
  void delayWriteToSegment();

  // The pruner waits for whoever runs out of room.
  void wakePruner() { m_wakeup.set(); }
  void wakePrunerWhenFull();
  // False when nobody did in time.
  bool waitForWakeup(unsigned long ms) { return m_wakeup.wait(ms); }
  // Gives an operation's error back. In mode Random a client that was told of no room finds some when it
  // comes again.
  CZuError askForRoom(CZuError error);

  // Counts a failed write that found no room; gives its number back.
  int countRefusal(int error);
  // A full file system is an expected state of a cache: it is counted, and its line is not an error line.
  int writeFailureLevel(int error);

  // While set, segments are not created: "no room".
  void setOutOfSpace(bool flag) { m_outOfSpace = flag; }
  bool isOutOfSpace() const { return m_outOfSpace; }

  Stats& stats() { return m_stats; }
  EngineCounters& counters() { return m_counters; }
  // The engine's own entries of DiskCache::getStatus, and getCounters.
  void getStatus(std::map<std::string, std::string>& out) const;
  void getCounters(std::map<std::string, std::string>& out) const;

 private:
  bool isOverWatermark(const char* key, int percent) const;

  const DiskCacheSettings& m_settings;
  RelaxedAtomic<int32_t> m_highWM{0};
  RelaxedAtomic<int32_t> m_lowWM{0};
  RelaxedAtomic<int32_t> m_alarmWM{0};
  RelaxedAtomic<bool> m_outOfSpace{false};
  Stats m_stats;
  EngineCounters m_counters;
  KxAtomicU64_t m_totalCacheUsed;
  KxAtomicU64_t m_totalCache;
  KxAtomicU64_t m_segmentsInCache;
  KxAtomicU64_t m_otherFiles;
  RelaxedAtomic<bool> m_areFilesKnown{false};
  KxEvent m_wakeup{false};
};

}  // namespace ObjectStore
