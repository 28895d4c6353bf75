#include "diskcache/diskcacheMigrator.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>
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

// A name that a line of the file "migrate" cannot hold.
bool isUnstorable(const std::string& dir) {
  using namespace std::string_view_literals;
  return dir.find_first_of("\n\0"sv) != std::string::npos;
}

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
std::pair<int, int> chunkOf(int64_t n, int64_t t) {
  const int64_t first = n * t / NUM_THREADS;
  const int64_t last = t == NUM_THREADS - 1 ? n - 1 : first + n / NUM_THREADS - 1;
  return {static_cast<int>(first), static_cast<int>(last)};
}

}  // namespace

std::string DiskCacheMigrator::migrateFilePath() const {
  return join(m_diskCache.m_rootDir, MIGRATE_FILE, '/');
}

int DiskCacheMigrator::init(MigrationCB callback) {
  m_callback = callback;
  std::string content;
  const int rc = readWholeFile(migrateFilePath(), content);
  if (rc != 0 && rc != EINVAL) return 0;  // none there; EINVAL: something there that is no file
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
  if (isUnstorable(src) || isUnstorable(dst) || !writeMigrateFile(*job)) {
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
  DC_LOG(LogLevel::Segment, "m_numJobs = %llu", static_cast<unsigned long long>(m_numJobs.value()));
  m_threads.resize(NUM_THREADS);
  publish(job);
  // Work that began under the old paths ends before the first file is copied, so that none of it is missed.
  m_diskCache.waitForSegmentWork();
  for (int t = 0; t < NUM_THREADS; ++t) {
    const auto [first, last] = chunkOf(static_cast<int64_t>(m_entries.size()), t);
    auto args = std::make_unique<MigratorThreadArgs>(MigratorThreadArgs{this, job, first, last});
    if (m_threads[static_cast<size_t>(t)].createThread(threadEntry, args.get())) {
      (void)args.release();  // the worker's from here on
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
         static_cast<unsigned long long>(m_numJobs.value()));
}

// The first error is the migration's; it stops every worker at its next directory entry.
void DiskCacheMigrator::recordError(int error) {
  int none = 0;
  m_error.compare_exchange_strong(none, error);
  m_stop = true;
}

void DiskCacheMigrator::workerEnded(const Job& job) {
  if (m_numJobs-- != 1) return;
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
    const std::string path = join(dir, entries.name(), '/');
    struct stat status {};
    errno = 0;
    if (lstat(path.c_str(), &status) != 0) {
      const int error = errno;
      return DC_FAIL(LogLevel::Error, error, "Error: can't stat [%s] (%d)", path.c_str(), error);
    }
    if (S_ISDIR(status.st_mode)) out.emplace_back(entries.name());
  }
  return {};
}

int DiskCacheMigrator::copyDir(const std::string& src, const std::string& dst) {
  DC_LOG(LogLevel::Copy, "copying directory [%s] [%s]", src.c_str(), dst.c_str());
  Directory entries(src);
  if (entries.error() != 0) {
    DC_LOG(LogLevel::Error, "Error: can't open directory [%s] (%d)", src.c_str(), entries.error());
    return entries.error();
  }
  bool destinationMade = false;
  while (entries.next()) {
    if (m_stop) {
      entries.leaveOpen();  // meant
      return EINTR;
    }
    const std::string s = join(src, entries.name(), '/');
    const std::string d = join(dst, entries.name(), '/');
    struct stat status {};
    errno = 0;
    if (lstat(s.c_str(), &status) != 0) {
      const int error = errno != 0 ? errno : EIO;
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
  return 0;
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

std::string DiskCacheMigrator::guidToPath(const guid_t& guid, VolIndex vol, const std::string& dir) {
  std::string path = rootFor(guid, vol, dir);
  appendSegmentPath(path, dir, guid);
  return path;
}

}  // namespace ObjectStore
