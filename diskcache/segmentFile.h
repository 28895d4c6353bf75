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

inline Transfer writeAt(const char* operation, int fd, const void* from, uint64_t length, uint64_t offset) {
  if (!isFileOffset(offset)) return {-1, EINVAL};
  const auto result = timedCall(operation, PERF_DISK_WRITE,
                                [&] { return pwrite(fd, from, length, static_cast<off_t>(offset)); });
  return {result.value, result.error};
}

class SegmentFile {
 public:
  // `operation` names the caller to the counters.
  explicit SegmentFile(const char* operation) : m_operation(operation) {}
  ~SegmentFile() {
    if (m_fd >= 0) ::close(m_fd);
  }
  SegmentFile(const SegmentFile&) = delete;
  SegmentFile& operator=(const SegmentFile&) = delete;

  bool open(const std::string& path, int flags, mode_t mode = 0) {
    const auto result =
        timedCall(m_operation, PERF_OPEN, [&] { return ::open(path.c_str(), flags | O_CLOEXEC, mode); });
    m_fd = result.value;
    m_error = result.error;
    return m_fd >= 0;
  }

  int fd() const { return m_fd; }
  // errno of a failed open().
  int error() const { return m_error; }

  // The closes at the end of a write are timed; all others are left to the destructor.
  void closeTimed() {
    timedCall(m_operation, PERF_CLOSE, [&] { return ::close(m_fd); });
    m_fd = -1;
  }

  // Keeps the descriptor open for the life of the process: meant, on a few failure paths.
  void leaveOpen() { m_fd = -1; }

 private:
  const char* m_operation;
  int m_fd = -1;
  int m_error = 0;
};

}  // namespace ObjectStore
