#include "tests/support/testAccess.h"

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcachePruner.h"
#include "diskcache/diskcacheState.h"

namespace ObjectStore {

using Access = DiskCacheTestAccess;

DiskCacheSpace& Access::space(DiskCache& cache) { return cache.m_state->space; }
void Access::setSpace(DiskCache& cache, uint64_t used, uint64_t total) {
  cache.m_state->space.setUsed(used);
  cache.m_state->space.setCapacity(total);
}

SegmentRecords& Access::records(DiskCache& cache) { return cache.m_state->records; }
DiskcacheLRU& Access::lru(DiskCache& cache) { return cache.m_state->lru; }
DiskCachePruner& Access::pruner(DiskCache& cache) { return cache.m_state->pruner; }
DiskCacheMigrator& Access::migrator(DiskCache& cache) { return cache.m_state->migrator; }

bool Access::isStopping(DiskCache& cache) { return cache.m_state->migrator.m_stop; }

DiskCacheOpenTable& Access::openTable(DiskCache& cache) { return cache.m_state->openTable; }
size_t Access::openSegments(DiskCache& cache) {
  DiskCacheOpenTable& table = openTable(cache);
  const KxCriticalSectionLock lock(&table.m_openSegmentsLock);
  return table.m_openSegments.size() + table.m_handles.size();
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
void Access::changeVolume(DiskCache& cache, VolIndex index, const std::function<void(Volume&)>& change) {
  DiskCacheVolumes& set = volumes(cache);
  const KxCriticalSectionLock lock(&set.m_volumeLock);
  change(set.m_volumes.at(index));
}

}  // namespace ObjectStore
