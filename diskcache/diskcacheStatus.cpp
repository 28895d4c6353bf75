// Watching and steering an engine: watermarks, the out-of-space switch, status and counters.
#include "diskcache/diskcache.h"
#include "diskcache/diskcacheState.h"
#include "support/log.h"

namespace ObjectStore {

bool DiskCache::isOverLowWatermark() { return m_state->space.isOverLowWatermark(); }
bool DiskCache::isOverHighWatermark() { return m_state->space.isOverHighWatermark(); }
bool DiskCache::isOverAlarmWatermark() { return m_state->space.isOverAlarmWatermark(); }

CZuError DiskCache::updateWatermarks(int high, int low, int alarm) {
  DC_LOG(LogLevel::Setup, "New watermarks=[%d/%d/%d]", high, low, alarm);
  m_state->space.setWatermarks(high, low, alarm);
  return {};
}

CZuError DiskCache::getCurrentWatermarks(int& high, int& low, int& alarm) {
  m_state->space.getWatermarks(high, low, alarm);
  DC_LOG(LogLevel::Setup, "Current watermarks=[%d/%d/%d]", high, low, alarm);
  return {};
}

void DiskCache::setOutOfSpace(bool flag) {
  DC_LOG(LogLevel::Setup, "Setting out of space mode = %d", flag ? 1 : 0);
  m_state->space.setOutOfSpace(flag);
}

void DiskCache::getStatus(std::map<std::string, std::string>& out) {
  m_state->space.getStatus(out);
  m_state->lru.getStatus(out);
}

void DiskCache::getCounters(std::map<std::string, std::string>& out) { m_state->space.getCounters(out); }

}  // namespace ObjectStore
