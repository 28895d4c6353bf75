// Makes room for new blocks, and gives up those that the engine asks about.
//
// Any thread may call anything. giveUp() runs with the recency list's lock held: all that it takes besides are
// leaves, and it waits for nobody.
#pragma once

#include <atomic>

#include "client/blockSet.h"
#include "client/byteAccount.h"
#include "client/hotTable.h"
#include "client/metrics.h"
#include "client/volumeSet.h"
#include "diskcache/diskcache.h"

namespace ObjectStore {

class Room {
 public:
  Room(DiskCache& engine, VolumeSet& volumes, ByteAccount& account, HotTable& hot, Metrics& metrics,
       const ObjectCacheOptions& options)
      : m_engine(engine),
        m_volumes(volumes),
        m_account(account),
        m_hot(hot),
        m_metrics(metrics),
        m_isLru(options.mode == PruningMode::Lru),
        m_maxBytes(boundOf(options.maxBytes)) {}

  // Grants `bytes` and finds a volume that takes them; gives up the least recently used blocks until that is so.
  // False when it cannot be had. In mode Random it only asks.
  bool make(ByteAccount::Grant& grant, uint64_t bytes);
  // Gives blocks up until what is used is within the bound, if that can be had.
  void shrinkToBound();
  // Another bound, at once; 0 is none.
  void setBound(uint64_t bytes);
  // Gives up blocks until `bytes` more are free on the disks; for a disk that is fuller than it says.
  bool freeBytes(uint64_t bytes);

  // The pruning callback.
  bool giveUp(const std::string& path, const std::string& name);

  // Removes a block's file from a volume and subtracts what it took; the bytes, 0 when there was none.
  uint64_t remove(const guid_t& name, VolIndex volume, const char* dir);
  // The same for a file that was not counted yet.
  uint64_t discard(const guid_t& name, VolIndex volume, const char* dir);

  // Blocks that must stay although the list may know them: those being written, and those staged.
  BlockSet writing;
  BlockSet staged;

 private:
  bool giveUpOne();
  uint64_t boundOf(uint64_t bytes) const { return m_isLru && bytes != 0 ? bytes : ByteAccount::NO_BOUND; }

  DiskCache& m_engine;
  VolumeSet& m_volumes;
  ByteAccount& m_account;
  HotTable& m_hot;
  Metrics& m_metrics;
  const bool m_isLru;
  std::atomic<uint64_t> m_maxBytes;
};

}  // namespace ObjectStore
