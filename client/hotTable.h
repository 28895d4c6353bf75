// The descriptors of recently read blocks, bounded in number.
//
// Any thread may call anything. The locks are leaves: nothing is called while one is held, and a descriptor that
// leaves the table is closed outside it. A block that is read at this moment stays open until that read ends.
#pragma once

#include <array>
#include <list>
#include <memory>
#include <unordered_map>

#include "client/blockName.h"
#include "support/lock.h"

namespace ObjectStore {

class OpenBlock;

class HotTable {
 public:
  using Block = std::shared_ptr<OpenBlock>;

  explicit HotTable(size_t bound) : m_boundOfShard(bound / SHARDS + (bound % SHARDS != 0)) {}

  // The block, now the last of its shard to be closed; null when it is not in the table.
  Block find(const BlockId& block);
  void insert(const BlockId& block, Block open);
  void erase(const BlockId& block);
  size_t size();

 private:
  using Entry = std::pair<BlockId, Block>;
  struct Shard {
    KxCriticalSection lock;
    std::list<Entry> entries DC_GUARDED_BY(lock);  // last used first
    std::unordered_map<BlockId, std::list<Entry>::iterator, HashOfBlock> map DC_GUARDED_BY(lock);
  };

  static constexpr size_t SHARDS = 16;
  Shard& shardOf(const BlockId& block) { return m_shards[block.object.high % SHARDS]; }

  const size_t m_boundOfShard;
  std::array<Shard, SHARDS> m_shards;
};

}  // namespace ObjectStore
