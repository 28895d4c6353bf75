#include "diskcache/diskcacheVolume.h"

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <iterator>
#include <limits>

#include "diskcache/engineSteps.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr VolIndex MAX_VOL_INDEX = std::numeric_limits<VolIndex>::max();

unsigned long long llu(uint64_t value) { return value; }

}  // namespace

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

void printFreeSpaceList(const std::list<Volume*>& volumes) {
  std::cout << "free space list" << std::endl;
  for (const Volume* volume : volumes) {
    std::cout << volume->dir << " free=" << volume->free.value() << std::endl;
  }
}

// The volumes at one moment. The rotation's entries and the records' places point at each other within the
// set, so that two swaps put it in the engine's place.
struct DiskCacheVolumes::VolumeSet {
  std::map<VolIndex, Volume> volumes;
  std::list<Volume*> rotation;
  std::optional<std::list<Volume*>::iterator> next;
};

// What making volumes ready has come to: the numbers in use, and what to add to the space counters.
struct DiskCacheVolumes::VolumeGain {
  std::list<VolIndex> indexes;
  int64_t used = 0;
  int64_t capacity = 0;
};

DiskCacheVolumes::VolumeSet DiskCacheVolumes::copyOfVolumes() {
  VolumeSet copy{m_volumes, {}, {}};
  for (auto entry = m_freeSpaceList.begin(); entry != m_freeSpaceList.end(); ++entry) {
    Volume& record = copy.volumes.at((*entry)->index);
    const auto place = copy.rotation.insert(copy.rotation.end(), &record);
    if ((*entry)->listPos == entry) record.listPos = place;
    if (m_nextVolume == entry) copy.next = place;
  }
  return copy;
}

void DiskCacheVolumes::putBack(VolumeSet& before) noexcept {
  m_volumes.swap(before.volumes);
  m_freeSpaceList.swap(before.rotation);
  m_nextVolume = before.next.value_or(m_freeSpaceList.end());
}

int DiskCacheVolumes::initVolumes(const std::vector<std::string>& dirs) try {
  const KxCriticalSectionLock lock(&m_volumeLock);
  VolumeSet before = copyOfVolumes();
  VolumeGain gain;
  int rc = 0;
  try {
    rc = setUpVolumes(dirs, gain, DC_STEP(initVolumes));
  } catch (...) {
    rc = numberOfException(DC_STEP(initVolumes));
  }
  if (rc == ENOMEM) {
    putBack(before);
  } else {
    m_space.addUsed(gain.used);
    m_space.addCapacity(gain.capacity);
  }
  return rc;
} catch (...) {
  return numberOfException(DC_STEP(initVolumes));
}

