// The set of volumes, the file that persists it, and the choice of a volume for a new segment.
//
// Internal. Any thread may call the operations of DiskCacheVolumes, which names those of DiskCache alike. Its
// lock guards the records; it is held while volumes are measured, emptied and written to the file, and none
// is taken within it.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "diskcache/diskcacheSettings.h"
#include "diskcache/diskcacheSpace.h"
#include "diskcache/diskcacheTypes.h"
#include "diskcache/lockOrder.h"
#include "support/error.h"
#include "support/lock.h"
#include "support/threadAnnotations.h"

namespace ObjectStore {

inline constexpr const char* VOLUME_INFO_FNAME = "volume_info";
inline constexpr const char* RECYCLE_DIR = "recycle";
// Share of a volume's file system that stays free. Single precision on purpose: the reserve of a large volume
// is a rounded figure.
inline constexpr float RESERVE_PERCENTAGE = 5.0F;

class DiskCacheVolumes {
 public:
  DiskCacheVolumes(const DiskCacheSettings& settings, DiskCacheSpace& space)
      : m_settings(settings), m_space(space) {}
  DiskCacheVolumes(const DiskCacheVolumes&) = delete;
  DiskCacheVolumes& operator=(const DiskCacheVolumes&) = delete;

  // Makes these volumes ready beside those of the file, where volumes are persistent. 0 or a system error
  // number; ENOMEM leaves all as it was.
  int initVolumes(const std::vector<std::string>& dirs);
  int addVolume(const std::string& dir);
  int removeVolume(const std::string& dir);
  int removeAllVolumes();
  int disableNewSegments(const std::string& dir);
  int enableNewSegments(const std::string& dir);
  void getVolumeStats(std::vector<Volume>& out);
  int refreshCacheUtilizationData();
  // Empties every volume and measures it.
  CZuError clearCache();

  // The next volume in turn with room; 0 when there is none.
  VolIndex getNextVolWithSpace();
  // The one volume that there is, unless there are more.
  std::optional<VolIndex> onlyVolume();
  // When last measured; 0 of a volume that is not known.
  uint64_t freeBytesOf(VolIndex volume);
  // A volume's directory, with room for so many bytes more; "" of one that is not known.
  std::string volumeRoot(VolIndex volume, size_t room);
  // Every record's index and directory, also those without one.
  std::vector<std::pair<VolIndex, std::string>> directories();
  std::optional<std::string> findDirectory(VolIndex volume);
  // Points a volume at another directory and writes that to the file, also when volumes are not persistent
  // and whatever comes of it: meant. `where` is the operation that a failure's line speaks for.
  void moveVolume(VolIndex volume, std::string dir, const RMCodeLocation& where);

 private:
  friend struct DiskCacheTestAccess;
  struct VolumeSet;
  struct VolumeGain;

  int setUpVolumes(const std::vector<std::string>& dirs, VolumeGain& gain, const RMCodeLocation& where)
      DC_REQUIRES(m_volumeLock);
  bool enableVolume(const std::string& dir, VolumeGain& gain, const RMCodeLocation& where)
      DC_REQUIRES(m_volumeLock);
  VolumeSet copyOfVolumes() DC_REQUIRES(m_volumeLock);
  void putBack(VolumeSet& before) noexcept DC_REQUIRES(m_volumeLock);
  Volume& volumeRecord(VolIndex volume) DC_REQUIRES(m_volumeLock);
  Volume* findDirInVolumes(const std::string& dir) DC_REQUIRES(m_volumeLock);
  std::list<VolIndex> getUsedVolIndex() DC_REQUIRES(m_volumeLock);
  void appendToRotation(Volume& volume) DC_REQUIRES(m_volumeLock);
  // diskcacheVolumeInfo.cpp
  int loadVolumeInfo() DC_REQUIRES(m_volumeLock);
  int saveVolumeInfo() DC_REQUIRES(m_volumeLock);

  const DiskCacheSettings& m_settings;
  DiskCacheSpace& m_space;

  KxCriticalSection m_volumeLock DC_ACQUIRED_AFTER(lockOrder::volumes) DC_ACQUIRED_BEFORE(lockOrder::leaves);
  std::map<VolIndex, Volume> m_volumes DC_GUARDED_BY(m_volumeLock);
  // The volumes that take new segments, in turn; entries point into m_volumes.
  std::list<Volume*> m_freeSpaceList DC_GUARDED_BY(m_volumeLock);
  // Where the next search begins; end() while the list is empty and before the first search.
  std::list<Volume*>::iterator m_nextVolume DC_GUARDED_BY(m_volumeLock) = m_freeSpaceList.end();
};

// Measures a volume's file system; 0, or the system error number with the record unchanged.
int getCurrVolumeSize(Volume& volume);

// An index for a new directory, inserted into the ascending list `used`: one more than the largest, or the
// lowest gap once 65535 is taken; 0 when every index is.
VolIndex getUnusedIndex(std::list<VolIndex>& used);

// Whether the file "volume_info" could give a directory back; whether any file of lines could.
bool isStorableVolume(const std::string& dir);
bool isStorableLine(const std::string& dir);

// Removes blanks and line feeds at the end.
void strip(std::string& text);

// Writes the rotation with each volume's free bytes to standard output.
void printFreeSpaceList(const std::list<Volume*>& volumes);

}  // namespace ObjectStore
