// The engine's privates, for tests.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheMigrator.h"

namespace ObjectStore {

struct DiskCacheTestAccess {
  static uint64_t used(const DiskCache& cache) { return cache.m_totalCacheUsed.value(); }
  static uint64_t total(const DiskCache& cache) { return cache.m_totalCache.value(); }
  static uint64_t segments(const DiskCache& cache) { return cache.m_segmentsInCache.value(); }
  static const Stats& stats(const DiskCache& cache) { return cache.m_stats; }
  static void setSpace(DiskCache& cache, uint64_t used, uint64_t total) {
    cache.m_totalCacheUsed = KxAtomicU64_t(static_cast<int64_t>(used));
    cache.m_totalCache = KxAtomicU64_t(static_cast<int64_t>(total));
  }

  static DiskcacheLRU& lru(DiskCache& cache) { return *cache.m_lru; }
  static size_t mappedBytes(DiskcacheLRU& list) {
    const KxCriticalSectionLock lock(&list.m_lruLock);
    return list.m_table.mappedBytes();
  }
  static DiskCachePruner& pruner(DiskCache& cache) { return *cache.m_pruner; }
  static DiskCacheMigrator& migrator(DiskCache& cache) { return *cache.m_migrator; }

  static bool isStopping(DiskCache& cache) { return cache.m_migrator->m_stop; }

  static size_t openSegments(DiskCache& cache) {
    const KxCriticalSectionLock lock(&cache.m_openSegmentsLock);
    return cache.m_openSegments.size();
  }
  static size_t openHandles(DiskCache& cache) {
    const KxCriticalSectionLock lock(&cache.m_openSegmentsLock);
    return cache.m_handles.size();
  }
  static void setNextHandle(DiskCache& cache, uint32_t handle) {
    const KxCriticalSectionLock lock(&cache.m_openSegmentsLock);
    cache.m_nextHandle = handle;
  }

  static std::vector<VolIndex> rotation(DiskCache& cache) {
    const KxCriticalSectionLock lock(&cache.m_volumeLock);
    std::vector<VolIndex> indexes;
    for (const Volume* volume : cache.m_freeSpaceList) indexes.push_back(volume->index);
    return indexes;
  }
  // Calls change(Volume&) on a volume's record under the lock; false when there is no such volume.
  template <typename Change>
  static bool changeVolume(DiskCache& cache, VolIndex index, Change change) {
    const KxCriticalSectionLock lock(&cache.m_volumeLock);
    const auto found = cache.m_volumes.find(index);
    if (found == cache.m_volumes.end()) return false;
    change(found->second);
    return true;
  }

  // A private operation, under the lock its callers hold.
#define DC_PASS(operation, held)                                                               \
  template <typename Cache, typename... Args>                                                  \
  static decltype(auto) operation(Cache& cache, Args&&... args) DC_NO_THREAD_SAFETY_ANALYSIS { \
    const KxCriticalSectionLock lock(held);                                                    \
    return cache.operation(std::forward<Args>(args)...);                                       \
  }
  DC_PASS(delayWriteToSegment, nullptr)
  DC_PASS(appendSection, nullptr)
  DC_PASS(findLastSection, nullptr)
  DC_PASS(initVolumes, nullptr)
  DC_PASS(getNextVolWithSpace, nullptr)
  DC_PASS(scanSegmentsIntoLru, nullptr)
  DC_PASS(loadVolumeInfo, &cache.m_volumeLock)
  DC_PASS(saveVolumeInfo, &cache.m_volumeLock)
#undef DC_PASS
};

}  // namespace ObjectStore
