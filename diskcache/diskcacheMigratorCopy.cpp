// What the four threads of a migration do: walk their directories of the source and copy what they find.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string_view>

#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcachePaths.h"
#include "support/directory.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// The migrator whose thread this is.
thread_local const DiskCacheMigrator* t_migrator = nullptr;

// Success, or why a directory ended early: what was not listed would be missing after the switch.
CZuError listed(const Directory& entries, const std::string& dir, const RMCodeLocation& where) {
  if (entries.error() == 0) return {};
  return failAt(where, LogLevel::Error, entries.error(), "Error: can't read directory [%s] (%d)", dir.c_str(),
                entries.error());
}

int makeDirectory(const std::string& dir, const RMCodeLocation& where) {
  const int rc = createDir(dir);
  if (rc != 0) logAt(where, LogLevel::Error, "Error: can't mkdir [%s] (%d)", dir.c_str(), rc);
  return rc;
}

}  // namespace

bool DiskCacheMigrator::isOwnThread() const { return t_migrator == this; }

void* DiskCacheMigrator::threadEntry(void* args) {
  const std::unique_ptr<MigratorThreadArgs> owned(static_cast<MigratorThreadArgs*>(args));
  t_migrator = owned->migrator;
  owned->migrator->migrationThreadFn(owned->job, owned->first, owned->last);
  return nullptr;
}

// Nothing that is thrown here, by a log writer or for want of memory, may end the process or keep the last
// worker from ending the migration.
void DiskCacheMigrator::migrationThreadFn(const std::shared_ptr<const Job>& job, int first, int last) {
  const RMCodeLocation where = RM_CODE_LOCATION;
  guarded(where, [&] {
    DC_LOG_AT(where, LogLevel::Info, "cache: entering migration thread [%s] [%s] %d %d", job->src.c_str(),
              job->dst.c_str(), first, last);
    return 0;
  });
  if (const int rc = guarded(where, [&] { return copyEntries(*job, first, last, where); }); rc != 0) {
    recordError(rc);
    guarded(where, [&] {
      DC_LOG_AT(where, LogLevel::Error, "Error: Migration error detected (%d), migration aborted",
                m_error.load());
      return 0;
    });
  }
  workerEnded(job, where);
  guarded(where, [&] {
    DC_LOG_AT(where, LogLevel::Info, "cache: exiting migration thread numJobs=%llu",
              static_cast<unsigned long long>(m_numJobs.load()));
    return 0;
  });
}

int DiskCacheMigrator::copyEntries(const Job& job, int first, int last, const RMCodeLocation& where) {
  for (int i = first; i <= last; ++i) {
    if (m_stop) return EINTR;
    const std::string& entry = m_entries[static_cast<size_t>(i)];
    const std::string target = join(job.dst, entry, '/');
    if (const int rc = makeDirectory(target, where); rc != 0) return rc;  // also of an empty one
    if (const int rc = copyDir(join(job.src, entry, '/'), target); rc != 0) return rc;
  }
  return 0;
}

// The first error is the migration's; it stops every worker at its next directory entry.
void DiskCacheMigrator::recordError(int error) {
  int none = 0;
  m_error.compare_exchange_strong(none, error);
  m_stop = true;
}

CZuError DiskCacheMigrator::getDirEntries(std::vector<std::string>& out, const std::string& dir) {
  Directory entries(dir);
  if (entries.error() != 0) {
    return DC_FAIL(LogLevel::Error, entries.error(), "Error: can't open directory [%s] (%d)", dir.c_str(),
                   entries.error());
  }
  while (entries.next()) {
    struct stat status {};
    const int error = entries.status(status);
    if (error == ENOENT) continue;  // the pruner removes directories that it finds empty
    if (error != 0) {
      return DC_FAIL(LogLevel::Error, error, "Error: can't stat [%s] (%d)",
                     join(dir, entries.name(), '/').c_str(), error);
    }
    if (S_ISDIR(status.st_mode)) out.emplace_back(entries.name());
  }
  return listed(entries, dir, RM_CODE_LOCATION);
}

