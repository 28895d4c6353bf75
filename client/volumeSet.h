// The volumes in use, where they lie, and which of them take new blocks at this moment.
//
// Any thread may call anything but add(). One lock is held over the engine's volume operations, so it is never
// taken by a pruning callback; that of the roots is a leaf.
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
  std::string destination{};  // of a move: new blocks go there
  VolIndex index = 0;
  dev_t device = 0;  // of its marker: an unmounted volume has none, or another
  ino_t inode = 0;
  bool takesBlocks = true;
};

// A directory with a volume's blocks: two of them while it is moved.
struct VolumeRoot {
  std::string dir;
  VolIndex index = 0;
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

  // From the begin of a volume's move on its blocks may lie on either side; after the end only at the
  // destination, or where they were if it was not moved.
  void beginMove(VolIndex volume, const std::string& destination);
  // False when the volume has been moved and has no marker there: that disk is gone.
  bool endMove(VolIndex volume, bool isMoved);
  bool isThere(VolIndex volume);

  // Constant after add().
  size_t size() const { return m_indexes.size(); }
  const std::vector<VolIndex>& indexes() const { return m_indexes; }

  std::vector<VolumeRoot> roots() const;
  // That which the path lies below; of index 0 when it lies on no volume.
  VolumeRoot rootOf(const std::string& path) const;

 private:
  bool isThere(const CacheVolume& volume) const;
  bool canTake(const std::string& dir, uint64_t bytes, bool& hasFiles) const;
  CacheVolume& find(VolIndex volume) DC_REQUIRES(m_lock);

  DiskCache& m_engine;
  ByteAccount& m_account;
  const ObjectCacheOptions& m_options;
  std::vector<VolIndex> m_indexes;

  std::atomic<bool> m_isShortOfFiles{false};

  KxCriticalSection m_lock;
  std::vector<CacheVolume> m_volumes DC_GUARDED_BY(m_lock);

  mutable KxCriticalSection m_rootsLock;
  std::vector<VolumeRoot> m_roots DC_GUARDED_BY(m_rootsLock);
};

}  // namespace ObjectStore
