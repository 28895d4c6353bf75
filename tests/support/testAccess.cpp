#include "tests/support/testAccess.h"

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcachePruner.h"
#include "diskcache/diskcacheScan.h"
#include "diskcache/diskcacheState.h"

namespace ObjectStore {

using Access = DiskCacheTestAccess;

uint64_t Access::used(const DiskCache& cache) { return cache.m_state->space.used(); }
uint64_t Access::total(const DiskCache& cache) { return cache.m_state->space.capacity(); }
uint64_t Access::segments(const DiskCache& cache) { return cache.m_state->space.segments(); }
const Stats& Access::stats(const DiskCache& cache) { return cache.m_state->space.stats(); }
void Access::setSpace(DiskCache& cache, uint64_t used, uint64_t total) {
  cache.m_state->space.setUsed(used);
  cache.m_state->space.setCapacity(total);
}

DiskcacheLRU& Access::lru(DiskCache& cache) { return cache.m_state->lru; }
DiskCachePruner& Access::pruner(DiskCache& cache) { return cache.m_state->pruner; }
DiskCacheMigrator& Access::migrator(DiskCache& cache) { return cache.m_state->migrator; }

bool Access::isStopping(DiskCache& cache) { return cache.m_state->migrator.m_stop; }

DiskCacheOpenTable& Access::openTable(DiskCache& cache) { return cache.m_state->openTable; }
size_t Access::openSegments(DiskCache& cache) {
  DiskCacheOpenTable& table = openTable(cache);
  const KxCriticalSectionLock lock(&table.m_openSegmentsLock);
  return table.m_openSegments.size();
}
size_t Access::openHandles(DiskCache& cache) {
  DiskCacheOpenTable& table = openTable(cache);
  const KxCriticalSectionLock lock(&table.m_openSegmentsLock);
  return table.m_handles.size();
}
void Access::setNextHandle(DiskCache& cache, uint32_t handle) {
  DiskCacheOpenTable& table = openTable(cache);
  const KxCriticalSectionLock lock(&table.m_openSegmentsLock);
  table.m_nextHandle = handle;
}

DiskCacheVolumes& Access::volumes(DiskCache& cache) { return cache.m_state->volumes; }
std::vector<VolIndex> Access::rotation(DiskCache& cache) {
  DiskCacheVolumes& set = volumes(cache);
  const KxCriticalSectionLock lock(&set.m_volumeLock);
  std::vector<VolIndex> indexes;
  for (const Volume* volume : set.m_freeSpaceList) indexes.push_back(volume->index);
  return indexes;
}
bool Access::changeVolume(DiskCache& cache, VolIndex index, const std::function<void(Volume&)>& change) {
  DiskCacheVolumes& set = volumes(cache);
  const KxCriticalSectionLock lock(&set.m_volumeLock);
  const auto found = set.m_volumes.find(index);
  if (found == set.m_volumes.end()) return false;
  change(found->second);
  return true;
}

void Access::delayWriteToSegment(DiskCache& cache) { cache.m_state->space.delayWriteToSegment(); }
CZuError Access::appendSection(DiskCache& cache, int fd, VolIndex volume, const Section& section) {
  return cache.m_state->records.appendSection(fd, volume, section);
}
CZuError Access::findLastSection(DiskCache& /*cache*/, int* type, uint64_t* offset,
                                 const SegmentHeader& header) {
  return ObjectStore::findLastSection(type, offset, header);
}
int Access::initVolumes(DiskCache& cache, const std::vector<std::string>& dirs) {
  return volumes(cache).initVolumes(dirs);
}
VolIndex Access::getNextVolWithSpace(DiskCache& cache) { return volumes(cache).getNextVolWithSpace(); }
CZuError Access::scanSegmentsIntoLru(DiskCache& cache) {
  return ObjectStore::scanSegmentsIntoLru(cache.m_state->lru, cache.m_state->volumes);
}
int Access::loadVolumeInfo(DiskCache& cache) DC_NO_THREAD_SAFETY_ANALYSIS {
  const KxCriticalSectionLock lock(&volumes(cache).m_volumeLock);
  return volumes(cache).loadVolumeInfo();
}
int Access::saveVolumeInfo(DiskCache& cache) DC_NO_THREAD_SAFETY_ANALYSIS {
  const KxCriticalSectionLock lock(&volumes(cache).m_volumeLock);
  return volumes(cache).saveVolumeInfo();
}

}  // namespace ObjectStore
