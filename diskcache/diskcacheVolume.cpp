// The set of volumes, the file that persists it, and the choice of a volume for a new segment.
#include "diskcache/diskcacheVolume.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <limits>

#include "diskcache/diskcache.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr VolIndex MAX_VOL_INDEX = std::numeric_limits<VolIndex>::max();

unsigned long long llu(uint64_t value) { return value; }

// Truncates toward zero in single precision, as the reserve has always been rounded.
uint64_t reserveOf(uint64_t total) {
  const float reserve = static_cast<float>(total) * RESERVE_PERCENTAGE / 100.0F;
  return static_cast<uint64_t>(reserve);
}

}  // namespace

int getCurrVolumeSize(Volume& volume) {
  uint64_t freeBytes = 0;
  uint64_t totalBytes = 0;
  if (const int rc = getFreeBytes(&freeBytes, &totalBytes, volume.dir); rc != 0) {
    DC_LOG(LogLevel::Error, "Can't get free bytes %s (%d)", volume.dir.c_str(), rc);
    return rc;
  }
  volume.free = static_cast<int64_t>(freeBytes);
  volume.total = totalBytes;
  volume.reserved = reserveOf(totalBytes);
  return 0;
}

VolIndex getUnusedIndex(std::list<VolIndex>& used) {
  if (used.size() >= MAX_VOL_INDEX) return 0;
  if (used.empty() || used.back() < MAX_VOL_INDEX) {
    used.push_back(used.empty() ? VolIndex{1} : static_cast<VolIndex>(used.back() + 1));
    return used.back();
  }
  if (used.front() >= 2) {
    used.push_front(1);
    return 1;
  }
  const auto gap =
      std::adjacent_find(used.begin(), used.end(), [](VolIndex a, VolIndex b) { return b > a + 1; });
  if (gap == used.end()) return 0;
  const auto index = static_cast<VolIndex>(*gap + 1);
  used.insert(std::next(gap), index);
  return index;
}

bool isStorableLine(const std::string& dir) {
  using namespace std::string_view_literals;
  return dir.find_first_of("\n\0"sv) == std::string::npos;
}

bool isStorableVolume(const std::string& dir) {
  return isStorableLine(dir) && dir.find(',') == std::string::npos;
}

void strip(std::string& text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\n')) text.pop_back();
}

void printFreeSpaceList(const std::list<Volume*>& volumes) {
  std::cout << "free space list" << std::endl;
  for (const Volume* volume : volumes) {
    std::cout << volume->dir << " free=" << volume->free.value() << std::endl;
  }
}

int DiskCache::initVolumes(const std::vector<std::string>& dirs) try {
  const KxCriticalSectionLock lock(&m_volumeLock);
  const bool persistent = m_persistentVolumes == PersistentVolumes::Yes;
  if (persistent && !std::all_of(dirs.begin(), dirs.end(), isStorableVolume)) {
    DC_LOG(LogLevel::Error, "Error: volume name with ',' or a line feed can't be stored");
    return EINVAL;
  }
  if (persistent) {
    if (const int rc = loadVolumeInfo(); rc != 0) {
      DC_LOG(LogLevel::Error, "Can't initialize volumes (%d)", rc);
      return rc;
    }
  }
  std::list<VolIndex> used = getUsedVolIndex();
  for (const std::string& dir : dirs) {
    if (!enableVolume(dir, used)) return ENOSPC;
  }
  m_nextVolume = m_freeSpaceList.begin();
  if (persistent) {
    if (const int rc = saveVolumeInfo(); rc != 0) {
      DC_LOG(LogLevel::Error, "Can't save volume info (%d)", rc);
      return rc;
    }
  }
  for (const auto& [index, volume] : m_volumes) {
    DC_LOG(LogLevel::Info, "Loaded volume %s index=%d allow=%d free=%llu total=%lu res=%lu",
           volume.dir.c_str(), volume.index, volume.allow ? 1 : 0, llu(volume.free.value()), volume.total,
           volume.reserved);
  }
  return 0;
} catch (...) {
  return RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION));
}

