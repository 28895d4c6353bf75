// Measuring and numbering volumes: what the engine's volume operations need beside its own members.
//
// Internal. Nothing here takes a lock; callers hold the engine's m_volumeLock where records are shared.
#pragma once

#include <list>
#include <string>

#include "diskcache/diskcacheTypes.h"

namespace ObjectStore {

inline constexpr const char* VOLUME_INFO_FNAME = "volume_info";
inline constexpr const char* RECYCLE_DIR = "recycle";
// Share of a volume's file system that stays free. Single precision on purpose: the reserve of a large
// volume is a rounded figure.
inline constexpr float RESERVE_PERCENTAGE = 5.0F;

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
