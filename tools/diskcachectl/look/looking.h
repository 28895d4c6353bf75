// Opening what is only to be looked at, so that it is safe beside a running server.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace diskcachectl {

// A descriptor for reading that leaves the access time as it is and never waits for the other end of a FIFO.
class LookedAt {
 public:
  // `name` is relative to the directory `dirFd`. Links are followed unless `flags` has O_NOFOLLOW.
  LookedAt(int dirFd, const char* name, int flags = 0);
  explicit LookedAt(const std::string& path, int flags = 0) : LookedAt(AT_FDCWD, path.c_str(), flags) {}
  ~LookedAt();
  LookedAt(const LookedAt&) = delete;
  LookedAt& operator=(const LookedAt&) = delete;

  int fd() const { return m_fd; }
  // 0, or the system error number of the open.
  int error() const { return m_error; }
  // Gives the descriptor away.
  int release();

 private:
  int m_fd;
  int m_error;
};

// Reads up to `length` bytes at `offset`, fewer only at the end of the file; negative, with errno, on an error.
ssize_t readFully(int fd, void* to, size_t length, off_t offset);

// The whole of a small file; a system error number or 0.
int readWholeFile(const std::string& path, std::string& content);

}  // namespace diskcachectl