// Neither the rotation nor the counters are cleared first, on purpose: a volume that is named again stands
// in the rotation twice and is counted twice, until removeAllVolumes and the next refresh.
bool DiskCache::enableVolume(const std::string& dir, std::list<VolIndex>& used) {
  Volume* volume = findDirInVolumes(dir);
  if (!volume) {
    const VolIndex index = getUnusedIndex(used);
    std::cout << "index=" << index << std::endl;
    if (index == 0) {
      DC_LOG(LogLevel::Error, "Can't find unused volume index");
      return false;
    }
    volume = &volumeRecord(index);
    volume->dir = dir;
  }
  volume->allow = true;
  // An empty name would put the directory where the process happens to run.
  if (!dir.empty()) createDir(join(dir, RECYCLE_DIR, '/'));
  if (const int rc = getCurrVolumeSize(*volume); rc != 0) {
    DC_LOG(LogLevel::Error, "Error %d getting volume size for %s, skipped", rc, dir.c_str());
    return true;
  }
  m_totalCacheUsed += static_cast<int64_t>(volume->total);
  m_totalCacheUsed -= volume->free;
  m_totalCache += static_cast<int64_t>(volume->total);
  appendToRotation(*volume);
  return true;
}

void DiskCache::appendToRotation(Volume& volume) {
  volume.listPos = m_freeSpaceList.insert(m_freeSpaceList.end(), &volume);
}

int DiskCache::addVolume(const std::string& dir) try {
  DC_LOG(LogLevel::Info, "Adding volume: %s", dir.c_str());
  const KxCriticalSectionLock lock(&m_volumeLock);
  std::vector<std::string> dirs;
  for (const auto& [index, volume] : m_volumes) {
    if (volume.allow && !volume.dir.empty()) dirs.push_back(volume.dir);
  }
  dirs.push_back(dir);
  return initVolumes(dirs);
} catch (...) {
  return RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION));
}

int DiskCache::removeVolume(const std::string& dir) try {
  DC_LOG(LogLevel::Info, "Removing volume: %s", dir.c_str());
  const KxCriticalSectionLock lock(&m_volumeLock);
  if (const int rc = disableNewSegments(dir); rc != 0) return rc;
  const Volume* const removed = findDirInVolumes(dir);
  // Every other volume is enabled again, also one that was disabled on its own: this is meant.
  std::vector<std::string> dirs;
  for (const auto& [index, volume] : m_volumes) {
    if (&volume != removed && !volume.dir.empty()) dirs.push_back(volume.dir);
  }
  return initVolumes(dirs);
} catch (...) {
  return RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION));
}

int DiskCache::removeAllVolumes() {
  DC_LOG(LogLevel::Info, "Removing all volumes");
  const KxCriticalSectionLock lock(&m_volumeLock);
  m_volumes.clear();
  m_freeSpaceList.clear();
  m_nextVolume = m_freeSpaceList.end();
  m_totalCacheUsed = 0;
  m_segmentsInCache = 0;
  return 0;
}

int DiskCache::disableNewSegments(const std::string& dir) {
  DC_LOG(LogLevel::Info, "disable new segments: %s", dir.c_str());
  const KxCriticalSectionLock lock(&m_volumeLock);
  Volume* const volume = findDirInVolumes(dir);
  if (!volume) {
    DC_LOG(LogLevel::Error, "Can't disable new segment %s", dir.c_str());
    return ENOENT;
  }
  volume->allow = false;
  if (volume->listPos) {
    m_freeSpaceList.erase(*volume->listPos);
    volume->listPos.reset();
  }
  m_nextVolume = m_freeSpaceList.begin();
  return 0;
}

int DiskCache::enableNewSegments(const std::string& dir) try {
  DC_LOG(LogLevel::Info, "enable new segments: %s", dir.c_str());
  const KxCriticalSectionLock lock(&m_volumeLock);
  Volume* const volume = findDirInVolumes(dir);
  if (!volume) {
    DC_LOG(LogLevel::Error, "Can't disable new segment %s",
           dir.c_str());  // "disable": clients know this text
    return ENOENT;
  }
  volume->allow = true;
  if (!volume->listPos) appendToRotation(*volume);
  return 0;
} catch (...) {
  return RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION));
}

void DiskCache::getVolumeStats(std::vector<Volume>& out) {
  const KxCriticalSectionLock lock(&m_volumeLock);
  for (const auto& [index, volume] : m_volumes) out.push_back(volume);
}

