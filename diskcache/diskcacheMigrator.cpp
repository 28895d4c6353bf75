// Starting and ending a migration, and the places of segments while it runs.
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

#include "diskcache/diskcachePaths.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// A directory as it really lies, with a separator behind it; empty for one that cannot be told.
std::string realDirectory(const std::string& dir) {
  std::error_code error;
  // A relative name stays relative where its first part is not there.
  auto real = std::filesystem::absolute(dir + "/.", error);
  if (!error) real = std::filesystem::weakly_canonical(real, error).lexically_normal();
  return error ? std::string() : join(real.string(), "", '/');
}

// Whether one of two directories is the other or lies below it: copying would then copy the copy.
bool containEachOther(const std::string& a, const std::string& b) {
  const std::string first = realDirectory(a);
  const std::string second = realDirectory(b);
  if (first.empty() || second.empty()) return false;  // the copy itself will tell
  return first.starts_with(second) || second.starts_with(first);
}

// Worker `t` of four takes the entries first to last. Starts are rounded down from n * t / 4 and lengths from
// n / 4, so that some entries fall between two workers and are not copied when n is no multiple of 4: clients
// count on this division (docs/operations.md tells operators what it leaves behind).
std::pair<int, int> chunkOf(size_t n, size_t t) {
  const auto first = static_cast<int>(n * t / NUM_THREADS);
  const auto length = static_cast<int>(n / NUM_THREADS);
  return {first, t == NUM_THREADS - 1 ? static_cast<int>(n) - 1 : first + length - 1};
}

std::string nameOf(const guid_t& guid, const std::string& dir) {
  std::string name;
  appendSegmentPath(name, dir, guid);
  return name;
}

std::string parentOf(const std::string& name) { return name.substr(0, name.rfind('/')); }

bool isThere(const std::string& root, const std::string& name) {
  return doesFileExist(join(root, name, '/'));
}

}  // namespace

std::string DiskCacheMigrator::pathInRoot(const char* file) const {
  return join(m_settings.rootDir, file, '/');
}

int DiskCacheMigrator::init(MigrationCB callback) {
  m_callback = callback;
  std::string content;
  const int rc = readWholeFile(pathInRoot(MIGRATE_FILE), content);
  const bool isAbsent = rc == ENOENT || rc == ENOTDIR;
  // Something that is no file, or far too large for one, makes no sense. What can't be read is not taken for absent:
  // clients would work on at the source, and a later start go on from what they have changed since.
  if (!isAbsent && rc != 0 && rc != EINVAL && rc != EFBIG) {
    DC_LOG(LogLevel::Error, "Error: can't read [%s] (%d)", pathInRoot(MIGRATE_FILE).c_str(), rc);
    return countedResult(rc);
  }
  std::string_view rest = content;
  const std::string index(takeLine(rest));
  const std::string source(takeLine(rest));
  const std::string destination(takeLine(rest));
  const auto vol = static_cast<VolIndex>(std::strtol(index.c_str(), nullptr, 10));
  m_isReady = true;
  if (isAbsent) return 0;
  if (vol == 0 || source.empty() || destination.empty()) {
    DC_LOG(LogLevel::Error, "migrate file has incorrect parameters");
    return countedResult(EINVAL);
  }
  const int started = start(vol, source, destination, true, RM_CODE_LOCATION);
  // Any other migration would forget what clients have changed at this one's destination.
  m_isReady = started == 0 || started == EEXIST;
  return started;
}

int DiskCacheMigrator::migrate(VolIndex vol, const std::string& src, const std::string& dst) {
  return start(vol, src, dst, false, RM_CODE_LOCATION);
}

