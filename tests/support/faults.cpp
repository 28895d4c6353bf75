#include "tests/support/faults.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <limits>
#include <mutex>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace ObjectStore {

namespace {

constexpr size_t NO_LIMIT = std::numeric_limits<size_t>::max();
constexpr size_t EVERY_CALL = 0;

// What is to become of one call.
struct Verdict {
  int errNo = 0;
  size_t limit = NO_LIMIT;
  bool kills = false;

  bool holds = false;

  size_t limited(size_t size, size_t count = 1) const { return std::min(size * count, limit); }
};

struct Fault {
  std::string call;
  size_t nth;  // or EVERY_CALL
  Verdict verdict;
  size_t seen = 0;
  bool stays = false;
  bool strikes() { return ++seen == nth || nth == EVERY_CALL || (stays && seen > nth); }
};

struct Record {
  std::vector<Fault> faults;
  std::vector<std::string> trace;
  std::vector<std::chrono::nanoseconds> sleeps;
  bool skipSleeps = false;
  enum { NotHeld, Held, Released } hold = NotHeld;
};

std::atomic<bool> g_active{false};
std::atomic<std::chrono::milliseconds> g_longestWait;
std::condition_variable& g_holdChanged = *new std::condition_variable;  // outlives every thread

struct LockedRecord {
  std::unique_lock<std::mutex> lock;
  Record& record;
  Record* operator->() const { return &record; }
};

// Locked while the value lives. Never destroyed: threads may make calls until the process's last moment.
LockedRecord recorded() {
  static std::mutex& mutex = *new std::mutex;
  static Record& record = *new Record;
  return {std::unique_lock(mutex), record};
}

Verdict verdictOn(const char* call) {
  if (!g_active.load(std::memory_order_acquire)) return {};
  const int savedErrno = errno;  // the code under test may count on what it set
  Verdict verdict;
  {
    LockedRecord r = recorded();
    r->trace.emplace_back(call);
    for (Fault& fault : r->faults) {
      if (fault.call != call && fault.call != FaultPlan::ANY) continue;
      if (fault.strikes()) verdict = fault.verdict;
    }
    if (verdict.holds && r->hold == Record::NotHeld) {
      r->hold = Record::Held;
      g_holdChanged.notify_all();
      g_holdChanged.wait(r.lock, [&] { return r->hold == Record::Released; });
    }
    if (verdict.kills) raise(SIGKILL);  // under the lock: no other thread makes a call after this one
  }
  errno = savedErrno;
  return verdict;
}

FaultPlan& add(FaultPlan& plan, std::string_view call, size_t nth, const Verdict& verdict) {
  recorded()->faults.push_back({std::string(call), nth, verdict});
  return plan;
}

}  // namespace

FaultPlan::FaultPlan() {
  if (g_active.exchange(true)) throw std::logic_error("there is a fault plan already");
  g_longestWait = std::chrono::milliseconds::zero();
}

FaultPlan::~FaultPlan() {
  g_active = false;
  release();  // which nobody who was held sees undone
  const Record done = [] {
    LockedRecord r = recorded();
    Record next;
    next.hold = Record::Released;
    return std::exchange(r.record, std::move(next));
  }();
  for (const Fault& fault : done.faults)
    if (fault.seen < std::max<size_t>(fault.nth, 1))
      ADD_FAILURE() << "a fault planned for " << fault.call << " never came to pass";
}

