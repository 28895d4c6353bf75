#include "diskcache/diskcacheMigrator.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <tuple>
#include <utility>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheOpen.h"
#include "diskcache/diskcachePaths.h"
#include "diskcache/diskcacheVolume.h"
#include "support/directory.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// Files of a copy that was cut short by a crash; never segments.
bool isLeftoverCopy(std::string_view name) { return name.ends_with(RMFile::COPY_SUFFIX); }

// Whether copying `source` into `destination` would copy the copy.
bool isSameOrBelow(const std::string& destination, const std::string& source) {
  std::error_code error;
  const auto inner = std::filesystem::weakly_canonical(destination + "/.", error).lexically_normal();
  if (error) return false;  // the copy itself will tell
  const auto outer = std::filesystem::weakly_canonical(source + "/.", error).lexically_normal();
  if (error) return false;
  const std::string innerText = join(inner.string(), "", '/');
  return innerText.starts_with(join(outer.string(), "", '/'));
}

// Worker `t` of four takes the entries first to last. Starts are rounded down from n * t / 4 and lengths from
// n / 4, so that some entries fall between two workers and are not copied when n is no multiple of 4: clients
// count on this division (docs/operations.md tells operators what it leaves behind).
std::pair<int, int> chunkOf(size_t n, size_t t) {
  const auto first = static_cast<int>(n * t / NUM_THREADS);
  const auto length = static_cast<int>(n / NUM_THREADS);
  return {first, t == NUM_THREADS - 1 ? static_cast<int>(n) - 1 : first + length - 1};
}

// Success, or why a directory ended early: what was not listed would be missing after the switch.
CZuError listed(const Directory& entries, const std::string& dir, const RMCodeLocation& where) {
  if (entries.error() == 0) return {};
  return failAt(where, LogLevel::Error, entries.error(), "Error: can't read directory [%s] (%d)", dir.c_str(),
                entries.error());
}

}  // namespace

std::string DiskCacheMigrator::migrateFilePath() const {
  return join(m_diskCache.m_rootDir, MIGRATE_FILE, '/');
}

int DiskCacheMigrator::init(MigrationCB callback) {
  m_callback = callback;
  std::string content;
  const int rc = readWholeFile(migrateFilePath(), content);
  // None there; but something that is no file, or far too large for one, makes no sense either.
  if (rc != 0 && rc != EINVAL && rc != EFBIG) return 0;
  std::string_view rest = content;
  const std::string index(takeLine(rest));
  const std::string source(takeLine(rest));
  const std::string destination(takeLine(rest));
  const auto vol = static_cast<VolIndex>(std::strtol(index.c_str(), nullptr, 10));
  if (vol == 0 || source.empty() || destination.empty()) {
    DC_LOG(LogLevel::Error, "migrate file has incorrect parameters");
    return EINVAL;
  }
  return migrate(vol, source, destination);
}