// What clients delete, move or prune between the listing and the copy is not there any more: that is no
// failure.
int DiskCacheMigrator::copyDir(const std::string& src, const std::string& dst) {
  DC_LOG(LogLevel::Copy, "copying directory [%s] [%s]", src.c_str(), dst.c_str());
  Directory entries(src);
  const auto stopped = [&] {
    const bool stop = m_stop;
    if (stop) entries.leaveOpen();  // meant
    return stop;
  };
  if (stopped()) return EINTR;  // also of an empty directory
  if (entries.error() == ENOENT) return 0;
  if (entries.error() != 0) {
    DC_LOG(LogLevel::Error, "Error: can't open directory [%s] (%d)", src.c_str(), entries.error());
    return entries.error();
  }
  while (entries.next()) {
    if (stopped()) return EINTR;
    const std::string s = join(src, entries.name(), '/');
    struct stat status {};
    const int error = entries.status(status);
    if (error == ENOENT) continue;
    if (error != 0) {
      DC_LOG(LogLevel::Error, "Error: can't stat [%s] (%d)", s.c_str(), error);
      return error;
    }
    const std::string d = join(dst, entries.name(), '/');
    int rc = 0;
    if (S_ISDIR(status.st_mode)) {
      rc = makeDirectory(d, RM_CODE_LOCATION);
      if (rc == 0) rc = copyDir(s, d);
    } else {
      rc = copySegment(entries.name(), s, d, RM_CODE_LOCATION);
    }
    if (rc != 0) return rc;
  }
  return RMErrorUtil::GetErrNo(listed(entries, src, RM_CODE_LOCATION));
}

// ENOENT for a file that is removed meanwhile: removals take no segment's lock, and what they remove must
// not come back.
int DiskCacheMigrator::copyUnlessRemoved(const std::string& source, const std::string& target,
                                         Rename& appear) {
  return copyFile(source, target, [&](const std::string& temporary) {
    const KxCriticalSectionLock lock(&m_appearLock);
    return doesFileExist(source) ? appear(temporary, target) : ENOENT;
  });
}

int DiskCacheMigrator::move(const std::string& source, const std::string& target) {
  bool isCopied = false;
  const int rc = moveOrCopy(source, target, isCopied);
  if (isCopied) unlink(target.c_str());
  return rc;
}

// `isCopied`: the bytes are at the target, but the source cannot be removed; its number is the result.
int DiskCacheMigrator::moveOrCopy(const std::string& source, const std::string& target, bool& isCopied) {
  {
    const KxCriticalSectionLock lock(m_inProgress ? &m_appearLock : nullptr);
    const int rc = renameFile(source, target);
    if (rc != EXDEV) return rc;
  }
  if (const int rc = copyUnlessRemoved(source, target, renameFile); rc != 0) return rc;
  errno = 0;
  if (unlink(source.c_str()) == 0 || errno == ENOENT) return 0;
  isCopied = true;
  return errno;
}

// Under the segment's lock from the existence test to the end of the copy: whoever changes the segment
// meanwhile waits, and then finds it at the destination.
int DiskCacheMigrator::copySegment(const std::string& guid, const std::string& src, const std::string& dst,
                                   const RMCodeLocation& where) {
  if (isUnfinishedCopy(guid)) return 0;  // what a crash left of a copy
  const QuietSegment segment(m_openTable, guid);
  // What a failed replacement left is written over by the next one, under the lock of the segment that it
  // replaces, or that of this name where the segment's is too long to be part of it.
  std::optional<QuietSegment> replaced;
  if (guid.ends_with(REPLACEMENT_SUFFIX))
    replaced.emplace(m_openTable, guid.substr(0, guid.size() - REPLACEMENT_SUFFIX.size()));
  if (const int rc = replaced && replaced->error() != 0 ? replaced->error() : segment.error(); rc != 0) {
    DC_LOG_AT(where, LogLevel::Error, "Error: Can't open segment [%s] (%d)", guid.c_str(), 0);
    return rc;
  }
  if (const int rc = findFile(dst); rc != ENOENT) {  // what is not known to be there would be missing later
    if (rc != 0) DC_LOG_AT(where, LogLevel::Error, "Error: can't look at [%s] (%d)", dst.c_str(), rc);
    return rc;
  }
  DC_LOG_AT(where, LogLevel::Copy, "copying [%s] [%s]", src.c_str(), dst.c_str());
  int rc = copyUnlessRemoved(src, dst, renameToNew);  // not over what is recycled there meanwhile
  if (rc == ENOENT && doesFileExist(src)) {
    // It is the directory that is missing: somebody found it empty, and removed it.
    if (rc = makeDirectory(dst.substr(0, dst.rfind('/')), where); rc != 0) return rc;
    rc = copyUnlessRemoved(src, dst, renameToNew);
  }
  if (rc == EEXIST) rc = findFile(dst);
  if (rc == 0 || (rc == ENOENT && !doesFileExist(src))) return 0;
  DC_LOG_AT(where, LogLevel::Error, "Error: Can't copy [%s] to [%s] (%d)", src.c_str(), dst.c_str(), rc);
  return rc;
}

}  // namespace ObjectStore
