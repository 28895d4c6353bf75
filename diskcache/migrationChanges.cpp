#include "diskcache/migrationChanges.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <string_view>

#include "support/file.h"

namespace ObjectStore {

namespace {

int lastError() { return errno != 0 ? errno : EIO; }

}  // namespace

MigrationChanges::~MigrationChanges() {
  const KxCriticalSectionLock lock(&m_lock);
  closeFile();
}

void MigrationChanges::begin(const std::string& path) {
  const KxCriticalSectionLock lock(&m_lock);
  reset(path);
  unlink(path.c_str());
}

int MigrationChanges::resume(const std::string& path) {
  const KxCriticalSectionLock lock(&m_lock);
  reset(path);
  std::string content;
  if (const int rc = readWholeFile(path, content, std::numeric_limits<off_t>::max()); rc != 0) {
    return rc == ENOENT ? 0 : rc;
  }
  m_hasFile = true;
  std::string_view rest = content;
  for (size_t end = rest.find('\0'); end != std::string_view::npos; end = rest.find('\0')) {
    m_names.emplace(rest.substr(0, end));
    rest.remove_prefix(end + 1);
  }
  // What a kill cut short is no name: its change was never begun, and the next name must not continue it.
  errno = 0;
  m_end = static_cast<off_t>(content.size() - rest.size());
  return rest.empty() || truncate(path.c_str(), m_end) == 0 ? 0 : lastError();
}

int MigrationChanges::add(const std::string& name) {
  const KxCriticalSectionLock lock(&m_lock);
  if (m_path.empty()) return 0;  // ended
  return m_names.insert(name).second ? append(name) : 0;
}

int MigrationChanges::append(const std::string& name) {
  errno = 0;
  if (m_fd < 0) {
    m_fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (m_fd < 0) return lastError();
    m_hasFile = true;
  }
  const auto length = static_cast<ssize_t>(name.size() + 1);  // with the NUL that every string ends with
  const ssize_t written = write(m_fd, name.c_str(), static_cast<size_t>(length));
  if (written == length) {
    m_end += length;
    return 0;
  }
  const int rc = written < 0 ? lastError() : ENOSPC;  // a write is cut short where there is no more room
  [[maybe_unused]] const int cut = ftruncate(m_fd, m_end);  // the next name must not continue half a name
  return rc;
}

std::vector<std::string> MigrationChanges::names() {
  const KxCriticalSectionLock lock(&m_lock);
  return {m_names.begin(), m_names.end()};
}

void MigrationChanges::end() {
  const KxCriticalSectionLock lock(&m_lock);
  if (m_hasFile) unlink(m_path.c_str());
  reset("");
}

void MigrationChanges::reset(const std::string& path) {
  closeFile();
  m_path = path;
  m_end = 0;
  m_hasFile = false;
  m_names.clear();
}

void MigrationChanges::closeFile() {
  if (m_fd >= 0) ::close(m_fd);
  m_fd = -1;
}

}  // namespace ObjectStore