int DiskCache::loadVolumeInfo() {
  const std::string path = join(m_rootDir, VOLUME_INFO_FNAME, '/');
  std::string content;
  const int rc = readWholeFile(path, content);
  if (rc == ENOENT) {
    DC_LOG(LogLevel::Info, "Volume file not found - %s (%d)", path.c_str(), rc);
    return 0;
  }
  if (rc != 0) {
    DC_LOG(LogLevel::Error, "Can't open %s (%d)", path.c_str(), rc);
    return rc;
  }
  for (std::string_view rest = content; !rest.empty();) {
    std::string line(takeLine(rest));
    strip(line);
    const size_t comma = line.find(',');
    if (comma == std::string::npos) {
      DC_LOG(LogLevel::Info, "Bad volume file line: %s", line.c_str());
      continue;
    }
    // A number out of range is cut to its low 16 bits.
    const auto index = static_cast<VolIndex>(std::strtol(line.c_str() + comma + 1, nullptr, 10));
    // In place: the rotation may point at the record, which stays where it is.
    Volume& volume = m_volumes[index];
    volume = Volume();
    volume.dir = line.substr(0, comma);
    volume.index = index;
  }
  return 0;
}

int DiskCache::saveVolumeInfo() {
  const std::string path = join(m_rootDir, VOLUME_INFO_FNAME, '/');
  errno = 0;
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    const int rc = errno != 0 ? errno : EIO;
    DC_LOG(LogLevel::Error, "Can't open %s (%d)", path.c_str(), rc);
    return rc;
  }
  // One write a line, straight into the file; errors from here on go unnoticed, as they always have.
  for (const auto& [index, volume] : m_volumes) {
    const std::string line = volume.dir + ',' + std::to_string(volume.index) + '\n';
    [[maybe_unused]] const ssize_t written = write(fd, line.data(), line.size());
  }
  close(fd);
  return 0;
}

Volume* DiskCache::findDirInVolumes(const std::string& dir) {
  const auto found = std::find_if(m_volumes.begin(), m_volumes.end(),
                                  [&](const auto& entry) { return entry.second.dir == dir; });
  return found == m_volumes.end() ? nullptr : &found->second;
}

std::list<VolIndex> DiskCache::getUsedVolIndex() {
  std::list<VolIndex> used;
  for (const auto& [index, volume] : m_volumes) used.push_back(index);
  return used;
}

VolIndex DiskCache::getFirstVolume() { return m_volumes.empty() ? VolIndex{0} : m_volumes.begin()->first; }

VolIndex DiskCache::getNextVolWithSpace() {
  const KxCriticalSectionLock lock(&m_volumeLock);
  if (m_freeSpaceList.empty()) return 0;
  if (m_nextVolume == m_freeSpaceList.end()) m_nextVolume = m_freeSpaceList.begin();
  const auto start = m_nextVolume;
  do {
    Volume& volume = **m_nextVolume;
    uint64_t freeBytes = 0;
    if (const int rc = getFreeBytes(&freeBytes, nullptr, volume.dir); rc != 0) {
      // The cursor stays: this volume ends every search until it is disabled. This is meant.
      DC_LOG(LogLevel::NoSpace, "Can't get free space for %s (%d)", volume.dir.c_str(), rc);
      return 0;
    }
    volume.free = static_cast<int64_t>(freeBytes);
    if (++m_nextVolume == m_freeSpaceList.end()) m_nextVolume = m_freeSpaceList.begin();
    if (volume.reserved <= freeBytes) return volume.index;
  } while (m_nextVolume != start);
  return 0;
}

int DiskCache::refreshCacheUtilizationData() {
  const KxCriticalSectionLock lock(&m_volumeLock);
  uint64_t used = 0;
  uint64_t capacity = 0;
  for (auto& [index, volume] : m_volumes) {
    if (!volume.allow) {
      DC_LOG(LogLevel::Setup, "Skipped volume [%s] allow=%d", volume.dir.c_str(), 0);
      continue;
    }
    if (const int rc = getCurrVolumeSize(volume); rc != 0) {
      DC_LOG(LogLevel::Error, "Error %d getting updated volume size for %s, skipped", rc, volume.dir.c_str());
      continue;
    }
    DC_LOG(LogLevel::Info, "volume %s index=%d allow=%d free=%llu total=%lu res=%lu", volume.dir.c_str(),
           volume.index, 1, llu(volume.free.value()), volume.total, volume.reserved);
    used += volume.total - volume.free.value();
    capacity += volume.total;
  }
  DC_LOG(LogLevel::Info, "Old m_totalCacheUsed %llu m_totalCache %llu", llu(m_totalCacheUsed.value()),
         llu(m_totalCache.value()));
  DC_LOG(LogLevel::Info, "New m_totalCacheUsed %llu m_totalCache %llu", llu(used), llu(capacity));
  m_totalCacheUsed = static_cast<int64_t>(used);
  m_totalCache = static_cast<int64_t>(capacity);
  return 0;
}

}  // namespace ObjectStore
