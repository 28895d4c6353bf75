// A few blocks, each with the volume it lies on: those being written, those staged.
//
// Any thread may call anything; the lock is a leaf. Asking costs no lock while the set is empty.
#pragma once

#include <atomic>
#include <optional>
#include <unordered_map>

#include "client/blockName.h"
#include "support/lock.h"

namespace ObjectStore {

class BlockSet {
 public:
  void insert(const BlockId& block, VolIndex volume);
  void erase(const BlockId& block);
  std::optional<VolIndex> find(const BlockId& block);
  bool contains(const BlockId& block) { return find(block).has_value(); }
  bool isEmpty() const { return m_size.load(std::memory_order_relaxed) == 0; }

  // Is in a set while it lives, or until somebody takes it out.
  class Member {
   public:
    Member(BlockSet& set, const BlockId& block) : m_set(set), m_block(block) { m_set.insert(block, 0); }
    ~Member() { m_set.erase(m_block); }
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

   private:
    BlockSet& m_set;
    const BlockId m_block;
  };

 private:
  KxCriticalSection m_lock;
  std::unordered_map<BlockId, VolIndex, HashOfBlock> m_blocks DC_GUARDED_BY(m_lock);
  std::atomic<size_t> m_size{0};
};

}  // namespace ObjectStore
