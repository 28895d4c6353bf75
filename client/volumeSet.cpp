#include "client/volumeSet.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>

#include "client/failure.h"
#include "client/volumeMarkers.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr uint64_t FILES_OF_A_BLOCK = 4;  // itself and new directories
constexpr uint64_t ENGINE_RESERVE = 20;   // the engine leaves a twentieth of a file system alone

}  // namespace

// One at a time, each out of the rotation while the next one comes: adding one enables the others once more.
CZuError VolumeSet::add(const std::vector<std::string>& dirs) {
  const KxCriticalSectionLock lock(&m_lock);
  for (const std::string& dir : dirs) {
    CacheVolume volume{dir};
    struct stat marker {};
    int rc = stat((dir + '/' + VOLUME_MARKER).c_str(), &marker) == 0 ? 0 : errno;
    volume.device = marker.st_dev;
    volume.inode = marker.st_ino;
    if (rc == 0) rc = m_engine.addVolume(dir);
    if (rc == 0) rc = m_engine.disableNewSegments(dir);
    if (rc != 0) return DC_CLIENT_FAIL(rc, "can't add volume [%s] (%d)", dir.c_str(), rc);
    std::vector<Volume> known;
    m_engine.getVolumeStats(known);
    for (const Volume& record : known) {
      if (record.dir == dir) volume.index = record.index;
    }
    m_volumes.push_back(volume);
    m_indexes.push_back(volume.index);
    m_dirs.push_back(dir);
  }
  for (const std::string& dir : dirs) m_engine.enableNewSegments(dir);
  m_engine.refreshCacheUtilizationData();
  return {};
}

bool VolumeSet::hasRoom(uint64_t bytes) {
  const KxCriticalSectionLock lock(&m_lock);
  bool any = false, isShortOfFiles = false;
  for (CacheVolume& volume : m_volumes) {
    const bool isHere = isThere(volume);
    bool hasFiles = true;
    const bool takes = isHere && canTake(volume, bytes, hasFiles);
    isShortOfFiles = isShortOfFiles || !hasFiles;
    if (takes != volume.takesBlocks) {
      DC_LOG(LogLevel::Info, "volume [%s] takes blocks: %d", volume.dir.c_str(), takes ? 1 : 0);
      takes ? m_engine.enableNewSegments(volume.dir) : m_engine.disableNewSegments(volume.dir);
      volume.takesBlocks = takes;
    }
    if (!isHere) m_account.clear(volume.index);  // what it holds is not ours to make room in
    any = any || takes;
  }
  m_isShortOfFiles.store(isShortOfFiles, std::memory_order_relaxed);
  return any;
}

bool VolumeSet::isThere(const CacheVolume& volume) const {
  struct stat marker {};
  return stat((volume.dir + '/' + VOLUME_MARKER).c_str(), &marker) == 0 && marker.st_dev == volume.device &&
         marker.st_ino == volume.inode;
}

bool VolumeSet::canTake(const CacheVolume& volume, uint64_t bytes, bool& hasFiles) const {
  struct statvfs status {};
  if (statvfs(volume.dir.c_str(), &status) != 0) return false;
  const uint64_t total = uint64_t{status.f_blocks} * status.f_frsize;
  const uint64_t free = uint64_t{status.f_bavail} * status.f_frsize;
  hasFiles = status.f_files == 0 || status.f_favail >= m_options.reserveFiles + FILES_OF_A_BLOCK;
  return hasFiles && free >= std::max(m_options.reserve, total / ENGINE_RESERVE) + bytes;
}

const std::string& VolumeSet::dirOf(VolIndex volume) const {
  static const std::string none;
  const auto found = std::find(m_indexes.begin(), m_indexes.end(), volume);
  return found == m_indexes.end() ? none : m_dirs[static_cast<size_t>(found - m_indexes.begin())];
}

VolIndex VolumeSet::indexOfPath(const std::string& path) const {
  for (size_t i = 0; i < m_dirs.size(); ++i) {
    if (path.starts_with(m_dirs[i] + '/')) return m_indexes[i];
  }
  return 0;
}

}  // namespace ObjectStore
