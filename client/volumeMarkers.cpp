#include "client/volumeMarkers.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <random>
#include <sstream>
#include <thread>

#include "client/descriptor.h"
#include "client/failure.h"
#include "diskcache/diskcache.h"

namespace ObjectStore {

namespace {

namespace fs = std::filesystem;

constexpr const char* LOCK_FILE = "/client.lock";
constexpr const char* VOLUMES_FILE = "/client.volumes";
constexpr mode_t FILE_MODE = 0600;
constexpr size_t MAX_FILE = 1 << 20;

int lastError() { return errno != 0 ? errno : EIO; }

std::string newIdentity() {
  std::random_device random;
  std::string text;
  for (int i = 0; i < 32; ++i) text += "0123456789abcdef"[random() % 16];
  return text;
}

int makeDirectories(const std::string& dir) {
  std::error_code error;
  fs::create_directories(dir, error);
  return error.value();
}

int readSmallFile(const std::string& path, std::string& text) {
  errno = 0;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.fd < 0) return lastError();
  text.resize(MAX_FILE);
  errno = 0;
  const ssize_t got = read(file.fd, text.data(), text.size());
  const int rc = got < 0 ? lastError() : 0;
  text.resize(got < 0 ? 0 : static_cast<size_t>(got));
  return rc;
}

int syncDirectory(const std::string& dir) {
  errno = 0;
  const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return lastError();
  const int rc = fsync(fd) == 0 ? 0 : lastError();
  ::close(fd);
  return rc;
}

// Whole or not at all, and durable.
int writeSmallFile(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".new";
  errno = 0;
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, FILE_MODE);
  if (fd < 0) return lastError();
  const ssize_t put = write(fd, text.data(), text.size());
  int rc = put == static_cast<ssize_t>(text.size()) && fsync(fd) == 0 ? 0 : lastError();
  ::close(fd);
  if (rc == 0 && rename(temporary.c_str(), path.c_str()) != 0) rc = lastError();
  if (rc != 0) unlink(temporary.c_str());
  return rc != 0 ? rc : syncDirectory(fs::path(path).parent_path());
}

}  // namespace

int markMoved(const std::string& source, const std::string& destination) {
  errno = 0;
  const Descriptor dir(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.fd < 0 || syncfs(dir.fd) != 0) return lastError();
  const std::string marker = source + '/' + VOLUME_MARKER, moved = source + '/' + MOVED_MARKER;
  return rename(marker.c_str(), moved.c_str()) == 0 ? syncDirectory(source + '/' + BLOCKS_DIR) : lastError();
}

CZuError VolumeMarkers::open(const std::string& root) {
  m_root = root;
  m_moveFile = root + "/migrate";
  if (const int rc = makeDirectories(root); rc != 0) {
    return DC_CLIENT_FAIL(rc, "Can't create [%s] (%d)", root.c_str(), rc);
  }
  const std::string path = root + LOCK_FILE;
  errno = 0;
  m_lock = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, FILE_MODE);
  if (m_lock < 0) {
    const int rc = lastError();
    return DC_CLIENT_FAIL(rc, "can't open [%s] (%d)", path.c_str(), rc);
  }
  if (flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
    std::string owner;
    readSmallFile(path, owner);
    return DC_CLIENT_FAIL(EBUSY, "process %s has the cache [%s] open", owner.c_str(), root.c_str());
  }
  const std::string self = std::to_string(getpid());
  if (ftruncate(m_lock, 0) == 0) [[maybe_unused]]
    const ssize_t put = pwrite(m_lock, self.data(), self.size(), 0);
  if (std::error_code ignored; fs::exists(m_moveFile, ignored)) {
    return DC_CLIENT_FAIL(EBUSY, "a move of a volume of [%s] is not finished", root.c_str());
  }
  return load();
}

void VolumeMarkers::close() {
  if (m_lock >= 0) ::close(m_lock);
  m_lock = -1;
  m_id.clear();
  m_known.clear();
  m_claimed.clear();
}