int DiskCacheMigrator::migrate(VolIndex vol, const std::string& src, const std::string& dst) try {
  DC_LOG(LogLevel::Setup, "migrating vol=%d src=[%s] dst=[%s]", vol, src.c_str(), dst.c_str());
  const auto refuse = [this] {
    const auto running = runningJob();
    DC_LOG(LogLevel::Error, "Migration already in progress (from [%s] to [%s])",
           running ? running->src.c_str() : "", running ? running->dst.c_str() : "");
    return EEXIST;
  };
  // Asked before the lock as well: the callback of a migration that is being ended may come here.
  if (m_inProgress) return refuse();
  const KxCriticalSectionLock starting(&m_startLock);
  if (m_inProgress) return refuse();

  const bool persistent = m_diskCache.m_persistentVolumes == PersistentVolumes::Yes;
  if (vol == 0 || src.empty() || dst.empty() || !isStorableLine(src) || !isStorableLine(dst) ||
      (persistent && !isStorableVolume(dst))) {
    DC_LOG(LogLevel::Error, "Error: can't migrate volume %d from [%s] to [%s]", vol, src.c_str(),
           dst.c_str());
    return EINVAL;
  }
  for (KXThread& thread : m_threads) thread.joinThread(KXThread::WAIT_FOREVER, nullptr);
  m_threads.clear();
  m_entries.clear();
  m_error = 0;
  m_stop = false;
  {
    const KxCriticalSectionLock lock(&m_migrateLock);
    m_callbackCalled = false;
  }
  const auto job = std::make_shared<const Job>(Job{vol, src, dst});
  if (!writeMigrateFile(*job)) {
    DC_LOG(LogLevel::Error, "Error: Can't open migrate file");
    return EINVAL;
  }
  if (const CZuError error = getDirEntries(m_entries, src); error.IsError()) {
    DC_LOG(LogLevel::Error, "Error: Can't get entries of [%s]", src.c_str());
    return RMErrorUtil::GetErrNo(error);
  }
  if (isSameOrBelow(dst, src)) {
    DC_LOG(LogLevel::Error, "Error: destination [%s] is the source [%s] or lies below it", dst.c_str(),
           src.c_str());
    recordError(EINVAL);
  }
  startWorkers(job);
  return 0;
} catch (...) {
  return RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION));
}

// In one step, so that a process killed in between leaves the old file or the new, never half a line.
bool DiskCacheMigrator::writeMigrateFile(const Job& job) {
  const std::string path = migrateFilePath();
  const std::string fresh = path + ".new";
  const std::string text = std::to_string(job.vol) + '\n' + job.src + '\n' + job.dst + '\n';
  const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  if (written && rename(fresh.c_str(), path.c_str()) == 0) return true;
  unlink(fresh.c_str());
  return false;
}

void DiskCacheMigrator::startWorkers(const std::shared_ptr<const Job>& job) {
  m_numJobs = NUM_THREADS;
  DC_LOG(LogLevel::Segment, "m_numJobs = %llu", static_cast<unsigned long long>(m_numJobs.load()));
  m_threads.resize(NUM_THREADS);
  std::array<std::unique_ptr<MigratorThreadArgs>, NUM_THREADS> workers;
  for (auto& worker : workers)
    worker = std::make_unique<MigratorThreadArgs>(MigratorThreadArgs{this, job, 0, -1});
  publish(job);
  try {
    // Work that began under the old paths ends before the first file is copied, and what it has made is
    // listed, so that none of it is missed.
    m_diskCache.waitForSegmentWork();
    m_entries.clear();
    const CZuError error = getDirEntries(m_entries, job->src);
    if (error.IsError()) recordError(RMErrorUtil::GetErrNo(error));
  } catch (...) {
    recordError(RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION)));
  }
  for (size_t t = 0; t < workers.size(); ++t) {
    std::tie(workers[t]->first, workers[t]->last) = chunkOf(m_entries.size(), t);
    if (m_threads[t].createThread(threadEntry, workers[t].get())) {
      (void)workers[t].release();  // the worker's from here on
      continue;
    }
    recordError(EINVAL);
    workerEnded(*job);
  }
}

void* DiskCacheMigrator::threadEntry(void* args) {
  const std::unique_ptr<MigratorThreadArgs> owned(static_cast<MigratorThreadArgs*>(args));
  owned->migrator->migrationThreadFn(*owned->job, owned->first, owned->last);
  return nullptr;
}

