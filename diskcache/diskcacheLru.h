// The segments known to the cache in order of last use, bounded in number.
//
// Internal. Any thread may call the operations; all take m_lruLock, which is held while a client's pruning
// callback decides on the oldest entry. Every operation is constant time, also the one at which the list
// grows or shrinks, and touching a known segment allocates nothing.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>

#include "diskcache/diskcacheContexts.h"
#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcacheSettings.h"
#include "diskcache/diskcacheSpace.h"
#include "diskcache/diskcacheTypes.h"
#include "diskcache/guidHash.h"
#include "diskcache/lockOrder.h"
#include "diskcache/recencyTable.h"
#include "support/atomicCounter.h"
#include "support/error.h"
#include "support/lock.h"

namespace ObjectStore {

struct LruInfo {
  guid_t guid;
  VolIndex vol;
  std::string dir;  // the context's directory
};

class DiskcacheLRU {
 public:
  DiskcacheLRU(const DiskCacheSettings& settings, DiskCacheSpace& space, DiskCacheContexts& contexts,
               DiskCacheMigrator& migrator)
      : m_settings(settings), m_space(space), m_contexts(contexts), m_migrator(migrator) {}
  ~DiskcacheLRU();
  DiskcacheLRU(const DiskcacheLRU&) = delete;
  DiskcacheLRU& operator=(const DiskcacheLRU&) = delete;

  // Sets the bound; 0.
  int init(unsigned long maxEntries);

  // Makes a segment the most recently used one; a known one keeps the volume and directory it came with. A
  // full list makes room first: in mode Lru by asking the client about the least recently used segment
  // (ENOSPC when it may not go), in mode Random by forgetting it. ENOMEM leaves the list as it was.
  CZuError addToLru(const guid_t& guid, VolIndex vol, const std::string& dir);
  // The same on behalf of an operation, whose message is put on top of a failure's.
  CZuError touchSegment(const guid_t& guid, VolIndex vol, const std::string& dir,
                        const RMCodeLocation& where);
  // Whether a segment is in the list, counted in lruHits and lruMisses.
  bool isInLru(const guid_t& guid, bool moveToFront);
  void removeFromLru(const guid_t& guid);
  void clearLru();
  // isInLru with moving to the front, but not counted.
  bool touch(const guid_t& guid);
  // The volume that a segment in the list came with; false, and `volume` as it was, when it is not there.
  bool findVolume(const guid_t& guid, VolIndex& volume);
  // Asks the client about the n least recently used segments, oldest first, as a full list does. A refusal
  // ends it with ENOSPC; an empty list ends it early.
  CZuError giveUpOldest(uint64_t n, uint64_t& given);

  uint64_t maxEntries() const { return m_maxLruEntries; }
  // How long the list is, but for removals while the counter below is beyond its bound.
  uint64_t entries() const { return std::min<uint64_t>(m_numEntries.value(), m_maxLruEntries); }

  // Writes sizes and identifiers, newest first, to standard output.
  void dumpLru();
  void getStatus(std::map<std::string, std::string>& out);

  // Adds, finds, removes and dumps a few entries of its own; false when the list did not behave.
  bool testLru();
  // Whether order and search hold the same entries, each once.
  bool CheckInvariants();
  // Of memory that is not the heap's.
  size_t mappedBytes();

 private:
  using Key = RecencyTable::Key;
  using Position = RecencyTable::Position;

  Key keyOf(const guid_t& guid) const { return {guid, m_hash(guid)}; }
  // addToLru; counted as a use of the list or not.
  CZuError enter(const guid_t& guid, VolIndex vol, const std::string& dir, bool isUse);
  CZuError insert(const Key& key, VolIndex vol, const std::string& dir) DC_REQUIRES(m_lruLock);
  CZuError pruneFromBack() DC_REQUIRES(m_lruLock);
  bool giveUpOldestOne(const RMCodeLocation& where) DC_REQUIRES(m_lruLock);
  bool askClient(const RMCodeLocation& where, const LruInfo& entry) DC_REQUIRES(m_lruLock);
  void erase(Position entry) DC_REQUIRES(m_lruLock);

  const DiskCacheSettings& m_settings;
  DiskCacheSpace& m_space;
  DiskCacheContexts& m_contexts;  // who decides on a directory
  DiskCacheMigrator& m_migrator;  // where it lies
  const GuidHash m_hash;
  RelaxedAtomic<uint64_t> m_maxLruEntries{0};
  // The list's length, but for mode Random: there it goes on rising by one for each insertion into a full
  // list. This is meant. Changed under m_lruLock, read for status without it.
  KxAtomicU64_t m_numEntries;

  KxCriticalSection m_lruLock DC_ACQUIRED_AFTER(lockOrder::lists) DC_ACQUIRED_BEFORE(lockOrder::segments);
  bool m_pruning DC_GUARDED_BY(m_lruLock) =
      false;  // a callback is running, on the thread that holds the lock
  RecencyTable m_table DC_GUARDED_BY(m_lruLock);
};

}  // namespace ObjectStore