CZuError VolumeMarkers::load() {
  const std::string path = m_root + VOLUMES_FILE;
  std::string text;
  const int rc = readSmallFile(path, text);
  if (rc == ENOENT) {
    m_id = newIdentity();
    return save();
  }
  if (rc != 0) return DC_CLIENT_FAIL(rc, "can't read [%s] (%d)", path.c_str(), rc);
  std::istringstream lines(text);
  std::string word, id, dir;
  lines >> word >> m_id;
  while (lines >> id && lines.get() == ' ' && std::getline(lines, dir)) m_known[id] = dir;
  if (word == "cache" && !m_id.empty()) return {};
  return DC_CLIENT_FAIL(EINVAL, "[%s] is damaged", path.c_str());
}

CZuError VolumeMarkers::save() {
  std::string text = "cache " + m_id + '\n';
  for (const auto& [id, dir] : m_known) text.append(id).append(" ").append(dir).append("\n");
  const std::string path = m_root + VOLUMES_FILE;
  const int rc = writeSmallFile(path, text);
  if (rc == 0) return {};
  return DC_CLIENT_FAIL(rc, "can't write [%s] (%d)", path.c_str(), rc);
}

CZuError VolumeMarkers::mark(const std::string& volume) {
  const std::string id = newIdentity(), path = volume + '/' + VOLUME_MARKER;
  int rc = makeDirectories(volume + '/' + BLOCKS_DIR);
  if (rc == 0) rc = writeSmallFile(path, m_id + ' ' + id + '\n');
  if (rc != 0) return DC_CLIENT_FAIL(rc, "can't write [%s] (%d)", path.c_str(), rc);
  std::erase_if(m_known, [&](const auto& known) { return known.second == volume; });
  m_known[id] = volume;
  m_claimed[id] = volume;
  return save();
}

CZuError VolumeMarkers::claim(const std::string& volume, bool replace, bool& isPresent) {
  const std::string path = volume + '/' + VOLUME_MARKER;
  std::string text;
  int rc = readSmallFile(path, text);
  isPresent = true;
  if (rc == ENOENT) {
    const int moved = readSmallFile(volume + '/' + MOVED_MARKER, text);
    if (isOfThisProcess(moved)) rc = moved;
    if (moved != ENOENT && rc == ENOENT) {
      return DC_CLIENT_FAIL(EBUSY, "volume [%s] was moved away: give the directory that it lies in now",
                            volume.c_str());
    }
  }
  if (rc == ENOENT) {
    const bool isKnown = std::any_of(m_known.begin(), m_known.end(),
                                     [&](const auto& known) { return known.second == volume; });
    if (!isKnown || replace) return mark(volume);
    isPresent = false;
    DC_LOG(LogLevel::Error, "Error: volume [%s] has no marker: is it mounted?", volume.c_str());
    return {};
  }
  if (isOfThisProcess(rc)) return DC_CLIENT_FAIL(rc, "can't read [%s] (%d)", path.c_str(), rc);
  if (rc != 0) {  // a disk that cannot be read is one that is not there
    isPresent = false;
    DC_LOG(LogLevel::Error, "Error: can't read [%s] (%d)", path.c_str(), rc);
    return {};
  }
  std::istringstream words(text);
  std::string cache, id;
  words >> cache >> id;
  if (cache != m_id || id.empty()) {
    return DC_CLIENT_FAIL(EBUSY, "volume [%s] belongs to another cache", volume.c_str());
  }
  if (const auto [entry, added] = m_claimed.try_emplace(id, volume); !added) {
    return DC_CLIENT_FAIL(EEXIST, "[%s] and [%s] are one volume", volume.c_str(), entry->second.c_str());
  }
  if (m_known[id] == volume) return {};
  m_known[id] = volume;
  return save();
}

void VolumeMarkers::forgetMove() const { unlink(m_moveFile.c_str()); }

void VolumeMarkers::awaitEndOfMove() const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (access(m_moveFile.c_str(), F_OK) == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  (void)syncDirectory(m_root);
}

void VolumeMarkers::follow(const std::string& from, const std::string& to) {
  for (auto& [id, dir] : m_claimed) {
    if (dir == from) dir = m_known[id] = to;
  }
  (void)save();  // it fails for want of room: the next start finds the marker
  if (const int rc = markMoved(from, to); rc != 0)
    DC_LOG(LogLevel::Error, "Error: can't mark [%s] as moved (%d): remove it", from.c_str(), rc);
}

}  // namespace ObjectStore
