// The segments known to the cache in order of last use, bounded in number.
//
// Internal. Any thread may call the operations; all take m_lruLock, which is held while a client's pruning
// callback decides on the oldest entry. Every operation is constant time, and touching a known segment
// allocates nothing.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

#include "diskcache/diskcacheTypes.h"
#include "support/atomicCounter.h"
#include "support/error.h"
#include "support/lock.h"

namespace ObjectStore {

class DiskCache;

struct LruInfo {
  guid_t guid;
  VolIndex vol;
  std::string_view dir;  // the context's directory; views the list's one copy of it
};

class DiskcacheLRU {
 public:
  explicit DiskcacheLRU(DiskCache& cache) : m_diskCache(cache) {}
  ~DiskcacheLRU();
  DiskcacheLRU(const DiskcacheLRU&) = delete;
  DiskcacheLRU& operator=(const DiskcacheLRU&) = delete;

  // Sets the bound; 0.
  int init(unsigned long maxEntries);

  // Makes a segment the most recently used one; a known one keeps the volume and directory it came with. A
  // full list makes room first: in mode Lru by asking the client about the least recently used segment
  // (ENOSPC when it may not go), in mode Random by forgetting it. ENOMEM leaves the list as it was.
  CZuError addToLru(const guid_t& guid, VolIndex vol, const std::string& dir);
  // Whether a segment is in the list, counted in the engine's lruHits and lruMisses.
  bool isInLru(const guid_t& guid, bool moveToFront);
  void removeFromLru(const guid_t& guid);
  // See DiskCache: the same without counting, and asking the client about the oldest entries.
  bool touch(const guid_t& guid);
  bool findVolume(const guid_t& guid, VolIndex& volume);
  CZuError giveUpOldest(uint64_t n, uint64_t& given);
  void clearLru();

  // Writes sizes and identifiers, newest first, to standard output.
  void dumpLru();
  void getStatus(std::map<std::string, std::string>& out);

  // Adds, finds, removes and dumps a few entries of its own; false when the list did not behave.
  bool testLru();
  // Whether list and map hold the same entries.
  bool CheckInvariants();

 private:
  friend class DiskCache;  // takes m_lruLock for the start-up scan
  friend struct DiskCacheTestAccess;

  using Position = std::list<LruInfo>::iterator;

  // An identifier with its hash, which is then worked out once for each operation, before the lock is taken.
  struct Key {
    explicit Key(std::string_view id) : guid(id), hash(std::hash<std::string_view>()(id)) {}
    bool operator==(const Key& other) const { return hash == other.hash && guid == other.guid; }
    std::string_view guid;
    size_t hash;
  };
  struct HashOfKey {
    size_t operator()(const Key& key) const noexcept { return key.hash; }
  };

  CZuError pruneFromBack() DC_REQUIRES(m_lruLock);
  bool giveUpBack(const RMCodeLocation& where) DC_REQUIRES(m_lruLock);
  bool askClient(const LruInfo& entry) DC_REQUIRES(m_lruLock);
  void insertFront(Key key, VolIndex vol, const std::string& dir) DC_REQUIRES(m_lruLock);
  void moveToFront(Position entry) DC_REQUIRES(m_lruLock);
  void erase(Position entry) DC_REQUIRES(m_lruLock);

  DiskCache& m_diskCache;
  RelaxedAtomic<uint64_t> m_maxLruEntries{0};
  // The list's length, but for mode Random: there it goes on rising by one for each insertion into a full
  // list. This is meant. Changed under m_lruLock, read for status without it.
  KxAtomicU64_t m_numEntries;

  KxCriticalSection m_lruLock;
  bool m_pruning DC_GUARDED_BY(m_lruLock) =
      false;  // a callback is running, on the thread that holds the lock
  std::list<LruInfo> m_lruList DC_GUARDED_BY(m_lruLock);
  // Keys view the identifiers in m_lruList: one copy an entry.
  std::unordered_map<Key, Position, HashOfKey> m_lruMap DC_GUARDED_BY(m_lruLock);
  // One copy of each directory that entries came with; there are as many as contexts.
  std::set<std::string, std::less<>> m_dirs DC_GUARDED_BY(m_lruLock);
};

}  // namespace ObjectStore