FaultPlan& FaultPlan::fail(std::string_view call, size_t nth, int errNo) {
  return add(*this, call, nth, {errNo});
}
FaultPlan& FaultPlan::failAlways(std::string_view call, int errNo) { return fail(call, EVERY_CALL, errNo); }
FaultPlan& FaultPlan::shortTransfer(std::string_view call, size_t nth, size_t bytes) {
  return add(*this, call, nth, {0, bytes});
}
void FaultPlan::forGood() { recorded()->faults.back().stays = true; }
FaultPlan& FaultPlan::killAt(size_t nth) { return add(*this, ANY, nth, {0, NO_LIMIT, true}); }
FaultPlan& FaultPlan::hold(std::string_view call, size_t nth) {
  recorded()->hold = Record::NotHeld;
  return add(*this, call, nth, {0, NO_LIMIT, false, true});
}
bool FaultPlan::held() const {
  LockedRecord r = recorded();
  return g_holdChanged.wait_for(r.lock, std::chrono::seconds(30), [&] { return r->hold == Record::Held; });
}
void FaultPlan::release() {
  recorded()->hold = Record::Released;
  g_holdChanged.notify_all();
}
void FaultPlan::skipSleeps() { recorded()->skipSleeps = true; }
void FaultPlan::clearFaults() { recorded()->faults.clear(); }

std::vector<std::string> FaultPlan::trace() const { return recorded()->trace; }
std::vector<std::string> FaultPlan::takeTrace() { return std::exchange(recorded()->trace, {}); }
size_t FaultPlan::count(std::string_view call) const {
  const std::vector<std::string> calls = trace();
  return call == ANY ? calls.size() : static_cast<size_t>(std::count(calls.begin(), calls.end(), call));
}
std::vector<std::chrono::nanoseconds> FaultPlan::sleeps() const { return recorded()->sleeps; }

std::chrono::milliseconds FaultPlan::longestWait() const { return g_longestWait; }

// What to sleep in place of what was asked for.
const timespec* recordSleep(const timespec* time) {
  static constexpr timespec NOTHING{};
  if (!g_active) return time;
  const LockedRecord r = recorded();
  r->sleeps.push_back(std::chrono::seconds(time->tv_sec) + std::chrono::nanoseconds(time->tv_nsec));
  return r->skipSleeps ? &NOTHING : time;
}

// A call that returns `failure` when it is to fail and otherwise what `real` yields; `verdict` is in reach.
#define WRAP(name, result, failure, parameters, real)  \
  extern "C" result __real_##name parameters;          \
  extern "C" result __wrap_##name parameters {         \
    const Verdict verdict = verdictOn(#name);          \
    if (verdict.errNo == 0) return __real_##name real; \
    errno = verdict.errNo;                             \
    return failure;                                    \
  }

WRAP(access, int, -1, (const char* path, int mode), (path, mode))
// The system gives the descriptor up even when close reports a failure.
WRAP(close, int, (__real_close(fd), -1), (int fd), (fd))
WRAP(copy_file_range, ssize_t, -1, (int in, off_t* inAt, int out, off_t* outAt, size_t bytes, unsigned flags),
     (in, inAt, out, outAt, verdict.limited(bytes), flags))
WRAP(fclose, int, EOF, (std::FILE * stream), (stream))
WRAP(fopen, std::FILE*, nullptr, (const char* path, const char* mode), (path, mode))
WRAP(fread, size_t, 0, (void* to, size_t size, size_t count, std::FILE* stream),
     (to, 1, verdict.limited(size, count), stream) / std::max<size_t>(size, 1))
WRAP(fseek, int, -1, (std::FILE * stream, long at, int whence), (stream, at, whence))
WRAP(fstat, int, -1, (int fd, struct stat* status), (fd, status))
WRAP(fstatat, int, -1, (int dir, const char* name, struct stat* status, int flags),
     (dir, name, status, flags))
WRAP(fsync, int, -1, (int fd), (fd))
WRAP(ftruncate, int, -1, (int fd, off_t size), (fd, size))
WRAP(fwrite, size_t, 0, (const void* from, size_t size, size_t count, std::FILE* stream),
     (from, 1, verdict.limited(size, count), stream) / std::max<size_t>(size, 1))
WRAP(lseek, off_t, -1, (int fd, off_t at, int whence), (fd, at, whence))
WRAP(lstat, int, -1, (const char* path, struct stat* status), (path, status))
WRAP(mkdir, int, -1, (const char* path, mode_t mode), (path, mode))
WRAP(mmap, void*, MAP_FAILED, (void* at, size_t bytes, int protection, int flags, int fd, off_t offset),
     (at, bytes, protection, flags, fd, offset))
