// How much room volumes have: measuring them, choosing one for a new segment, and emptying them.
#include <cerrno>

#include "diskcache/diskcacheVolume.h"
#include "diskcache/engineSteps.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

unsigned long long llu(uint64_t value) { return value; }

// Truncates toward zero in single precision, as the reserve has always been rounded.
uint64_t reserveOf(uint64_t total) {
  const float reserve = static_cast<float>(total) * RESERVE_PERCENTAGE / 100.0F;
  return static_cast<uint64_t>(reserve);
}

}  // namespace

int getCurrVolumeSize(Volume& volume) {
  uint64_t freeBytes = 0;
  uint64_t totalBytes = 0;
  if (const int rc = getFreeBytes(&freeBytes, &totalBytes, volume.dir); rc != 0) {
    DC_LOG(LogLevel::Error, "Can't get free bytes %s (%d)", volume.dir.c_str(), rc);
    return rc;
  }
  volume.free = static_cast<int64_t>(freeBytes);
  volume.total = totalBytes;
  volume.reserved = reserveOf(totalBytes);
  return 0;
}

VolIndex DiskCacheVolumes::getNextVolWithSpace() {
  const KxCriticalSectionLock lock(&m_volumeLock);
  if (m_freeSpaceList.empty()) return 0;
  if (m_nextVolume == m_freeSpaceList.end()) m_nextVolume = m_freeSpaceList.begin();
  const auto start = m_nextVolume;
  do {
    Volume& volume = **m_nextVolume;
    uint64_t freeBytes = 0;
    if (const int rc = getFreeBytes(&freeBytes, nullptr, volume.dir); rc != 0) {
      // The cursor stays: this volume ends every search until it is disabled. This is meant.
      DC_LOG_AT(DC_STEP(getNextVolWithSpace), LogLevel::NoSpace, "Can't get free space for %s (%d)",
                volume.dir.c_str(), rc);
      return 0;
    }
    volume.free = static_cast<int64_t>(freeBytes);
    if (++m_nextVolume == m_freeSpaceList.end()) m_nextVolume = m_freeSpaceList.begin();
    if (volume.reserved <= freeBytes) return volume.index;
  } while (m_nextVolume != start);
  return 0;
}

uint64_t DiskCacheVolumes::freeBytesOf(VolIndex volume) {
  const KxCriticalSectionLock lock(&m_volumeLock);
  const auto found = m_volumes.find(volume);
  return found == m_volumes.end() ? 0 : found->second.free.value();
}

int DiskCacheVolumes::refreshCacheUtilizationData() {
  const KxCriticalSectionLock lock(&m_volumeLock);
  uint64_t used = 0;
  uint64_t capacity = 0;
  for (auto& [index, volume] : m_volumes) {
    if (!volume.allow) {
      DC_LOG_AT(DC_STEP(refreshCacheUtilizationData), LogLevel::Setup, "Skipped volume [%s] allow=%d",
                volume.dir.c_str(), 0);
      continue;
    }
    if (const int rc = getCurrVolumeSize(volume); rc != 0) {
      DC_LOG_AT(DC_STEP(refreshCacheUtilizationData), LogLevel::Error,
                "Error %d getting updated volume size for %s, skipped", rc, volume.dir.c_str());
      continue;
    }
    DC_LOG_AT(DC_STEP(refreshCacheUtilizationData), LogLevel::Info,
              "volume %s index=%d allow=%d free=%llu total=%lu res=%lu", volume.dir.c_str(), volume.index, 1,
              llu(volume.free.value()), volume.total, volume.reserved);
    used += volume.total - volume.free.value();
    capacity += volume.total;
  }
  DC_LOG_AT(DC_STEP(refreshCacheUtilizationData), LogLevel::Info,
            "Old m_totalCacheUsed %llu m_totalCache %llu", llu(m_space.used()), llu(m_space.capacity()));
  DC_LOG_AT(DC_STEP(refreshCacheUtilizationData), LogLevel::Info,
            "New m_totalCacheUsed %llu m_totalCache %llu", llu(used), llu(capacity));
  m_space.setUsed(used);
  m_space.setCapacity(capacity);
  return 0;
}

CZuError DiskCacheVolumes::clearCache() {
  const RMCodeLocation where = DC_STEP(clearCache);
  const KxCriticalSectionLock lock(&m_volumeLock);
  m_space.setUsed(0);
  for (auto& [index, volume] : m_volumes) {
    if (volume.dir.empty()) continue;
    // A directory that is missing holds nothing. It is made again below, as one that lost its content is not.
    if (const int rc = emptyTree(volume.dir); rc != 0 && rc != ENOENT) {
      return failAt(where, LogLevel::Error, rc, "Error: can't remove tree [%s] (%d)", volume.dir.c_str(), rc);
    }
    const std::string recycleDir = join(volume.dir, RECYCLE_DIR, '/');
    if (const int rc = createDir(recycleDir); rc != 0) {
      return failAt(where, LogLevel::Error, rc, "Error: Can't create [%s] (%d)", recycleDir.c_str(), rc);
    }
    uint64_t freeBytes = 0;
    if (getFreeBytes(&freeBytes, nullptr, volume.dir) == 0) volume.free = static_cast<int64_t>(freeBytes);
    refreshCacheUtilizationData();
    DC_LOG_AT(where, LogLevel::Accounting, "Trace: m_totalCacheUsed (%llu) ClearCache", llu(m_space.used()));
    if (!volume.listPos && volume.free.value() >= volume.reserved) appendToRotation(volume);
  }
  m_space.filesCleared();
  return {};
}

}  // namespace ObjectStore
