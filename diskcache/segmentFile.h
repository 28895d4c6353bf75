// One open segment file, and the system calls on it that the performance counters time.
//
// Internal. Every operation opens its own descriptor, so these are used by one thread.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include "support/perfCounters.h"

namespace ObjectStore {

// What a call returned and errno right after it.
template <typename T>
struct CallResult {
  T value;
  int error;
};

// Makes a system call under a counter, with errno cleared before and kept before the clock is read.
template <typename Call>
auto timedCall(const char* operation, int counter, Call&& call) -> CallResult<decltype(call())> {
  OBJECT_STORE_START_PERF_COUNTER(operation, counter);
  errno = 0;
  const auto value = call();
  const int error = errno;
  OBJECT_STORE_STOP_PERF_COUNTER(operation, counter);
  return {value, error};
}

// A sum of file offsets and lengths; one that does not fit is larger than any offset a file can have.
inline uint64_t offsetSum(uint64_t a, uint64_t b) {
  uint64_t sum = 0;
  return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<uint64_t>::max() : sum;
}

inline bool isFileOffset(uint64_t offset) {
  return offset <= static_cast<uint64_t>(std::numeric_limits<off_t>::max());
}

// The outcome of a read or write: bytes moved, negative when the call failed.
struct Transfer {
  ssize_t count;
  int error;
  // A transfer that moves fewer bytes than asked has failed.
  bool moved(uint64_t wanted) const { return count >= 0 && static_cast<uint64_t>(count) == wanted; }
};

// An offset that no file can have fails with EINVAL, as the system would say.
inline Transfer readAt(const char* operation, int fd, void* to, uint64_t length, uint64_t offset) {
  if (!isFileOffset(offset)) return {-1, EINVAL};
  const auto result =
      timedCall(operation, PERF_DISK_READ, [&] { return pread(fd, to, length, static_cast<off_t>(offset)); });
  return {result.value, result.error};
}

// The most bytes that one read or write of the system moves.
inline constexpr uint64_t MAX_TRANSFER = 0x7ffff000;

// A write that fails unless it moves all of `length` bytes; `write(done)` is asked for those behind the first
// `done`. A write that is cut short does not tell why, so the rest is asked for once, for its number alone.
// When the rest then goes well there was no room a moment ago.
template <typename Write>
Transfer timedWrite(const char* operation, uint64_t length, Write&& write) {
  const auto first = timedCall(operation, PERF_DISK_WRITE, [&] { return write(uint64_t{0}); });
  const Transfer told{first.value, first.error};
  if (told.count < 0 || told.moved(length)) return told;
  const auto rest =
      timedCall(operation, PERF_DISK_WRITE, [&] { return write(static_cast<uint64_t>(told.count)); });
  return {told.count, rest.value < 0 ? rest.error : ENOSPC};
}

inline Transfer writeAt(const char* operation, int fd, const void* from, uint64_t length, uint64_t offset) {
  if (!isFileOffset(offset)) return {-1, EINVAL};
  return timedWrite(operation, length, [&](uint64_t done) {
    return pwrite(fd, static_cast<const char*>(from) + done, length - done,
                  static_cast<off_t>(offset + done));
  });
}

// A segment is a regular file: a link in its place is not followed, and a FIFO or a device not waited for.
class SegmentFile {
 public:
  // `operation` names the caller to the counters.
  explicit SegmentFile(const char* operation) : m_operation(operation) {}
  ~SegmentFile() { close(); }
  SegmentFile(const SegmentFile&) = delete;
  SegmentFile& operator=(const SegmentFile&) = delete;

  bool open(const std::string& path, int flags, mode_t mode = 0) {
    constexpr int always = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    const auto result =
        timedCall(m_operation, PERF_OPEN, [&] { return ::open(path.c_str(), flags | always, mode); });
    m_fd = result.value;
    m_error = result.error;
    return m_fd >= 0;
  }

  int fd() const { return m_fd; }
  // errno of a failed open().
  int error() const { return m_error; }

  void close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
  }
  // The closes at the end of a write are timed; all others are not. 0 or errno of the close.
  int closeTimed() {
    const auto closed = timedCall(m_operation, PERF_CLOSE, [&] { return ::close(m_fd); });
    m_fd = -1;
    return closed.value == 0 ? 0 : closed.error;
  }

  // Hands the descriptor over to the caller.
  int release() { return std::exchange(m_fd, -1); }

  // Keeps the descriptor open for the life of the process: meant, on a few failure paths. Also for one that
  // somebody else closes from here on.
  void leaveOpen() { m_fd = -1; }

 private:
  const char* m_operation;
  int m_fd = -1;
  int m_error = 0;
};

}  // namespace ObjectStore
