// How full the cache is: watermarks, the delay of writers, the out-of-space switch, status and counters.
#include <algorithm>
#include <chrono>
#include <limits>
#include <thread>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheLru.h"
#include "support/config.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr const char* LOW_WM_KEY = "DiskCacheLowWMBytes";
constexpr const char* HIGH_WM_KEY = "DiskCacheHighWMBytes";
constexpr const char* ALARM_WM_KEY = "DiskCacheAlarmWMBytes";
constexpr uint64_t MAX_DELAY_MS = 1000;

}  // namespace

bool DiskCache::isOverWatermark(const char* key, int percent) {
  const uint64_t used = m_totalCacheUsed.value();
  const uint64_t bytes =
      getRegistryValue<unsigned long>(key, 0, 0, std::numeric_limits<unsigned long>::max());
  if (bytes != 0) return used > bytes;
  // Signed on purpose, and wrapping where the product does not fit: the multiplication is unsigned.
  const auto product = static_cast<int64_t>(static_cast<uint64_t>(int64_t{percent}) * m_totalCache.value());
  return static_cast<int64_t>(used) > product / 100;
}

bool DiskCache::isOverLowWatermark() { return isOverWatermark(LOW_WM_KEY, m_lowWM); }
bool DiskCache::isOverHighWatermark() { return isOverWatermark(HIGH_WM_KEY, m_highWM); }
bool DiskCache::isOverAlarmWatermark() { return isOverWatermark(ALARM_WM_KEY, m_alarmWM); }

void DiskCache::delayWriteToSegment() {
  if (!isOverHighWatermark()) return;
  const uint64_t total = m_totalCache.value();
  const uint64_t free = total - m_totalCacheUsed.value();
  DC_LOG(LogLevel::Segment, "Is OverHighWaterMark, Empty space available is %lu", free);
  if (free == 0) return;  // a full cache is not slowed down: the write itself fails
  const uint64_t delay = std::min(total * 2 / free, MAX_DELAY_MS);
  DC_LOG(LogLevel::Segment, "Delaying the write to segment operation %lu", delay);
  std::this_thread::sleep_for(std::chrono::milliseconds(delay));
  m_stats.delayMs += static_cast<int64_t>(delay);
}

CZuError DiskCache::updateWatermarks(int high, int low, int alarm) {
  DC_LOG(LogLevel::Setup, "New watermarks=[%d/%d/%d]", high, low, alarm);
  m_highWM = high;
  m_lowWM = low;
  m_alarmWM = alarm;
  return {};
}

CZuError DiskCache::getCurrentWatermarks(int& high, int& low, int& alarm) {
  high = m_highWM;
  low = m_lowWM;
  alarm = m_alarmWM;
  DC_LOG(LogLevel::Setup, "Current watermarks=[%d/%d/%d]", high, low, alarm);
  return {};
}

void DiskCache::setOutOfSpace(bool flag) {
  DC_LOG(LogLevel::Setup, "Setting out of space mode = %d", flag ? 1 : 0);
  m_outOfSpace = flag;
}

void DiskCache::getStatus(std::map<std::string, std::string>& out) {
  // Negative watermarks show as their two's complement.
  const auto watermark = [](int percent) { return static_cast<uint64_t>(int64_t{percent}); };
  pushStat(out, "DC.PruningMode", m_pruningMode == PruningMode::Random ? "random" : "lru", "");
  pushStat(out, "DC.HighWM", watermark(m_highWM), "");
  pushStat(out, "DC.LowWM", watermark(m_lowWM), "");
  pushStat(out, "DC.AlarmWM", watermark(m_alarmWM), "");
  pushStat(out, "DC.TotalCache", m_totalCache.value(), "");
  pushStat(out, "DC.UsedCache", m_totalCacheUsed.value(), "");
  pushStat(out, "DC.SegmentsInCache", m_segmentsInCache.value(), "");
  m_lru->getStatus(out);
}

void DiskCache::getCounters(std::map<std::string, std::string>& out) {
  pushStat(out, "DC.numPruned", m_stats.numPruned.value(), "");
  pushStat(out, "DC.delayMs", m_stats.delayMs.value(), "");
  pushStat(out, "DC.errOutOfSpace", m_stats.errOutOfSpace.value(), "");
}

void pushStat(std::map<std::string, std::string>& stats, const std::string& key, uint64_t value,
              const std::string& prefix) {
  stats[prefix + key] = std::to_string(value);
}

void pushStat(std::map<std::string, std::string>& stats, const std::string& key, const std::string& value,
              const std::string& prefix) {
  stats[prefix + key] = value;
}

}  // namespace ObjectStore
