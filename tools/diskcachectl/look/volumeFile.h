// What a cache's own files say: which volumes it knows, and whether one is being moved.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "diskcache/diskcacheTypes.h"

namespace diskcachectl {

struct KnownVolume {
  ObjectStore::VolIndex index;
  std::string dir;
};

struct VolumeFile {
  bool isThere = false;               // a cache that keeps no indexes has none
  std::vector<KnownVolume> volumes;   // in order of index
  std::vector<std::string> problems;  // lines that the cache cannot use, with path and number
};

// Throws a Failure (bad input) when there is no such root directory or the file in it cannot be read.
VolumeFile readVolumeFile(const std::string& root);

struct Migration {
  ObjectStore::VolIndex index;  // 0 when the note makes no sense
  std::string source;
  std::string destination;
};

// The migration that is running, or that the next start of the cache would resume. Throws as above.
std::optional<Migration> readMigration(const std::string& root);

// A volume's file system as the cache accounts it, in bytes.
struct Room {
  uint64_t total;
  uint64_t free;
  uint64_t reserve;     // new segments leave it free
  uint64_t inodes;      // 0: the file system does not count them
  uint64_t freeInodes;  // to the cache's user
  uint64_t block;       // the least that a segment takes
  uint64_t used() const { return total - free; }
  uint64_t left() const { return free > reserve ? free - reserve : 0; }
  // What keeps a new segment out: "bytes", "reserve", "inodes"; empty when nothing does.
  std::vector<std::string> limits() const;
  bool hasRoom() const { return limits().empty(); }
};

// None, with errno, when the directory cannot be reached or is none.
std::optional<Room> measure(const std::string& dir);

// The same figures in every table: total, free, reserve and free inodes, and whether there is room
// ("no: inodes").
std::string roomHeading();
std::string roomColumns(const std::optional<Room>& room);
// "total", "free", "reserve", "inodes", "free_inodes", "has_room" and "limits".
nlohmann::ordered_json asJson(const std::optional<Room>& room);

}  // namespace diskcachectl
