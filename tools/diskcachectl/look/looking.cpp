#include "look/looking.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace diskcachectl {
namespace {

constexpr off_t MAX_WHOLE_FILE = 16 << 20;  // what the cache itself takes

}  // namespace

LookedAt::LookedAt(int dirFd, const char* name, int flags)
    : m_fd(openat(dirFd, name, O_RDONLY | O_NOATIME | O_NONBLOCK | O_CLOEXEC | flags)),
      m_error(m_fd < 0 ? errno : 0) {}

LookedAt::~LookedAt() {
  if (m_fd >= 0) close(m_fd);
}

int LookedAt::release() { return std::exchange(m_fd, -1); }

ssize_t readFully(int fd, void* to, size_t length, off_t offset) {
  size_t got = 0;
  while (got < length) {
    const ssize_t count =
        pread(fd, static_cast<char*>(to) + got, length - got, offset + static_cast<off_t>(got));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return count;
    if (count == 0) break;
    got += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(got);
}

int readWholeFile(const std::string& path, std::string& content) {
  const LookedAt file(path);
  if (file.error() != 0) return file.error();
  struct stat status {};
  if (fstat(file.fd(), &status) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  if (status.st_size > MAX_WHOLE_FILE) return EFBIG;
  content.resize(static_cast<size_t>(status.st_size));
  const ssize_t got = readFully(file.fd(), content.data(), content.size(), 0);
  if (got < 0) return errno;
  content.resize(static_cast<size_t>(got));
  return 0;
}

}  // namespace diskcachectl
