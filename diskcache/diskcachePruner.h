// The thread that frees space in the pruning mode Random.
//
// Internal. It sleeps until a writer wakes it or a time runs out; when the cache is over its high watermark
// it walks the volumes and registered directories in random order and hands segments to their clients'
// callbacks until the cache is no longer over its low watermark. It removes empty directories, never a
// segment, and leaves the contexts' non-prunable directories alone. While it walks or calls out it holds no
// lock of the engine.
#pragma once

#include <cstdint>
#include <ctime>
#include <list>
#include <string>
#include <vector>

#include "diskcache/diskcacheContexts.h"
#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheOpen.h"
#include "diskcache/diskcacheSpace.h"
#include "diskcache/diskcacheTypes.h"
#include "diskcache/diskcacheVolume.h"
#include "support/atomicCounter.h"
#include "support/error.h"
#include "support/thread.h"

namespace ObjectStore {

class Directory;

// What a step of the walk found.
enum class PrunerError : int32_t {
  Done = 0,          // no longer over the low watermark, or told to stop: ends the walk
  BranchFailed = 1,  // this branch could not be walked; the next one can
  GoOn = 2,          // nothing decisive
  Exhausted = 3,     // everything was walked: ends the walk
};

class DiskCachePruner {
 public:
  DiskCachePruner(DiskCacheSpace& space, DiskCacheContexts& contexts, DiskCacheOpenTable& openTable,
                  DiskCacheVolumes& volumes, DiskcacheLRU& lru)
      : m_space(space), m_contexts(contexts), m_openTable(openTable), m_volumes(volumes), m_lru(lru) {}
  ~DiskCachePruner() { shutdown(); }
  DiskCachePruner(const DiskCachePruner&) = delete;
  DiskCachePruner& operator=(const DiskCachePruner&) = delete;

  // Starts the thread; 0, or EINVAL when there is none to be had.
  int init();
  // Stops the thread and waits for its end, which a running callback may put off.
  void shutdown();
  // Any thread.
  void wakeupPrunerThread() { m_space.wakePruner(); }

  // One walk, on the calling thread.
  PrunerError deletePrunableSegments();
  PrunerError deletePrunableSegsInVol(VolIndex volume);
  PrunerError deletePrunableSegsInDir(const std::string& path, const std::string& dir,
                                      const PrunerCallback& callback);
  PrunerError pruneSegment(const std::string& path, const std::string& guid, const std::string& dir,
                           const PrunerCallback& callback);

  // Does nothing and returns 0: the alarm watermark is reported, not acted on.
  int sendStorageAlarm() { return 0; }

 private:
  struct Walk;
  PrunerError pruneEntries(Directory& entries, const std::string& path, const std::string& inVolume,
                           const Walk& walk);
  bool isInUse(const guid_t& name, const RMCodeLocation& where);
  static void* threadEntry(void* pruner);
  void run(const RMCodeLocation& where);
  int makeRoom(const RMCodeLocation& where);

  DiskCacheSpace& m_space;
  DiskCacheContexts& m_contexts;
  DiskCacheOpenTable& m_openTable;
  DiskCacheVolumes& m_volumes;
  DiskcacheLRU& m_lru;
  std::time_t m_startTime = 0;  // kept, not read
  KXThread m_thread;
  RelaxedAtomic<bool> m_stop{false};
};

// Appends the names of a directory's subdirectories but "noprune"; 0 or a system error number, which is
// logged.
int getDirList(std::vector<std::string>& out, const std::string& dir);

// Writes each string on a line of its own to standard output.
void dumpList(const std::list<std::string>& list);

}  // namespace ObjectStore
