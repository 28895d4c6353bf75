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
#include "diskcache/diskcacheState.h"
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

// The volumes at one moment. The rotation's entries and the records' places point at each other within the
// set, so that two swaps put it in the engine's place.
struct DiskCache::VolumeSet {
  std::map<VolIndex, Volume> volumes;
  std::list<Volume*> rotation;
  std::optional<std::list<Volume*>::iterator> next;
};

// What making volumes ready has come to: the numbers in use, and what to add to the space counters.
struct DiskCache::VolumeGain {
  std::list<VolIndex> indexes;
  int64_t used = 0;
  int64_t capacity = 0;
};

DiskCache::VolumeSet DiskCache::copyOfVolumes() {
  VolumeSet copy{m_volumes, {}, {}};
  for (auto entry = m_freeSpaceList.begin(); entry != m_freeSpaceList.end(); ++entry) {
    Volume& record = copy.volumes.at((*entry)->index);
    const auto place = copy.rotation.insert(copy.rotation.end(), &record);
    if ((*entry)->listPos == entry) record.listPos = place;
    if (m_nextVolume == entry) copy.next = place;
  }
  return copy;
}

void DiskCache::putBack(VolumeSet& before) noexcept {
  m_volumes.swap(before.volumes);
  m_freeSpaceList.swap(before.rotation);
  m_nextVolume = before.next.value_or(m_freeSpaceList.end());
}

int DiskCache::initVolumes(const std::vector<std::string>& dirs) try {
  const KxCriticalSectionLock lock(&m_volumeLock);
  VolumeSet before = copyOfVolumes();
  VolumeGain gain;
  int rc = 0;
  try {
    rc = setUpVolumes(dirs, gain, RM_CODE_LOCATION);
  } catch (...) {
    rc = RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION));
  }
  if (rc == ENOMEM) {
    putBack(before);
  } else {
    m_state->space.addUsed(gain.used);
    m_state->space.addCapacity(gain.capacity);
  }
  return rc;
} catch (...) {
  return RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION));
}

int DiskCache::setUpVolumes(const std::vector<std::string>& dirs, VolumeGain& gain,
                            const RMCodeLocation& where) {
  const bool persistent = m_state->settings.persistentVolumes == PersistentVolumes::Yes;
  if (persistent && !std::all_of(dirs.begin(), dirs.end(), isStorableVolume)) {
    DC_LOG_AT(where, LogLevel::Error, "Error: volume name with ',' or a line feed can't be stored");
    return EINVAL;
  }
  if (persistent) {
    if (const int rc = loadVolumeInfo(); rc != 0) {
      DC_LOG_AT(where, LogLevel::Error, "Can't initialize volumes (%d)", rc);
      return rc;
    }
  }
  gain.indexes = getUsedVolIndex();
  for (const std::string& dir : dirs) {
    if (!enableVolume(dir, gain, where)) return ENOSPC;
  }
  m_nextVolume = m_freeSpaceList.begin();
  if (persistent) {
    if (const int rc = saveVolumeInfo(); rc != 0) {
      DC_LOG_AT(where, LogLevel::Error, "Can't save volume info (%d)", rc);
      return rc;
    }
  }
  for (const auto& [index, volume] : m_volumes) {
    DC_LOG_AT(where, LogLevel::Info, "Loaded volume %s index=%d allow=%d free=%llu total=%lu res=%lu",
              volume.dir.c_str(), volume.index, volume.allow ? 1 : 0, llu(volume.free.value()), volume.total,
              volume.reserved);
  }
  return 0;
}

// Neither the rotation nor the counters are cleared first, on purpose: a volume that is named again stands
// in the rotation twice and is counted twice, until removeAllVolumes and the next refresh.
bool DiskCache::enableVolume(const std::string& dir, VolumeGain& gain, const RMCodeLocation& where) {
  int rc = ENOENT;  // of an empty name, which is never given a number
  if (!dir.empty()) {
    Volume* volume = findDirInVolumes(dir);
    if (!volume) {
      const VolIndex index = getUnusedIndex(gain.indexes);
      std::cout << "index=" << index << std::endl;
      if (index == 0) {
        DC_LOG_AT(where, LogLevel::Error, "Can't find unused volume index");
        return false;
      }
      volume = &volumeRecord(index);
      volume->dir = dir;
    }
    volume->allow = true;
    createDir(join(dir, RECYCLE_DIR, '/'));
    rc = getCurrVolumeSize(*volume);
    if (rc == 0) {
      appendToRotation(*volume);
      gain.used += static_cast<int64_t>(volume->total - volume->free.value());
      gain.capacity += static_cast<int64_t>(volume->total);
      return true;
    }
  }
  DC_LOG_AT(where, LogLevel::Error, "Error %d getting volume size for %s, skipped", rc, dir.c_str());
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
  const Volume* const removed = findDirInVolumes(dir);
  // Every other volume is enabled again, also one that was disabled on its own: this is meant.
  std::vector<std::string> dirs;
  for (const auto& [index, volume] : m_volumes) {
    if (&volume != removed && !volume.dir.empty()) dirs.push_back(volume.dir);
  }
  VolumeSet before = copyOfVolumes();
  int rc = disableNewSegments(dir);
  if (rc == 0) rc = initVolumes(dirs);
  if (rc == ENOMEM) putBack(before);
  return rc;
} catch (...) {
  return RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION));
}

