#include "serve/spool.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace diskcached {

namespace {

constexpr uint64_t SHARE_LEFT_FREE = 20;

}  // namespace

Spool::~Spool() {
  if (m_mapped != nullptr) munmap(m_mapped, m_size);
  if (m_fd >= 0) close(m_fd);
}

int Spool::open(const std::string& dir) {
  m_fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (m_fd >= 0) return 0;
  if (errno != EOPNOTSUPP && errno != EISDIR) return errno;
  std::string path = dir + "/spool-XXXXXX";  // a file system that makes no files without names
  m_fd = mkostemp(path.data(), O_CLOEXEC);
  return m_fd >= 0 && unlink(path.c_str()) == 0 ? 0 : errno;
}

int Spool::append(std::span<const std::byte> bytes) {
  if (!hasRoom()) return ENOSPC;
  while (!bytes.empty()) {
    const ssize_t written = write(m_fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    m_size += static_cast<uint64_t>(written);
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
  return 0;
}

// Bodies must not take the last of the space from the files that say what is cached.
bool Spool::hasRoom() const {
  struct statvfs status {};
  return fstatvfs(m_fd, &status) != 0 || status.f_bavail >= status.f_blocks / SHARE_LEFT_FREE;
}

int Spool::map(std::span<const std::byte>& bytes) {
  bytes = {};
  if (m_size == 0) return 0;
  m_mapped = mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, m_fd, 0);
  if (m_mapped == MAP_FAILED) {
    m_mapped = nullptr;
    return errno;
  }
  bytes = {static_cast<const std::byte*>(m_mapped), m_size};
  return 0;
}

}  // namespace diskcached
