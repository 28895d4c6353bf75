// What an ObjectCache has done and holds, as plain figures.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace ObjectStore {

// Every counter once: its field, its name and labels as Prometheus knows them, and what it counts. Those of one
// name stand together.
#define DISKCACHE_CLIENT_COUNTERS(X)                                                                \
  X(memoryHits, "hits_total", "{from=\"memory\"}", "Blocks served from memory or disk")             \
  X(hotHits, "hits_total", "{from=\"table\"}", "Blocks served from memory or disk")                 \
  X(coldHits, "hits_total", "{from=\"disk\"}", "Blocks served from memory or disk")                 \
  X(misses, "misses_total", "", "Blocks asked of the origin")                                       \
  X(joined, "joined_total", "", "Blocks waited for that another thread was fetching")               \
  X(originRequests, "origin_requests_total", "", "Calls of origin functions")                       \
  X(originErrors, "origin_errors_total", "", "Calls of origin functions that failed")               \
  X(memoryBytes, "read_bytes_total", "{from=\"memory\"}", "Bytes read")                             \
  X(diskBytes, "read_bytes_total", "{from=\"disk\"}", "Bytes read")                                 \
  X(originBytes, "read_bytes_total", "{from=\"origin\"}", "Bytes read")                             \
  X(storedBlocks, "stored_blocks_total", "", "Blocks written")                                      \
  X(storedBytes, "stored_bytes_total", "", "Bytes of objects written")                              \
  X(prefetchedBlocks, "prefetched_blocks_total", "", "Blocks fetched before they were asked for")   \
  X(evictedBlocks, "evicted_blocks_total", "", "Blocks given up for room")                          \
  X(evictedBytes, "evicted_bytes_total", "", "Bytes on disk given up for room")                     \
  X(expiredBlocks, "expired_blocks_total", "", "Blocks dropped for their age or block size")        \
  X(damagedBlocks, "damaged_blocks_total", "", "Blocks dropped because their bytes were not right") \
  X(leftovers, "leftovers_total", "", "Unfinished files removed")                                   \
  X(diskErrors, "disk_errors_total", "", "Blocks that could not be opened or read")                 \
  X(refusedForRoom, "refused_writes_total", "{reason=\"room\"}", "Blocks not stored")               \
  X(refusedByDisk, "refused_writes_total", "{reason=\"disk\"}", "Blocks not stored")                \
  X(refusedAdmission, "refused_writes_total", "{reason=\"admission\"}", "Blocks not stored")        \
  X(stagedObjects, "staged_objects_total", "", "Objects staged")                                    \
  X(uploadedObjects, "uploaded_objects_total", "", "Staged objects uploaded")                       \
  X(failedUploads, "failed_uploads_total", "", "Uploads that failed and are tried again")

// How often a value was at most `bound(i)`, and more than the bound before.
struct Histogram {
  static constexpr size_t BUCKETS = 16;
  std::array<uint64_t, BUCKETS + 1> counts{};  // the last one: above every bound
  double sum = 0;
};

struct ObjectCacheMetrics {
#define DISKCACHE_CLIENT_FIELD(field, name, labels, help) uint64_t field = 0;
  DISKCACHE_CLIENT_COUNTERS(DISKCACHE_CLIENT_FIELD)
#undef DISKCACHE_CLIENT_FIELD

  uint64_t usedBytes = 0;  // allocated on disk by blocks, staged ones included
  uint64_t peakBytes = 0;  // the most since the start, what was being written included
  uint64_t stagedNow = 0;  // objects
  uint64_t stagedBytes = 0;
  uint64_t absentVolumes = 0;  // given, but without their marker
  uint64_t hotBlocks = 0;      // descriptors open
  uint64_t hotBytes = 0;       // of memory, for the bytes of some of them

  Histogram hitSeconds;      // bounds 1 µs · 2^i; every 16th hit of a thread is timed
  Histogram missSeconds;     // bounds 1 µs · 4^i; every read with a miss, from there on
  Histogram evictedSeconds;  // bounds 1 s · 4^i; from a block's making to its giving up

  std::map<std::string, std::string> engine;          // DiskCache::getStatus
  std::map<std::string, std::string> engineCounters;  // DiskCache::getCounters
};

}  // namespace ObjectStore