int DiskCache::removeAllVolumes() {
  DC_LOG(LogLevel::Info, "Removing all volumes");
  const KxCriticalSectionLock lock(&m_volumeLock);
  m_volumes.clear();
  m_freeSpaceList.clear();
  m_nextVolume = m_freeSpaceList.end();
  m_state->space.setUsed(0);
  m_state->space.forgetSegments();
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
  if (!volume->listPos) appendToRotation(*volume);
  volume->allow = true;
  return 0;
} catch (...) {
  return RMErrorUtil::GetErrNo(failWithException(RM_CODE_LOCATION));
}

void DiskCache::getVolumeStats(std::vector<Volume>& out) {
  const KxCriticalSectionLock lock(&m_volumeLock);
  for (const auto& [index, volume] : m_volumes) out.push_back(volume);
}

int DiskCache::loadVolumeInfo() {
  const std::string path = join(m_state->settings.rootDir, VOLUME_INFO_FNAME, '/');
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
  const std::string path = join(m_state->settings.rootDir, VOLUME_INFO_FNAME, '/');
  std::string text;
  for (const auto& [index, volume] : m_volumes) {
    if (!volume.dir.empty()) text += volume.dir + ',' + std::to_string(volume.index) + '\n';
  }
  std::string written;
  int rc = readWholeFile(path, written);
  if (rc == 0 && written == text) return 0;
  // Whatever else keeps the file from being read is no matter if it can be written. A FIFO that takes its
  // place now must not be waited for.
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC;
  errno = 0;
  const int fd = rc == EINVAL ? -1 : open(path.c_str(), flags, 0600);
  if (fd < 0) {
    if (rc != EINVAL) rc = errno != 0 ? errno : EIO;
    DC_LOG(LogLevel::Error, "Can't open %s (%d)", path.c_str(), rc);
    return rc;
  }
  // Errors from here on go unnoticed, as they always have.
  [[maybe_unused]] const ssize_t moved = write(fd, text.data(), text.size());
  close(fd);
  return 0;
}

Volume* DiskCache::findDirInVolumes(const std::string& dir) {
  if (dir.empty()) return nullptr;  // no volume, but a record that a look-up has left
  const auto found = std::find_if(m_volumes.begin(), m_volumes.end(),
                                  [&](const auto& entry) { return entry.second.dir == dir; });
  return found == m_volumes.end() ? nullptr : &found->second;
}

std::list<VolIndex> DiskCache::getUsedVolIndex() {
  std::list<VolIndex> used;
  for (const auto& [index, volume] : m_volumes) {
    if (!volume.dir.empty()) used.push_back(index);
  }
  return used;
}

VolIndex DiskCache::getFirstVolume() {
  const std::list<VolIndex> used = getUsedVolIndex();
  return used.empty() ? VolIndex{0} : used.front();
}

std::optional<VolIndex> DiskCache::onlyVolume() {
  const KxCriticalSectionLock lock(&m_volumeLock);
  const std::list<VolIndex> used = getUsedVolIndex();
  return used.size() == 1 ? std::optional(used.front()) : std::nullopt;
}

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
  DC_LOG(LogLevel::Info, "Old m_totalCacheUsed %llu m_totalCache %llu", llu(m_state->space.used()),
         llu(m_state->space.capacity()));
  DC_LOG(LogLevel::Info, "New m_totalCacheUsed %llu m_totalCache %llu", llu(used), llu(capacity));
  m_state->space.setUsed(used);
  m_state->space.setCapacity(capacity);
  return 0;
}

}  // namespace ObjectStore
