// The background copy of a volume to a new directory by four threads, and the places of segments meanwhile.
//
// Internal. Any thread may ask for places; the engine alone calls init and terminate. The migrator itself
// never deletes or changes the source: what clients changed at the destination of a migration that fails is
// brought back, which is their work arriving late.
//
// While a volume is migrated, a name below its root that lies at the destination counts, and one at the
// source only where the destination has none. Whoever changes a segment claims it first, under the
// segment's lock, so that every name at the destination is one of: a copy of what lies at the source, a
// file that was there before, or a file that clients have changed and m_changes knows.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "diskcache/diskcacheOpen.h"
#include "diskcache/diskcacheSettings.h"
#include "diskcache/diskcacheTypes.h"
#include "diskcache/diskcacheVolume.h"
#include "diskcache/lockOrder.h"
#include "diskcache/migrationChanges.h"
#include "support/atomicCounter.h"
#include "support/error.h"
#include "support/lock.h"
#include "support/thread.h"
#include "support/threadAnnotations.h"

namespace ObjectStore {

inline constexpr const char* MIGRATE_FILE = "migrate";
inline constexpr const char* CHANGES_FILE = "migrate.changed";
inline constexpr int NUM_THREADS = 4;

class DiskCacheMigrator {
  // A running migration, published whole.
  struct Job {
    VolIndex vol;
    std::string src;
    std::string dst;
    std::string home;  // the volume's directory, where it stays when the migration fails
    dev_t device;      // of src
    ino_t inode;
    // src or dst is, or holds, the other one: no segment has two places, clients go on as without a migration.
    bool isRefused;
    // Has failed: what was changed at the destination goes home, and new files are made there.
    bool isReturning;
  };

 public:
  DiskCacheMigrator(const DiskCacheSettings& settings, DiskCacheVolumes& volumes,
                    DiskCacheOpenTable& openTable)
      : m_settings(settings), m_volumes(volumes), m_openTable(openTable) {}
  ~DiskCacheMigrator() { terminate(); }
  DiskCacheMigrator(const DiskCacheMigrator&) = delete;
  DiskCacheMigrator& operator=(const DiskCacheMigrator&) = delete;

  // Resumes the migration that the file "migrate" tells of, if there is one. 0, EINVAL for a file that makes
  // no sense, the number for one of changes that cannot be read, or the result of migrate().
  int init(MigrationCB callback);
  // See DiskCache::migrate. What refuses one is counted here.
  int migrate(VolIndex vol, const std::string& src, const std::string& dst);
  // Ends a running migration as failed (EINTR) and waits for its threads; on one of these it does nothing.
  void terminate();

  // A segment's path: while its volume is migrated, at the destination if it is there, else at the source if
  // it is there, else where new ones are made.
  std::string guidToPath(const guid_t& guid, VolIndex vol, const std::string& dir);
  // The root that this path begins with; "" for a volume that is not known. The string has room for the rest
  // of the path. While the volume is migrated, `seen` is told whether the segment is there or cannot be
  // looked at: to ask again could find nothing where the look failed, though it lies on the other side.
  std::string rootFor(const guid_t& guid, VolIndex vol, const std::string& dir,
                      std::optional<bool>* seen = nullptr);
  // The same root for an operation that will change the segment or make it, under the segment's lock. 0, or
  // the number for a segment that must be brought back from a migration that failed, and cannot be, or for
  // one that cannot be looked for.
  int claim(std::string& root, const guid_t& guid, VolIndex vol, const std::string& dir);
  // For an operation that makes the file whole, whatever lies at the source: a rename within the source could
  // slip past the worker that lists the directory.
  int claimWhole(std::string& root, const guid_t& guid, VolIndex vol, const std::string& dir);
  // For an operation that will remove or move the segment at the destination: what the copy was made from
  // goes first, so that it never comes back. 0 or a system error number.
  int dropSourceCopy(const guid_t& guid, VolIndex vol, const std::string& dir);
  // Moves a segment's file between two directories, also to the other side of a migration. 0 or a system
  // error number; ENOENT for a file that is removed meanwhile, which then is at neither place.
  int move(const std::string& source, const std::string& target);
  bool isMigrating(VolIndex vol) { return runningJob(vol) != nullptr; }
  // Changes whenever a root may: at the start and the end of a migration.
  uint32_t generation() const { return m_generation.load(std::memory_order_acquire); }

  // Where a segment lies that is about to be removed. While its volume is migrated no copy of it appears on
  // either side as long as this lives; its own lock is not needed for that, a removal may come at any time.
  class Removal {
   public:
    Removal(DiskCacheMigrator& migrator, const guid_t& guid, VolIndex vol, const std::string& dir);
    // "" on a volume that is not known.
    const std::string& path() const { return m_path; }
    // Also of what cannot be looked at.
    bool isFound() const { return m_isFound; }
    // Comes before the removal of `path`: what was changed at the destination must not show its old bytes
    // again, not even after a kill. 0 or a system error number.
    int removeOriginal() const;
    // Where it goes when it is recycled.
    std::string recycleDir(const guid_t& guid) const;

