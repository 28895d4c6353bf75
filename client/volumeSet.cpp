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
    const KxCriticalSectionLock rootsLock(&m_rootsLock);
    m_roots.push_back({dir, volume.index});
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
    // Of one that is moved the engine still looks at the source, too.
    const bool takes = isHere && canTake(volume.dir, bytes, hasFiles) &&
                       (volume.destination.empty() || canTake(volume.destination, bytes, hasFiles));
    isShortOfFiles = isShortOfFiles || !hasFiles;
    if (takes != volume.takesBlocks) {
      DC_LOG(LogLevel::Info, "volume [%s] takes blocks: %d", volume.dir.c_str(), takes ? 1 : 0);
      const int rc = takes ? m_engine.enableNewSegments(volume.dir) : m_engine.disableNewSegments(volume.dir);
      if (rc == 0) volume.takesBlocks = takes;  // a move that has just ended comes first
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

bool VolumeSet::canTake(const std::string& dir, uint64_t bytes, bool& hasFiles) const {
  struct statvfs status {};
  if (statvfs(dir.c_str(), &status) != 0) return false;
  const uint64_t total = uint64_t{status.f_blocks} * status.f_frsize;
  const uint64_t free = uint64_t{status.f_bavail} * status.f_frsize;
  hasFiles = status.f_files == 0 || status.f_favail >= m_options.reserveFiles + FILES_OF_A_BLOCK;
  return hasFiles && free >= std::max(m_options.reserve, total / ENGINE_RESERVE) + bytes;
}

CacheVolume& VolumeSet::find(VolIndex volume) {
  return *std::find_if(m_volumes.begin(), m_volumes.end(),
                       [&](const CacheVolume& each) { return each.index == volume; });
}

void VolumeSet::beginMove(VolIndex volume, const std::string& destination) {
  const KxCriticalSectionLock lock(&m_lock);
  std::string copy = destination;
  const KxCriticalSectionLock rootsLock(&m_rootsLock);
  m_roots.push_back({destination, volume});
  find(volume).destination.swap(copy);
}

bool VolumeSet::isThere(VolIndex volume) {
  const KxCriticalSectionLock lock(&m_lock);
  return isThere(find(volume));
}

bool VolumeSet::endMove(VolIndex volume, bool isMoved) {
  const KxCriticalSectionLock lock(&m_lock);
  CacheVolume& moved = find(volume);
  const std::string path =
      isMoved ? moved.destination + '/' + VOLUME_MARKER : "";  // from here on nothing throws
  bool isMarked = true;
  if (isMoved) {
    moved.dir.swap(moved.destination);
    struct stat marker {};
    isMarked = stat(path.c_str(), &marker) == 0;
    moved.device = marker.st_dev;
    moved.inode = marker.st_ino;
    m_engine.refreshCacheUtilizationData();  // of another file system, maybe
  }
  const KxCriticalSectionLock rootsLock(&m_rootsLock);
  std::erase_if(m_roots, [&](const VolumeRoot& root) { return root.dir == moved.destination; });
  moved.destination.clear();
  return isMarked;
}

std::vector<VolumeRoot> VolumeSet::roots() const {
  const KxCriticalSectionLock lock(&m_rootsLock);
  return m_roots;
}

VolumeRoot VolumeSet::rootOf(const std::string& path) const {
  const KxCriticalSectionLock lock(&m_rootsLock);
  for (const VolumeRoot& root : m_roots) {
    if (path.starts_with(root.dir + '/')) return root;
  }
  return {};
}

}  // namespace ObjectStore
