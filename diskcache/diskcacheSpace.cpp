#include "diskcache/diskcacheSpace.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <thread>

#include "diskcache/engineSteps.h"
#include "support/config.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr const char* LOW_WM_KEY = "DiskCacheLowWMBytes";
constexpr const char* HIGH_WM_KEY = "DiskCacheHighWMBytes";
constexpr const char* ALARM_WM_KEY = "DiskCacheAlarmWMBytes";
constexpr uint64_t MAX_DELAY_MS = 1000;

}  // namespace

bool DiskCacheSpace::isOverWatermark(const char* key, int percent) const {
  const uint64_t used = m_totalCacheUsed.value();
  const uint64_t bytes =
      getRegistryValue<unsigned long>(key, 0, 0, std::numeric_limits<unsigned long>::max());
  if (bytes != 0) return used > bytes;
  // Signed on purpose, and wrapping where the product does not fit: the multiplication is unsigned.
  const auto product = static_cast<int64_t>(static_cast<uint64_t>(int64_t{percent}) * m_totalCache.value());
  return static_cast<int64_t>(used) > product / 100;
}

bool DiskCacheSpace::isOverLowWatermark() const { return isOverWatermark(LOW_WM_KEY, m_lowWM); }
bool DiskCacheSpace::isOverHighWatermark() const { return isOverWatermark(HIGH_WM_KEY, m_highWM); }
bool DiskCacheSpace::isOverAlarmWatermark() const { return isOverWatermark(ALARM_WM_KEY, m_alarmWM); }

void DiskCacheSpace::setWatermarks(int high, int low, int alarm) {
  m_highWM = high;
  m_lowWM = low;
  m_alarmWM = alarm;
}

void DiskCacheSpace::getWatermarks(int& high, int& low, int& alarm) const {
  high = m_highWM;
  low = m_lowWM;
  alarm = m_alarmWM;
}

void DiskCacheSpace::delayWriteToSegment() {
  if (!isOverHighWatermark()) return;
  const uint64_t total = capacity();
  const uint64_t free = total - used();
  DC_LOG_AT(DC_STEP(delayWriteToSegment), LogLevel::Segment,
            "Is OverHighWaterMark, Empty space available is %lu", free);
  if (free == 0) return;  // a full cache is not slowed down: the write itself fails
  const uint64_t delay = std::min(total * 2 / free, MAX_DELAY_MS);
  DC_LOG_AT(DC_STEP(delayWriteToSegment), LogLevel::Segment, "Delaying the write to segment operation %lu",
            delay);
  std::this_thread::sleep_for(std::chrono::milliseconds(delay));
  m_stats.delayMs += static_cast<int64_t>(delay);
}

void DiskCacheSpace::wakePrunerWhenFull() {
  if (isOverHighWatermark()) wakePruner();
}

CZuError DiskCacheSpace::askForRoom(CZuError error) {
  if (m_settings.pruningMode == PruningMode::Random && RMErrorUtil::IsErrNo(error, ENOSPC)) wakePruner();
  return error;
}

int DiskCacheSpace::countRefusal(int error) {
  if (error == ENOSPC) m_stats.errOutOfSpace++;
  return error;
}

int DiskCacheSpace::writeFailureLevel(int error) {
  return countRefusal(error) == ENOSPC ? LogLevel::NoSpace : LogLevel::Error;
}

void DiskCacheSpace::getStatus(std::map<std::string, std::string>& out) const {
  // Negative watermarks show as their two's complement.
  const auto watermark = [](int percent) { return static_cast<uint64_t>(int64_t{percent}); };
  pushStat(out, "DC.PruningMode", m_settings.pruningMode == PruningMode::Random ? "random" : "lru", "");
  pushStat(out, "DC.HighWM", watermark(m_highWM), "");
  pushStat(out, "DC.LowWM", watermark(m_lowWM), "");
  pushStat(out, "DC.AlarmWM", watermark(m_alarmWM), "");
  pushStat(out, "DC.TotalCache", capacity(), "");
  pushStat(out, "DC.UsedCache", used(), "");
  pushStat(out, "DC.SegmentsInCache", segments(), "");
}

void DiskCacheSpace::getCounters(std::map<std::string, std::string>& out) const {
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