   private:
    DiskCacheMigrator& m_migrator;
    const std::shared_ptr<const Job> m_job;
    const KxCriticalSectionLock m_noneAppears;
    std::string m_root;
    std::string m_path;
    bool m_isFound;
    std::string m_original;  // at the source, of what lies at the destination
  };

  // While it lives no migration runs and none starts: one that ran has been ended as terminate() does. On a
  // thread of the migration itself, in its callback, it does nothing: all copying has ended there.
  class Pause {
   public:
    explicit Pause(DiskCacheMigrator& migrator);

   private:
    KxCriticalSectionLock m_noStart;
  };

 private:
  friend struct DiskCacheTestAccess;

  struct MigratorThreadArgs {
    DiskCacheMigrator* migrator;
    std::shared_ptr<const Job> job;
    int first;  // entries to copy, both inclusive
    int last;
  };

  // diskcacheMigrator.cpp: starting, stopping, places
  int start(VolIndex vol, const std::string& src, const std::string& dst, bool resumes,
            const RMCodeLocation& where);
  int prepare(VolIndex vol, const std::string& src, const std::string& dst, bool resumes,
              const RMCodeLocation& where) DC_REQUIRES(m_startLock);
  bool writeMigrateFile(const std::string& path, VolIndex vol, const std::string& src,
                        const std::string& dst);
  int startCopying(VolIndex vol, const std::string& src, const std::string& dst, const RMCodeLocation& where)
      DC_REQUIRES(m_startLock);
  void startWorkers(const std::shared_ptr<const Job>& job, const RMCodeLocation& where)
      DC_REQUIRES(m_startLock);
  KxCriticalSection* stopAndLock();
  void publish(std::shared_ptr<const Job> job, bool inProgress);
  std::shared_ptr<const Job> runningJob();
  std::shared_ptr<const Job> runningJob(VolIndex vol);
  int claimName(std::string& root, const Job& job, const std::string& name, bool isWhole,
                const RMCodeLocation& where);
  void note(const std::string& name, const RMCodeLocation& where);
  std::string pathInRoot(const char* file) const;

  // diskcacheMigratorCopy.cpp: the workers
  static void* threadEntry(void* args);
  void migrationThreadFn(const std::shared_ptr<const Job>& job, int first, int last);
  int copyEntries(const Job& job, int first, int last, const RMCodeLocation& where);
  CZuError getDirEntries(std::vector<std::string>& out, const std::string& dir);
  int copyDir(const std::string& src, const std::string& dst);
  using Rename = int(const std::string& source, const std::string& target);
  int copyUnlessRemoved(const std::string& source, const std::string& target, Rename& appear);
  int moveOrCopy(const std::string& source, const std::string& target, bool& isCopied);
  int copySegment(const std::string& guid, const std::string& src, const std::string& dst,
                  const RMCodeLocation& where);
  void recordError(int error);
  bool isOwnThread() const;

  // diskcacheMigratorEnd.cpp: what the last worker does
  void workerEnded(const std::shared_ptr<const Job>& job, const RMCodeLocation& where);
  int switchVolume(const Job& job, const RMCodeLocation& where);
  void callCallback(int error, const std::string& src, const std::string& dst);
  int undo(const Job& job, const RMCodeLocation& where);
  int bringBackLocked(const Job& job, const std::string& name, const RMCodeLocation& where);
  int bringBack(const Job& job, const std::string& name, const RMCodeLocation& where);

  const DiskCacheSettings& m_settings;
  DiskCacheVolumes& m_volumes;
  DiskCacheOpenTable& m_openTable;
  MigrationCB m_callback = nullptr;  // constant after init()

  // Held while a migration is being started, so that two cannot be. Before a segment's lock.
  KxCriticalSection m_startLock DC_ACQUIRED_BEFORE(lockOrder::lists);
  std::vector<KXThread> m_threads DC_GUARDED_BY(m_startLock);

  // Under m_startLock before the threads start, and read-only while they run
  std::vector<std::string> m_entries;

  // Any thread
  std::atomic<bool> m_isReady{false};  // init() was called, and left no migration that it could not resume
  std::atomic<bool> m_inProgress{false};
  std::atomic<uint32_t> m_generation{0};
  RelaxedAtomic<bool> m_stop{false};
  std::atomic<int> m_error{0};
  std::atomic<uint64_t> m_numJobs{0};  // its last decrement sees what every worker did
  MigrationChanges m_changes;

  // Held while a copy takes its place and while a removal looks at both sides. A leaf but for m_changes'
  // lock.
  KxCriticalSection m_appearLock DC_ACQUIRED_AFTER(lockOrder::volumes) DC_ACQUIRED_BEFORE(lockOrder::leaves);

  KxCriticalSection m_migrateLock DC_ACQUIRED_AFTER(lockOrder::leaves);
  bool m_callbackCalled DC_GUARDED_BY(m_migrateLock) = false;
  std::shared_ptr<const Job> m_job DC_GUARDED_BY(m_migrateLock);
};

}  // namespace ObjectStore
