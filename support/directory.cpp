#include "support/directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ObjectStore {

namespace {

int failureNumber(int error) { return error != 0 ? error : EIO; }

}  // namespace

Directory::Directory(const std::string& path) {
  errno = 0;
  m_stream = opendir(path.c_str());
  m_error = m_stream ? 0 : failureNumber(errno);
}

Directory::Directory(const Directory& parent, const char* name) {
  errno = 0;
  const int fd = openat(dirfd(parent.m_stream), name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  m_stream = fd < 0 ? nullptr : fdopendir(fd);
  m_error = m_stream ? 0 : failureNumber(errno);
  if (!m_stream && fd >= 0) ::close(fd);
}

void Directory::close() {
  if (m_stream) closedir(m_stream);
  m_stream = nullptr;
}

bool Directory::next() {
  if (!m_stream) return false;
  do {
    errno = 0;
    m_entry = readdir(m_stream);  // of a stream of its own: safe beside other threads
  } while (m_entry && (std::strcmp(m_entry->d_name, ".") == 0 || std::strcmp(m_entry->d_name, "..") == 0));
  if (!m_entry) m_error = errno;
  return m_entry != nullptr;
}

int Directory::status(struct stat& out, bool follow) const {
  errno = 0;
  const int flags = follow ? 0 : AT_SYMLINK_NOFOLLOW;
  return fstatat(dirfd(m_stream), name(), &out, flags) == 0 ? 0 : failureNumber(errno);
}

int Directory::ownStatus(struct stat& out) const {
  errno = 0;
  return fstat(dirfd(m_stream), &out) == 0 ? 0 : failureNumber(errno);
}

void Directory::leaveOpen() {
  if (!m_stream) return;
  // The duplicate keeps the directory open while the stream's memory goes back.
  [[maybe_unused]] const int kept = fcntl(dirfd(m_stream), F_DUPFD_CLOEXEC, 0);
  close();
}

int DirectoryLock::take(const std::string& path) {
  release();
  errno = 0;
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return failureNumber(errno);
  errno = 0;
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int rc = failureNumber(errno);
    close(fd);
    return rc;
  }
  m_fd = fd;
  m_owner = getpid();
  return 0;
}

void DirectoryLock::release() {
  if (m_fd < 0) return;
  if (getpid() == m_owner) flock(m_fd, LOCK_UN);
  close(m_fd);
  m_fd = -1;
}

}  // namespace ObjectStore