int DiskCacheMigrator::start(VolIndex vol, const std::string& src, const std::string& dst, bool resumes,
                             const RMCodeLocation& where) try {
  DC_LOG_AT(where, LogLevel::Setup, "migrating vol=%d src=[%s] dst=[%s]", vol, src.c_str(), dst.c_str());
  const auto refuse = [&] {
    const auto running = runningJob();
    DC_LOG_AT(where, LogLevel::Error, "Migration already in progress (from [%s] to [%s])",
              running ? running->src.c_str() : "", running ? running->dst.c_str() : "");
    return countedResult(EEXIST);
  };
  // Asked before the lock as well: the callback of a migration that is being ended may come here.
  if (m_inProgress) return refuse();
  const KxCriticalSectionLock starting(&m_startLock);
  if (m_inProgress) return refuse();

  if (const int rc = prepare(vol, src, dst, resumes, where); rc != 0) return countedResult(rc);
  const std::string file = pathInRoot(MIGRATE_FILE);
  if (!writeMigrateFile(file, vol, src, dst)) {
    DC_LOG_AT(where, LogLevel::Error, "Error: Can't open migrate file");
    return countedResult(EINVAL);
  }
  try {
    return startCopying(vol, src, dst, where);
  } catch (...) {
    // A file that was there before stays: without it nothing is known of the changes at the destination.
    if (!resumes) unlink(file.c_str());
    throw;
  }
} catch (...) {
  return RMErrorUtil::GetErrNo(failWithException(where));
}

int DiskCacheMigrator::startCopying(VolIndex vol, const std::string& src, const std::string& dst,
                                    const RMCodeLocation& where) {
  struct stat source {};
  CZuError error = getDirEntries(m_entries, src);
  errno = 0;
  if (!error.IsError() && stat(src.c_str(), &source) != 0)
    error = RMErrorUtil::ErrorErrNo(where, countedResult(errno));
  if (error.IsError()) {
    DC_LOG_AT(where, LogLevel::Error, "Error: Can't get entries of [%s]", src.c_str());
    return RMErrorUtil::GetErrNo(error);
  }
  const std::string home = m_volumes.volumeRoot(vol, 0);
  const bool isRefused = containEachOther(dst, src);
  const auto job = std::make_shared<const Job>(
      Job{vol, src, dst, home.empty() ? src : home, source.st_dev, source.st_ino, isRefused, false});
  if (isRefused) {
    DC_LOG_AT(where, LogLevel::Error, "Error: destination [%s] is, contains or lies below the source [%s]",
              dst.c_str(), src.c_str());
    recordError(EINVAL);
  }
  startWorkers(job, where);
  return 0;
}

