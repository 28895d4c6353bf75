#include "support/directory.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

namespace ObjectStore {

Directory::Directory(const std::string& path) {
  errno = 0;
  m_stream = opendir(path.c_str());
  m_error = m_stream ? 0 : errno;
  if (!m_stream && m_error == 0) m_error = EIO;
}

Directory::~Directory() {
  if (m_stream) closedir(m_stream);
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

int Directory::status(struct stat& out) const {
  errno = 0;
  if (fstatat(dirfd(m_stream), name(), &out, AT_SYMLINK_NOFOLLOW) == 0) return 0;
  return errno != 0 ? errno : EIO;
}

void Directory::leaveOpen() {
  if (!m_stream) return;
  // The duplicate keeps the directory open while the stream's memory goes back.
  [[maybe_unused]] const int kept = fcntl(dirfd(m_stream), F_DUPFD_CLOEXEC, 0);
  closedir(m_stream);
  m_stream = nullptr;
}

}  // namespace ObjectStore
