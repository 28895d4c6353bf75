// An engine's components, and what these keep to themselves, for tests.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "diskcache/diskcache.h"

namespace ObjectStore {

class DiskCacheOpenTable;
class DiskcacheLRU;
class DiskCacheMigrator;
class DiskCachePruner;
class DiskCacheSpace;
class DiskCacheVolumes;
class SegmentRecords;

struct DiskCacheTestAccess {
  static DiskCacheSpace& space(DiskCache& cache);
  static void setSpace(DiskCache& cache, uint64_t used, uint64_t total);

  static SegmentRecords& records(DiskCache& cache);
  static DiskcacheLRU& lru(DiskCache& cache);
  static DiskCachePruner& pruner(DiskCache& cache);
  static DiskCacheMigrator& migrator(DiskCache& cache);

  static bool isStopping(DiskCache& cache);

  static DiskCacheOpenTable& openTable(DiskCache& cache);
  static size_t openSegments(DiskCache& cache);  // and the numbers that stand for them
  static void setNextHandle(DiskCache& cache, uint32_t handle);

  static DiskCacheVolumes& volumes(DiskCache& cache);
  static std::vector<VolIndex> rotation(DiskCache& cache);
  // Calls change(Volume&) on a volume's record under the lock.
  static void changeVolume(DiskCache& cache, VolIndex index, const std::function<void(Volume&)>& change);
};

}  // namespace ObjectStore