void DiskCacheMigrator::migrationThreadFn(const Job& job, int first, int last) {
  DC_LOG(LogLevel::Info, "cache: entering migration thread [%s] [%s] %d %d", job.src.c_str(), job.dst.c_str(),
         first, last);
  for (int i = first; i <= last; ++i) {
    int rc = 0;
    try {
      const std::string& entry = m_entries[static_cast<size_t>(i)];
      rc = copyDir(join(job.src, entry, '/'), join(job.dst, entry, '/'));
    } catch (...) {
      rc = RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION));
    }
    if (rc == 0) continue;
    recordError(rc);
    DC_LOG(LogLevel::Error, "Error: Migration error detected (%d), migration aborted", m_error.load());
    break;
  }
  workerEnded(job);
  DC_LOG(LogLevel::Info, "cache: exiting migration thread numJobs=%llu",
         static_cast<unsigned long long>(m_numJobs.load()));
}

// The first error is the migration's; it stops every worker at its next directory entry.
void DiskCacheMigrator::recordError(int error) {
  int none = 0;
  m_error.compare_exchange_strong(none, error);
  m_stop = true;
}

void DiskCacheMigrator::workerEnded(const Job& job) {
  if (m_numJobs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  DC_LOG(LogLevel::Info, "cache: migration finished");
  if (m_error == 0) switchVolume(job);
  callCallback(m_error, job.src, job.dst);
  if (unlink(migrateFilePath().c_str()) != 0) DC_LOG(LogLevel::Error, "Error: can't unlink migrate file");
  publish(nullptr);
}

void DiskCacheMigrator::switchVolume(const Job& job) {
  createDir(join(job.dst, RECYCLE_DIR, '/'));  // every volume has one; it may be among what was left behind
  const KxCriticalSectionLock lock(&m_diskCache.m_volumeLock);
  m_diskCache.volumeRecord(job.vol).dir = job.dst;
  m_generation.fetch_add(1, std::memory_order_release);
  m_diskCache.saveVolumeInfo();  // also when volumes are not persistent, and whatever comes of it: meant
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

void DiskCacheMigrator::terminate() {
  m_stop = true;
  const KxCriticalSectionLock lock(&m_startLock);
  m_stop = true;  // a migration may have been started in between
  for (KXThread& thread : m_threads) thread.joinThread(KXThread::WAIT_FOREVER, nullptr);
}

CZuError DiskCacheMigrator::getDirEntries(std::vector<std::string>& out, const std::string& dir) {
  Directory entries(dir);
  if (entries.error() != 0) {
    return DC_FAIL(LogLevel::Error, entries.error(), "Error: can't open directory [%s] (%d)", dir.c_str(),
                   entries.error());
  }
  while (entries.next()) {
    struct stat status {};
    if (const int error = entries.status(status); error != 0) {
      return DC_FAIL(LogLevel::Error, error, "Error: can't stat [%s] (%d)",
                     join(dir, entries.name(), '/').c_str(), error);
    }
    if (S_ISDIR(status.st_mode)) out.emplace_back(entries.name());
  }
  return listed(entries, dir, RM_CODE_LOCATION);
}

int DiskCacheMigrator::copyDir(const std::string& src, const std::string& dst) {
  DC_LOG(LogLevel::Copy, "copying directory [%s] [%s]", src.c_str(), dst.c_str());
  Directory entries(src);
  if (entries.error() != 0) {
    DC_LOG(LogLevel::Error, "Error: can't open directory [%s] (%d)", src.c_str(), entries.error());
    return entries.error();
  }
  bool destinationMade = false;
  const auto stopped = [&] {
    const bool stop = m_stop;
    if (stop) entries.leaveOpen();  // meant
    return stop;
  };
  if (stopped()) return EINTR;  // also of an empty directory
  while (entries.next()) {
    if (stopped()) return EINTR;
    if (isLeftoverCopy(entries.name())) continue;
    const std::string s = join(src, entries.name(), '/');
    const std::string d = join(dst, entries.name(), '/');
    struct stat status {};
    if (const int error = entries.status(status); error != 0) {
      DC_LOG(LogLevel::Error, "Error: can't stat [%s] (%d)", s.c_str(), error);
      return error;
    }
    const bool isDirectory = S_ISDIR(status.st_mode);
    if (isDirectory || !destinationMade) {
      const std::string& wanted = isDirectory ? d : dst;
      if (const int rc = createDir(wanted); rc != 0) {
        DC_LOG(LogLevel::Error, "Error: can't mkdir [%s] (%d)", wanted.c_str(), rc);
        return rc;
      }
      destinationMade = true;
    }
    const int rc = isDirectory ? copyDir(s, d) : copySegment(entries.name(), s, d);
    if (rc != 0) return rc;
  }
  return RMErrorUtil::GetErrNo(listed(entries, src, RM_CODE_LOCATION));
}

// Under the segment's lock from the existence test to the end of the copy: whoever changes the segment
// meanwhile waits, and then finds it at the destination.
int DiskCacheMigrator::copySegment(const std::string& guid, const std::string& src, const std::string& dst) {
  AutoOpenSegment open(m_diskCache, guid);
  if (!open.opened()) {
    DC_LOG(LogLevel::Error, "Error: Can't open segment [%s] (%d)", guid.c_str(), 0);
    return RMErrorUtil::GetErrNo(open.error());
  }
  OpenSegmentInfo& segment = *open.getSegInfo();
  const KxCriticalSectionLock lock(&segment.lock);
  waitForInPlaceWriters(segment);
  if (doesFileExist(dst)) return 0;
  DC_LOG(LogLevel::Copy, "copying [%s] [%s]", src.c_str(), dst.c_str());
  const CZuError error = RMFile::KXCopyFile(src, dst, 0);
  if (!error.IsError()) return 0;
  const int rc = RMErrorUtil::GetErrNo(error);
  DC_LOG(LogLevel::Error, "Error: Can't copy [%s] to [%s] (%d)", src.c_str(), dst.c_str(), rc);
  return rc;
}

void DiskCacheMigrator::publish(std::shared_ptr<const Job> job) {
  const KxCriticalSectionLock lock(&m_migrateLock);
  m_job = std::move(job);
  m_inProgress.store(m_job != nullptr, std::memory_order_release);
  m_generation.fetch_add(1, std::memory_order_release);
}

std::shared_ptr<const DiskCacheMigrator::Job> DiskCacheMigrator::runningJob() {
  if (!m_inProgress.load(std::memory_order_acquire)) return nullptr;
  const KxCriticalSectionLock lock(&m_migrateLock);
  return m_job;
}

bool DiskCacheMigrator::isMigrating(VolIndex vol) {
  const auto job = runningJob();
  return job && job->vol == vol;
}

std::string DiskCacheMigrator::rootFor(const guid_t& guid, VolIndex vol, const std::string& dir) {
  const auto job = runningJob();
  if (!job || job->vol != vol) return m_diskCache.volumeRoot(vol, segmentPathRoom(dir, guid));
  std::string relative;
  appendSegmentPath(relative, dir, guid);
  const bool onlyAtSource =
      !doesFileExist(join(job->dst, relative, '/')) && doesFileExist(join(job->src, relative, '/'));
  return onlyAtSource ? job->src : job->dst;
}

std::string DiskCacheMigrator::rootForNew(const guid_t& guid, VolIndex vol, const std::string& dir) {
  const auto job = runningJob();
  return job && job->vol == vol ? job->dst : m_diskCache.volumeRoot(vol, segmentPathRoom(dir, guid));
}

void DiskCacheMigrator::removeSourceCopy(const guid_t& guid, VolIndex vol, const std::string& dir) {
  const auto job = runningJob();
  if (!job || job->vol != vol) return;
  std::string path = job->src;
  appendSegmentPath(path, dir, guid);
  unlink(path.c_str());  // most often it is gone already
}

std::string DiskCacheMigrator::guidToPath(const guid_t& guid, VolIndex vol, const std::string& dir) {
  std::string path = rootFor(guid, vol, dir);
  appendSegmentPath(path, dir, guid);
  return path;
}

}  // namespace ObjectStore