int DiskCacheVolumes::setUpVolumes(const std::vector<std::string>& dirs, VolumeGain& gain,
                                   const RMCodeLocation& where) {
  const bool persistent = m_settings.persistentVolumes == PersistentVolumes::Yes;
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
bool DiskCacheVolumes::enableVolume(const std::string& dir, VolumeGain& gain, const RMCodeLocation& where) {
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

void DiskCacheVolumes::appendToRotation(Volume& volume) {
  volume.listPos = m_freeSpaceList.insert(m_freeSpaceList.end(), &volume);
}

int DiskCacheVolumes::addVolume(const std::string& dir) try {
  DC_LOG_AT(DC_STEP(addVolume), LogLevel::Info, "Adding volume: %s", dir.c_str());
  const KxCriticalSectionLock lock(&m_volumeLock);
  std::vector<std::string> dirs;
  for (const auto& [index, volume] : m_volumes) {
    if (volume.allow && !volume.dir.empty()) dirs.push_back(volume.dir);
  }
  dirs.push_back(dir);
  return initVolumes(dirs);
} catch (...) {
  return numberOfException(DC_STEP(addVolume));
}

int DiskCacheVolumes::removeVolume(const std::string& dir) try {
  DC_LOG_AT(DC_STEP(removeVolume), LogLevel::Info, "Removing volume: %s", dir.c_str());
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
  return numberOfException(DC_STEP(removeVolume));
}

int DiskCacheVolumes::removeAllVolumes() {
  DC_LOG_AT(DC_STEP(removeAllVolumes), LogLevel::Info, "Removing all volumes");
  const KxCriticalSectionLock lock(&m_volumeLock);
  m_volumes.clear();
  m_freeSpaceList.clear();
  m_nextVolume = m_freeSpaceList.end();
  m_space.setUsed(0);
  m_space.forgetSegments();
  return 0;
}

int DiskCacheVolumes::disableNewSegments(const std::string& dir) {
  DC_LOG_AT(DC_STEP(disableNewSegments), LogLevel::Info, "disable new segments: %s", dir.c_str());
  const KxCriticalSectionLock lock(&m_volumeLock);
  Volume* const volume = findDirInVolumes(dir);
  if (!volume) {
    DC_LOG_AT(DC_STEP(disableNewSegments), LogLevel::Error, "Can't disable new segment %s", dir.c_str());
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

int DiskCacheVolumes::enableNewSegments(const std::string& dir) try {
  DC_LOG_AT(DC_STEP(enableNewSegments), LogLevel::Info, "enable new segments: %s", dir.c_str());
  const KxCriticalSectionLock lock(&m_volumeLock);
  Volume* const volume = findDirInVolumes(dir);
  if (!volume) {
    DC_LOG_AT(DC_STEP(enableNewSegments), LogLevel::Error, "Can't disable new segment %s",
              dir.c_str());  // "disable": clients know this text
    return ENOENT;
  }
  if (!volume->listPos) appendToRotation(*volume);
  volume->allow = true;
  return 0;
} catch (...) {
  return numberOfException(DC_STEP(enableNewSegments));
}

void DiskCacheVolumes::getVolumeStats(std::vector<Volume>& out) {
  const KxCriticalSectionLock lock(&m_volumeLock);
  for (const auto& [index, volume] : m_volumes) out.push_back(volume);
}

Volume* DiskCacheVolumes::findDirInVolumes(const std::string& dir) {
  if (dir.empty()) return nullptr;  // no volume, but a record that a look-up has left
  const auto found = std::find_if(m_volumes.begin(), m_volumes.end(),
                                  [&](const auto& entry) { return entry.second.dir == dir; });
  return found == m_volumes.end() ? nullptr : &found->second;
}

std::list<VolIndex> DiskCacheVolumes::getUsedVolIndex() {
  std::list<VolIndex> used;
  for (const auto& [index, volume] : m_volumes) {
    if (!volume.dir.empty()) used.push_back(index);
  }
  return used;
}

std::optional<VolIndex> DiskCacheVolumes::onlyVolume() {
  const KxCriticalSectionLock lock(&m_volumeLock);
  const std::list<VolIndex> used = getUsedVolIndex();
  return used.size() == 1 ? std::optional(used.front()) : std::nullopt;
}

std::string DiskCacheVolumes::volumeRoot(VolIndex volume, size_t room) {
  std::string root;
  const KxCriticalSectionLock lock(&m_volumeLock);
  const auto found = m_volumes.find(volume);
  if (found == m_volumes.end()) return root;  // looking makes no volume
  const std::string& dir = found->second.dir;
  root.reserve(dir.size() + room);
  root = dir;
  return root;
}

Volume& DiskCacheVolumes::volumeRecord(VolIndex volume) {
  const auto [entry, added] = m_volumes.try_emplace(volume);
  if (added) entry->second.index = volume;
  return entry->second;
}

std::vector<std::pair<VolIndex, std::string>> DiskCacheVolumes::directories() {
  std::vector<std::pair<VolIndex, std::string>> out;
  const KxCriticalSectionLock lock(&m_volumeLock);
  for (const auto& [index, volume] : m_volumes) out.emplace_back(index, volume.dir);
  return out;
}

std::optional<std::string> DiskCacheVolumes::findDirectory(VolIndex volume) {
  const KxCriticalSectionLock lock(&m_volumeLock);
  const auto found = m_volumes.find(volume);
  return found == m_volumes.end() ? std::nullopt : std::optional(found->second.dir);
}

void DiskCacheVolumes::moveVolume(VolIndex volume, std::string dir, const RMCodeLocation& where) {
  const KxCriticalSectionLock lock(&m_volumeLock);
  volumeRecord(volume).dir.swap(dir);
  guarded(where, [this]() DC_NO_THREAD_SAFETY_ANALYSIS { return saveVolumeInfo(); });
}

}  // namespace ObjectStore
