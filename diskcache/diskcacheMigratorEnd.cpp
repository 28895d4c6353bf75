// How a migration ends: the switch, or the return of what clients have changed at the destination.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcachePaths.h"
#include "support/directory.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr int UNDO_ATTEMPTS = 3;
// How often a file is put back whose directory the pruner finds empty, and removes, just before.
constexpr int RETURN_ATTEMPTS = 16;

bool isSameTime(const timespec& a, const timespec& b) {
  // Some file systems keep whole seconds.
  return a.tv_sec == b.tv_sec && (a.tv_nsec == b.tv_nsec || a.tv_nsec == 0 || b.tv_nsec == 0);
}

// Whether `copy` is what a migration made of `original`, and is not that file itself.
bool isCopyOf(const struct stat& copy, const struct stat& original) {
  const bool isSameFile = copy.st_dev == original.st_dev && copy.st_ino == original.st_ino;
  return S_ISREG(copy.st_mode) && S_ISREG(original.st_mode) && !isSameFile &&
         copy.st_size == original.st_size && isSameTime(copy.st_mtim, original.st_mtim);
}

// Removes the copies that a failed migration made below `dst`, and the directories that this empties: after a
// change at the source they would be old, and a later migration keeps what it finds. A failure leaves copies.
void removeCopies(const std::string& src, const std::string& dst) {
  {
    Directory entries(dst);
    while (entries.next()) {
      const std::string s = join(src, entries.name(), '/');
      const std::string d = join(dst, entries.name(), '/');
      struct stat copy {};
      struct stat original {};
      if (entries.status(copy) != 0) continue;
      if (S_ISDIR(copy.st_mode)) {
        removeCopies(s, d);
      } else if (lstat(s.c_str(), &original) == 0 && isCopyOf(copy, original)) {
        unlink(d.c_str());
      }
    }
  }
  rmdir(dst.c_str());
}

}  // namespace

void DiskCacheMigrator::workerEnded(const std::shared_ptr<const Job>& job, const RMCodeLocation& where) {
  if (m_numJobs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  const auto step = [&](auto&& work) {
    return guarded(where, [&] {
      work();
      return 0;
    });
  };
  step([&] { DC_LOG_AT(where, LogLevel::Info, "cache: migration finished"); });
  // A change that cannot be noted is an error too, and after the switch none that matters.
  bool isSwitched = false;
  if (m_error == 0) {
    const int rc = guarded(where, [&] { return switchVolume(*job, where); });
    isSwitched = rc == 0;
    if (!isSwitched) recordError(rc);
  }
  if (!isSwitched && !job->isRefused) {
    // Doing it again does no harm, and memory may be there by then.
    for (int attempt = 0; attempt < UNDO_ATTEMPTS; ++attempt) {
      if (guarded(where, [&] { return undo(*job, where); }) != ENOMEM) break;
    }
  }
  step([&] { callCallback(isSwitched ? 0 : m_error.load(), job->src, job->dst); });
  step([&] {
    if (unlink(pathInRoot(MIGRATE_FILE).c_str()) != 0) {
      DC_LOG_AT(where, LogLevel::Error, "Error: can't unlink migrate file");
    }
  });
  m_changes.end();
  publish(nullptr, false);
}

// 0 once the volume is at the destination; before that nothing has changed.
int DiskCacheMigrator::switchVolume(const Job& job, const RMCodeLocation& where) {
  struct stat source {};
  errno = 0;
  int rc = stat(job.src.c_str(), &source) == 0 ? 0 : errno;
  if (rc == 0 && (source.st_dev != job.device || source.st_ino != job.inode)) rc = ENOENT;
  if (rc != 0) {  // then not every segment that was not there was deleted: the disk itself is gone
    logAt(where, LogLevel::Error, "Error: can't stat [%s] (%d)", job.src.c_str(), rc);
    return rc;
  }
  createDir(join(job.dst, RECYCLE_DIR, '/'));  // every volume has one; it may be among what was left behind
  m_volumes.moveVolume(job.vol, job.dst, where);
  m_generation.fetch_add(1, std::memory_order_release);
  return 0;
}

void DiskCacheMigrator::callCallback(int error, const std::string& src, const std::string& dst) {
  if (!m_callback) return;
  {
    const KxCriticalSectionLock lock(&m_migrateLock);
    if (std::exchange(m_callbackCalled, true)) return;
  }
  DC_LOG(LogLevel::Info, "Calling user migration callback with error code %d", error);
  try {
    m_callback(error, src, dst);
  } catch (...) {
    DC_LOG(LogLevel::Error, "Error: migration callback threw");
  }
}

// Makes the volume, which stays where it was, hold what clients left of each segment. 0, or why it does not.
int DiskCacheMigrator::undo(const Job& job, const RMCodeLocation& where) {
  if (job.home == job.dst) return 0;  // a killed process had switched the volume already
  Job returning = job;
  returning.isReturning = true;
  publish(std::make_shared<const Job>(returning), true);
  m_openTable.waitForSegmentWork();  // afterwards nobody changes anything at the destination
  int result = 0;
  for (const std::string& name : m_changes.names()) {
    const int rc = guarded(where, [&] { return bringBackLocked(returning, name, where); });
    if (rc != 0 && result != ENOMEM) result = rc;
  }
  if (result != 0) return result;  // what is left at the destination may be the only copy
  for (const std::string& entry : m_entries)
    removeCopies(join(job.src, entry, '/'), join(job.dst, entry, '/'));
  return 0;
}

int DiskCacheMigrator::bringBackLocked(const Job& job, const std::string& name, const RMCodeLocation& where) {
  const QuietSegment segment(m_openTable, name.substr(name.rfind('/') + 1));
  return segment.error() != 0 ? segment.error() : bringBack(job, name, where);
}

// A segment that is not there was deleted, or is back already. One that a destination gone read-only does
// not let go is back as well, but nobody may change it before the end: until then what lies at the
// destination counts.
int DiskCacheMigrator::bringBack(const Job& job, const std::string& name, const RMCodeLocation& where) {
  const std::string from = join(job.dst, name, '/');
  const std::string to = join(job.home, name, '/');
  if (!doesFileExist(from)) return 0;
  int rc = ENOENT;
  bool isCopied = false;
  for (int attempt = 0; rc == ENOENT && attempt < RETURN_ATTEMPTS; ++attempt) {
    rc = createDir(to.substr(0, to.rfind('/')));
    if (rc == 0) rc = moveOrCopy(from, to, isCopied);
    if (rc == 0 || (rc == ENOENT && !doesFileExist(from))) return 0;
  }
  if (isCopied) {
    logAt(where, LogLevel::Error, "Error: can't unlink file [%s] (%d)", from.c_str(), rc);
  } else {
    logAt(where, LogLevel::Error, "Error: can't bring [%s] back to [%s] (%d)", from.c_str(), to.c_str(), rc);
  }
  return rc;
}

}  // namespace ObjectStore
