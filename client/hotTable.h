// The descriptors of recently read blocks, bounded in number.
//
// Any thread may call anything. The locks are leaves: nothing is called while one is held, and a descriptor that
// leaves the table is closed outside it. A block that is read at this moment stays open until that read ends.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "client/blockName.h"
#include "support/lock.h"

namespace ObjectStore {

class OpenBlock;

class HotTable {
 public:
  using Block = std::shared_ptr<OpenBlock>;

  explicit HotTable(size_t bound) : m_boundOfShard(bound / SHARDS + (bound % SHARDS != 0)) {}

  // The block; null when it is not in the table. Each shard's blocks are gone over in turn for one to close, and
  // one that was found since the last time is passed over once.
  Block find(const BlockId& block);
  void insert(const BlockId& block, Block open);
  void erase(const BlockId& block);
  size_t size();

 private:
  // Open addressing, with the next place tried after a taken one: a look costs one line of memory.
  struct Slot {
    uint64_t tag = 0;
    Block block;
    bool isUsed = false;  // found since it was gone over last
  };
  struct alignas(64) Shard {
    KxCriticalSection lock;
    std::vector<Slot> slots DC_GUARDED_BY(lock);  // a power of two in number, half of them empty
    size_t size DC_GUARDED_BY(lock) = 0;
    size_t hand DC_GUARDED_BY(lock) = 0;
  };

  static constexpr size_t SHARDS = 16, FIRST_SLOTS = 16;
  static uint64_t tagOf(const BlockId& block) {
    return block.object.low ^ block.number * uint64_t{0x9e3779b97f4a7c15U};
  }
  Shard& shardOf(const BlockId& block) { return m_shards[(block.object.high ^ block.number) % SHARDS]; }
  // The block's slot, or the empty one where it would go. Not for a shard without slots.
  static Slot& slotOf(Shard& shard, const BlockId& block) DC_REQUIRES(shard.lock);
  static void grow(Shard& shard) DC_REQUIRES(shard.lock);
  static Block closeOne(Shard& shard) DC_REQUIRES(shard.lock);
  static Block take(Shard& shard, size_t at) DC_REQUIRES(shard.lock);

  const size_t m_boundOfShard;
  std::array<Shard, SHARDS> m_shards;
};

}  // namespace ObjectStore
