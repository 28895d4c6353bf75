// The engine's privates, for tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "diskcache/diskcache.h"

namespace ObjectStore {

class DiskCacheOpenTable;
class DiskcacheLRU;
class DiskCacheVolumes;
class DiskCacheMigrator;
class DiskCachePruner;

struct DiskCacheTestAccess {
  static uint64_t used(const DiskCache& cache);
  static uint64_t total(const DiskCache& cache);
  static uint64_t segments(const DiskCache& cache);
  static const Stats& stats(const DiskCache& cache);
  static void setSpace(DiskCache& cache, uint64_t used, uint64_t total);

  static DiskcacheLRU& lru(DiskCache& cache);
  static DiskCachePruner& pruner(DiskCache& cache);
  static DiskCacheMigrator& migrator(DiskCache& cache);

  static bool isStopping(DiskCache& cache);

  static DiskCacheOpenTable& openTable(DiskCache& cache);
  static size_t openSegments(DiskCache& cache);
  static size_t openHandles(DiskCache& cache);
  static void setNextHandle(DiskCache& cache, uint32_t handle);

  static DiskCacheVolumes& volumes(DiskCache& cache);
  static std::vector<VolIndex> rotation(DiskCache& cache);
  // Calls change(Volume&) on a volume's record under the lock; false when there is no such volume.
  static bool changeVolume(DiskCache& cache, VolIndex index, const std::function<void(Volume&)>& change);

  // Private operations, under the locks that their callers hold.
  static void delayWriteToSegment(DiskCache& cache);
  static CZuError appendSection(DiskCache& cache, int fd, VolIndex volume, const Section& section);
  static CZuError findLastSection(DiskCache& cache, int* type, uint64_t* offset, const SegmentHeader& header);
  static int initVolumes(DiskCache& cache, const std::vector<std::string>& dirs);
  static VolIndex getNextVolWithSpace(DiskCache& cache);
  static CZuError scanSegmentsIntoLru(DiskCache& cache);
  static int loadVolumeInfo(DiskCache& cache);
  static int saveVolumeInfo(DiskCache& cache);
};

}  // namespace ObjectStore
