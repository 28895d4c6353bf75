// The cache's operations by hand: exactly their system calls on the same paths, and nothing else.
#pragma once

#include "store.h"

namespace bench {

// Where a segment lies, made before any timing, so that building paths costs the floor nothing.
struct Place {
  std::string probe;  // its directory, as createSegment asks for it
  std::string path;
};

inline constexpr const char* CONTEXT_DIR = "bench";
inline std::string volumeOf(const std::string& dir) { return dir + "/volume"; }

Place placeOf(const std::string& volume, const std::string& guid);

namespace floor {

// Makes the directories that a first createSegment would.
void makeDirectory(const Place& place);
void create(const std::string& volume, const Place& place, Bytes payload, bool isSynced);
bool read(const Place& place, uint64_t offset, Buffer out);
void overwrite(const Place& place, Bytes payload);
void remove(const Place& place);

}  // namespace floor

// On the volume that makeCache's stores use.
std::unique_ptr<Store> makeFloor(const std::string& dir, const Guids& guids);

}  // namespace bench
