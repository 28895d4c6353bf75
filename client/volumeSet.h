// The volumes in use, and which of them take new blocks at this moment.
//
// Any thread may call anything but add(). The lock is held over the engine's volume operations, so it is never
// taken by a pruning callback.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>
#include <vector>

#include "client/byteAccount.h"
#include "client/objectCache.h"
#include "diskcache/diskcache.h"
#include "support/lock.h"

namespace ObjectStore {

struct CacheVolume {
  std::string dir;
  VolIndex index = 0;
  dev_t device = 0;  // of its marker: an unmounted volume has none, or another
  ino_t inode = 0;
  bool takesBlocks = true;
};

class VolumeSet {
 public:
  VolumeSet(DiskCache& engine, ByteAccount& account, const ObjectCacheOptions& options)
      : m_engine(engine), m_account(account), m_options(options) {}

  // Hands the volumes to the engine; alone, once.
  CZuError add(const std::vector<std::string>& dirs);

  // Measures the volumes, tells the engine which ones take blocks, and returns whether one takes `bytes` more.
  bool hasRoom(uint64_t bytes);

  // Whether the last hasRoom() found a volume without inodes to spare: empty directories are better removed.
  bool isShortOfFiles() const { return m_isShortOfFiles.load(std::memory_order_relaxed); }

  // Constant after add(), but for takesBlocks.
  size_t size() const { return m_indexes.size(); }
  const std::vector<VolIndex>& indexes() const { return m_indexes; }
  const std::string& dirOf(VolIndex volume) const;
  // 0 when the path lies on none.
  VolIndex indexOfPath(const std::string& path) const;

 private:
  bool isThere(const CacheVolume& volume) const;
  bool canTake(const CacheVolume& volume, uint64_t bytes, bool& hasFiles) const;

  DiskCache& m_engine;
  ByteAccount& m_account;
  const ObjectCacheOptions& m_options;
  std::vector<VolIndex> m_indexes;
  std::vector<std::string> m_dirs;  // in the same order

  std::atomic<bool> m_isShortOfFiles{false};

  KxCriticalSection m_lock;
  std::vector<CacheVolume> m_volumes DC_GUARDED_BY(m_lock);
};

}  // namespace ObjectStore