// Checks what is asked for and forgets the migration before. 0, or why this one cannot be.
int DiskCacheMigrator::prepare(VolIndex vol, const std::string& src, const std::string& dst, bool resumes,
                               const RMCodeLocation& where) {
  const bool persistent = m_settings.persistentVolumes == PersistentVolumes::Yes;
  if (!m_isReady || vol == 0 || src.empty() || dst.empty() || !isStorableLine(src) || !isStorableLine(dst) ||
      (persistent && !isStorableVolume(dst))) {
    DC_LOG_AT(where, LogLevel::Error, "Error: can't migrate volume %d from [%s] to [%s]", vol, src.c_str(),
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
  // Before "migrate" is written: changes of another migration must never be taken for this one's.
  const std::string changes = pathInRoot(CHANGES_FILE);
  if (!resumes) {
    m_changes.begin(changes);
    return 0;
  }
  const int rc = m_changes.resume(changes);
  if (rc != 0) DC_LOG_AT(where, LogLevel::Error, "Error: can't read [%s] (%d)", changes.c_str(), rc);
  return rc;
}

// In one step, so that a process killed in between leaves the old file or the new, never half a line.
bool DiskCacheMigrator::writeMigrateFile(const std::string& path, VolIndex vol, const std::string& src,
                                         const std::string& dst) {
  const std::string fresh = path + ".new";
  const std::string text = std::to_string(vol) + '\n' + src + '\n' + dst + '\n';
  const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  if (written && rename(fresh.c_str(), path.c_str()) == 0) return true;
  unlink(fresh.c_str());
  return false;
}

void DiskCacheMigrator::startWorkers(const std::shared_ptr<const Job>& job, const RMCodeLocation& where) {
  m_numJobs = NUM_THREADS;
  DC_LOG_AT(where, LogLevel::Segment, "m_numJobs = %llu", static_cast<unsigned long long>(m_numJobs.load()));
  m_threads.resize(NUM_THREADS);
  std::array<std::unique_ptr<MigratorThreadArgs>, NUM_THREADS> workers;
  for (auto& worker : workers)
    worker = std::make_unique<MigratorThreadArgs>(MigratorThreadArgs{this, job, 0, -1});
  publish(job, true);
  try {
    // Work that began under the old paths ends before the first file is copied, and what it has made is
    // listed, so that none of it is missed.
    m_openTable.waitForSegmentWork();
    m_entries.clear();
    const CZuError error = getDirEntries(m_entries, job->src);
    if (error.IsError()) recordError(RMErrorUtil::GetErrNo(error));
  } catch (...) {
    recordError(RMErrorUtil::GetErrNo(failWithException(where)));
  }
  for (size_t t = 0; t < workers.size(); ++t) {
    std::tie(workers[t]->first, workers[t]->last) = chunkOf(m_entries.size(), t);
    if (m_threads[t].createThread(threadEntry, workers[t].get())) {
      (void)workers[t].release();  // the worker's from here on
      continue;
    }
    recordError(EINVAL);
    workerEnded(job, where);
  }
}

void DiskCacheMigrator::terminate() {
  m_stop = true;
  if (isOwnThread()) return;
  const KxCriticalSectionLock lock(&m_startLock);
  m_stop = true;  // a migration may have been started in between
  for (KXThread& thread : m_threads) thread.joinThread(KXThread::WAIT_FOREVER, nullptr);
}

DiskCacheMigrator::Pause::Pause(DiskCacheMigrator& migrator) DC_NO_THREAD_SAFETY_ANALYSIS
    : m_noStart(migrator.stopAndLock()) {
  migrator.terminate();
}

KxCriticalSection* DiskCacheMigrator::stopAndLock() {
  m_stop = true;  // one that is being started holds the lock until its threads run
  return isOwnThread() ? nullptr : &m_startLock;
}

void DiskCacheMigrator::publish(std::shared_ptr<const Job> job, bool inProgress) {
  const KxCriticalSectionLock lock(&m_migrateLock);
  m_job = std::move(job);
  m_inProgress.store(inProgress, std::memory_order_release);
  m_generation.fetch_add(1, std::memory_order_release);
}

std::shared_ptr<const DiskCacheMigrator::Job> DiskCacheMigrator::runningJob() {
  if (!m_inProgress.load(std::memory_order_acquire)) return nullptr;
  const KxCriticalSectionLock lock(&m_migrateLock);
  return m_job;
}

std::shared_ptr<const DiskCacheMigrator::Job> DiskCacheMigrator::runningJob(VolIndex vol) {
  auto job = runningJob();
  return job && job->vol == vol && !job->isRefused ? job : nullptr;
}

std::string DiskCacheMigrator::rootFor(const guid_t& guid, VolIndex vol, const std::string& dir,
                                       std::optional<bool>* seen) {
  const auto job = runningJob(vol);
  if (!job) return m_volumes.volumeRoot(vol, segmentPathRoom(dir, guid));
  const std::string name = nameOf(guid, dir);
  const bool isAtDestination = isThere(job->dst, name);
  const bool isFound = isAtDestination || isThere(job->src, name);
  if (seen) *seen = isFound;
  if (isFound) return isAtDestination ? job->dst : job->src;
  return job->isReturning ? job->home : job->dst;
}

std::string DiskCacheMigrator::guidToPath(const guid_t& guid, VolIndex vol, const std::string& dir) {
  std::string path = rootFor(guid, vol, dir);
  appendSegmentPath(path, dir, guid);
  return path;
}

int DiskCacheMigrator::claim(std::string& root, const guid_t& guid, VolIndex vol, const std::string& dir) {
  if (const auto job = runningJob(vol))
    return claimName(root, *job, nameOf(guid, dir), false, RM_CODE_LOCATION);
  root = m_volumes.volumeRoot(vol, segmentPathRoom(dir, guid));
  return 0;
}

int DiskCacheMigrator::claimWhole(std::string& root, const guid_t& guid, VolIndex vol,
                                  const std::string& dir) {
  if (const auto job = runningJob(vol))
    return claimName(root, *job, nameOf(guid, dir), true, RM_CODE_LOCATION);
  root = m_volumes.volumeRoot(vol, segmentPathRoom(dir, guid));
  return 0;
}

int DiskCacheMigrator::claimName(std::string& root, const Job& job, const std::string& name, bool isWhole,
                                 const RMCodeLocation& where) {
  const int atDestination = findFile(join(job.dst, name, '/'));
  const int atSource = atDestination == ENOENT ? findFile(join(job.src, name, '/')) : 0;
  for (const int rc : {atDestination, atSource}) {
    if (rc == 0 || rc == ENOENT) continue;
    DC_LOG_AT(where, LogLevel::Error, "Error: can't look for [%s] (%d)", name.c_str(), rc);
    return rc;
  }
  const bool isOnlyAtSource = atDestination == ENOENT && atSource == 0;
  if (job.isReturning) {
    root = isOnlyAtSource ? job.src : job.home;
    return bringBack(job, name, where);
  }
  root = isOnlyAtSource && !isWhole ? job.src : job.dst;
  if (root != job.dst) return 0;
  if (isWhole && isThere(job.src, parentOf(name))) {
    if (const int rc = createDir(join(job.dst, parentOf(name), '/')); rc != 0) return rc;
  }
  note(name, where);
  return 0;
}

// Before the change. What cannot be kept over a kill ends the migration; until then it is in memory.
void DiskCacheMigrator::note(const std::string& name, const RMCodeLocation& where) {
  const int rc = m_changes.add(name);
  if (rc == 0) return;
  DC_LOG_AT(where, LogLevel::Error, "Error: can't note [%s] in [%s] (%d)", name.c_str(),
            pathInRoot(CHANGES_FILE).c_str(), rc);
  recordError(rc);
}

DiskCacheMigrator::Removal::Removal(DiskCacheMigrator& migrator, const guid_t& guid, VolIndex vol,
                                    const std::string& dir) DC_NO_THREAD_SAFETY_ANALYSIS
    : m_migrator(migrator),
      m_job(migrator.runningJob(vol)),
      m_noneAppears(m_job ? &migrator.m_appearLock : nullptr) {
  if (m_job) {
    const std::string name = nameOf(guid, dir);
    const bool isAtDestination = isThere(m_job->dst, name);
    m_isFound = isAtDestination || isThere(m_job->src, name);
    m_root = isAtDestination ? m_job->dst : m_isFound ? m_job->src : m_job->home;
    if (isAtDestination) m_original = join(m_job->src, name, '/');
  } else {
    m_root = migrator.m_volumes.volumeRoot(vol, segmentPathRoom(dir, guid));
  }
  m_path = m_root;
  if (!m_path.empty()) appendSegmentPath(m_path, dir, guid);
  if (!m_job) m_isFound = doesFileExist(m_path);
}

int DiskCacheMigrator::Removal::removeOriginal() const {
  errno = 0;
  return m_original.empty() || unlink(m_original.c_str()) == 0 || errno == ENOENT || errno == ENOTDIR ? 0
                                                                                                      : errno;
}

std::string DiskCacheMigrator::Removal::recycleDir(const guid_t& guid) const {
  const bool isAtDestination = m_job && m_root == m_job->dst;
  if (isAtDestination && m_job->isReturning) return join(m_job->home, RECYCLE_DIR, '/');
  if (isAtDestination) m_migrator.note(join(RECYCLE_DIR, guid, '/'), RM_CODE_LOCATION);
  return join(m_root, RECYCLE_DIR, '/');
}

int DiskCacheMigrator::dropSourceCopy(const guid_t& guid, VolIndex vol, const std::string& dir) {
  const auto job = runningJob(vol);
  if (!job) return 0;
  const std::string name = nameOf(guid, dir);
  const int found = findFile(join(job->dst, name, '/'));
  if (found == ENOENT) return 0;
  const std::string path = join(job->src, name, '/');
  if (found != 0) {  // this may be the only copy
    DC_LOG(LogLevel::Error, "Error: can't look for [%s] (%d)", name.c_str(), found);
    return found;
  }
  errno = 0;
  if (unlink(path.c_str()) == 0 || errno == ENOENT || errno == ENOTDIR) return 0;
  const int rc = errno;
  DC_LOG(LogLevel::Error, "Error: can't unlink file [%s] (%d)", path.c_str(), rc);
  return rc;
}

}  // namespace ObjectStore
