// A read-through client's side of the cache: asks for segments, makes missing ones, gives up old ones.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "diskcache/diskcache.h"
#include "look/segmentMap.h"
#include "look/volumeMove.h"

namespace diskcachectl {

struct CacheSettings {
  std::string root;
  std::vector<std::string> volumes;
  ObjectStore::PruningMode mode = ObjectStore::PruningMode::Lru;
  uint64_t maxEntries = 0;
  std::optional<uint64_t> budget;  // bytes that may be used beyond those used at the start
};

// Owns the engine. Each object is one section, of type 0, of its own segment. Any thread may read and write.
//
// With one thread in mode lru the cache holds exactly the objects that were asked for last: only a hit and a
// new segment move to the front of the recency list, and a question that misses leaves no entry. With several
// threads an object that another thread is writing or giving up counts as missing and is left alone.
class CacheClient {
 public:
  // Throws a Failure when the cache cannot be brought up.
  explicit CacheClient(const CacheSettings& settings);

  enum class Found {
    Hit,
    Nothing,
    OtherSize,  // an object of this name that has been replaced since
    Damage,     // its file is not what the cache wrote
    InWork,     // another thread works on it, or the recency list would not take it
  };
  struct Answer {
    Found found;
    SegmentMap::Known known;  // what the client knew when it asked
  };
  // Fills the front of `buffer` with the `size` bytes of an object. Throws a Failure on any other error.
  Answer read(const std::string& id, uint32_t size, std::vector<unsigned char>& buffer);

  enum class Stored {
    Yes,
    NoRoom,
    InWork,  // another thread was faster
  };
  // Makes the segment of an object that read() answered to not have, in place of an older one. Throws a
  // Failure on any error but a lack of space.
  Stored write(const std::string& id, const SegmentMap::Known& known, std::vector<unsigned char>& bytes);

  // Moves the first volume to another directory while the work goes on. Both throw a Failure with what the
  // cache says; finishMove() waits for the end.
  void startMove(const std::string& destination);
  void finishMove();

  // How many segments the cache made this client give up.
  uint64_t pruned() const { return m_pruned; }
  std::map<std::string, std::string> status();
  std::map<std::string, std::string> counters();
  // Where the segment's file lies; for messages.
  std::string pathOf(const std::string& id);

 private:
  void registerContexts(bool isLru);
  void setWatermarks(uint64_t budget);
  SegmentMap::Known locate(const std::string& id);
  bool giveUp(const std::string& id);
  Stored create(const std::string& id, std::vector<unsigned char>& bytes, ObjectStore::VolIndex& volume);
  ObjectStore::CZuError remove(const std::string& id, ObjectStore::VolIndex volume);
  ObjectStore::DiskCacheContext contextOn(ObjectStore::VolIndex volume) const;

  std::vector<std::string> m_volumeDirs;
  std::vector<ObjectStore::VolIndex> m_volumes;
  bool m_isInherited = false;  // the volumes held segments at the start
  SegmentMap m_segments;
  std::atomic<uint64_t> m_pruned{0};
  ObjectStore::DiskCache m_cache;  // after all that its threads' callbacks use
  std::optional<PaddedMove> m_move;
};

}  // namespace diskcachectl
