// The background copy of a volume to a new directory by four threads, and the paths of segments meanwhile.
//
// Internal. Any thread may call guidToPath and its kin; the engine alone calls init and terminate. The
// source is never deleted or changed by the migrator.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "diskcache/diskcacheTypes.h"
#include "support/atomicCounter.h"
#include "support/error.h"
#include "support/lock.h"
#include "support/thread.h"

namespace ObjectStore {

class DiskCache;

inline constexpr const char* MIGRATE_FILE = "migrate";
inline constexpr int NUM_THREADS = 4;

class DiskCacheMigrator {
 public:
  explicit DiskCacheMigrator(DiskCache& cache) : m_diskCache(cache) {}
  ~DiskCacheMigrator() { terminate(); }
  DiskCacheMigrator(const DiskCacheMigrator&) = delete;
  DiskCacheMigrator& operator=(const DiskCacheMigrator&) = delete;

  // Resumes the migration that the file "migrate" tells of, if there is one. 0, EINVAL for a file that makes
  // no sense, or the result of migrate().
  int init(MigrationCB callback);
  // See DiskCache::migrate.
  int migrate(VolIndex vol, const std::string& src, const std::string& dst);
  // Ends a running migration as failed (EINTR) and waits for its threads.
  void terminate();

  // A segment's path: while its volume is migrated, at the destination if it is there, else at the source if
  // it is there, else at the destination.
  std::string guidToPath(const guid_t& guid, VolIndex vol, const std::string& dir);
  // The root that this path begins with; "" for a volume that is not known. The string has room for the rest
  // of the path.
  std::string rootFor(const guid_t& guid, VolIndex vol, const std::string& dir);
  // The root for a file that must still be there after the switch: the destination of a running migration.
  std::string rootForNew(const guid_t& guid, VolIndex vol, const std::string& dir);
  // Removes a copy that a running migration has left at the source, for a segment that was deleted or moved
  // at the destination: it must not come back.
  void removeSourceCopy(const guid_t& guid, VolIndex vol, const std::string& dir);
  bool isMigrating(VolIndex vol);
  // Changes whenever a root may: at the start and the end of a migration.
  uint32_t generation() const { return m_generation.load(std::memory_order_acquire); }

 private:
  friend struct DiskCacheTestAccess;

  // A running migration, published whole.
  struct Job {
    VolIndex vol;
    std::string src;
    std::string dst;
  };
  struct MigratorThreadArgs {
    DiskCacheMigrator* migrator;
    std::shared_ptr<const Job> job;
    int first;  // entries to copy, both inclusive
    int last;
  };

  std::shared_ptr<const Job> runningJob();
  void publish(std::shared_ptr<const Job> job);
  bool writeMigrateFile(const Job& job);
  CZuError getDirEntries(std::vector<std::string>& out, const std::string& dir);
  void startWorkers(const std::shared_ptr<const Job>& job) DC_REQUIRES(m_startLock);
  static void* threadEntry(void* args);
  void migrationThreadFn(const Job& job, int first, int last);
  void recordError(int error);
  void workerEnded(const Job& job);
  void switchVolume(const Job& job);
  void callCallback(int error, const std::string& src, const std::string& dst);
  int copyDir(const std::string& src, const std::string& dst);
  int copySegment(const std::string& guid, const std::string& src, const std::string& dst);
  std::string migrateFilePath() const;

  DiskCache& m_diskCache;
  MigrationCB m_callback = nullptr;  // constant after init()

  // Held while a migration is being started, so that two cannot be. Before a segment's lock.
  KxCriticalSection m_startLock;
  std::vector<KXThread> m_threads DC_GUARDED_BY(m_startLock);

  // Written before the threads start and read-only while they run
  std::vector<std::string> m_entries;

  // Any thread
  std::atomic<bool> m_inProgress{false};
  std::atomic<uint32_t> m_generation{0};
  RelaxedAtomic<bool> m_stop{false};
  std::atomic<int> m_error{0};
  std::atomic<uint64_t> m_numJobs{0};  // its last decrement sees what every worker did

  KxCriticalSection m_migrateLock;
  bool m_callbackCalled DC_GUARDED_BY(m_migrateLock) = false;
  std::shared_ptr<const Job> m_job DC_GUARDED_BY(m_migrateLock);
};

}  // namespace ObjectStore