// No child is to have what is opened, and others than the owner not what is made; a copy is as its source.
int checkedFlags(const std::string& path, int flags, mode_t mode) {
  EXPECT_TRUE((flags & O_CLOEXEC) != 0) << path;
  const bool isMade = (flags & O_CREAT) != 0 && !path.ends_with(".copying");
  EXPECT_EQ(isMade ? mode : 0600U, 0600U) << path;
  return flags;
}
// Where a caller gives no mode, the system does not look at it.
WRAP(open, int, -1, (const char* path, int flags, mode_t mode), (path, checkedFlags(path, flags, mode), mode))
WRAP(opendir, DIR*, nullptr, (const char* path), (path))
WRAP(nanosleep, int, -1, (const timespec* time, timespec* rest), (recordSleep(time), rest))
// No reader's access is worth a time that is written to the disk.
int untimed(int fd) {
  EXPECT_NE(fcntl(fd, F_GETFL) & O_NOATIME, 0);
  return fd;
}
WRAP(pread, ssize_t, -1, (int fd, void* to, size_t bytes, off_t at),
     (untimed(fd), to, verdict.limited(bytes), at))
WRAP(preadv, ssize_t, -1, (int fd, const iovec* parts, int count, off_t at), (fd, parts, count, at))
WRAP(pwrite, ssize_t, -1, (int fd, const void* from, size_t bytes, off_t at),
     (fd, from, verdict.limited(bytes), at))
WRAP(read, ssize_t, -1, (int fd, void* to, size_t bytes), (fd, to, verdict.limited(bytes)))
WRAP(readdir, dirent*, nullptr, (DIR * stream), (stream))
WRAP(rename, int, -1, (const char* from, const char* to), (from, to))
WRAP(renameat2, int, -1, (int fromDir, const char* from, int toDir, const char* to, unsigned flags),
     (fromDir, from, toDir, to, flags))
WRAP(rmdir, int, -1, (const char* path), (path))
WRAP(stat, int, -1, (const char* path, struct stat* status), (path, status))
WRAP(statvfs, int, -1, (const char* path, struct statvfs* status), (path, status))
WRAP(unlink, int, -1, (const char* path), (path))
WRAP(write, ssize_t, -1, (int fd, const void* from, size_t bytes), (fd, from, verdict.limited(bytes)))

// No call to fail, and made while a plan's own lock is held.
extern "C" int __real_pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
extern "C" int __wrap_pthread_cond_clockwait(pthread_cond_t* changed, pthread_mutex_t* mutex, clockid_t clock,
                                             const timespec* until) {
  timespec now{};
  clock_gettime(clock, &now);
  const auto since = [](const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  };
  const auto wait = std::chrono::round<std::chrono::milliseconds>(since(*until) - since(now));
  auto longest = g_longestWait.load();
  while (wait > longest && !g_longestWait.compare_exchange_weak(longest, wait)) continue;
  return __real_pthread_cond_clockwait(changed, mutex, clock, until);
}

// operator new; a sanitizer's stays in its place.
extern "C" void* __real__Znwm(size_t size);
extern "C" void* __wrap__Znwm(size_t size) {
  if (FailingNew::s_left > 0 && --FailingNew::s_left == 0) throw std::bad_alloc();
  return __real__Znwm(size);
}

// std::thread starts here: its state comes as a pointer to the owning pointer, and it reports by exception.
#define START_THREAD(prefix) \
  prefix##_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE
extern "C" void START_THREAD(__real_)(void* thread, void* state, void (*depend)());
extern "C" void START_THREAD(__wrap_)(void* thread, void* state, void (*depend)()) {
  const Verdict verdict = verdictOn("thread");
  if (verdict.errNo != 0) throw std::system_error(verdict.errNo, std::generic_category());
  START_THREAD(__real_)(thread, state, depend);
}

}  // namespace ObjectStore
