// The descriptors of recently read blocks, bounded in number, and copies of the small ones' payloads, bounded in
// bytes.
//
// Any thread may call anything. The locks are leaves: nothing is called while one is held, and what leaves the table is
// closed or freed outside it. A block that is read at this moment stays open, and its copy in memory, until that read
// ends. A copy never outlives its block's place in the table: who erases a block has erased its copy.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "client/blockName.h"
#include "support/lock.h"

namespace ObjectStore {

class OpenBlock;

class HotTable {
 public:
  using Block = std::shared_ptr<OpenBlock>;
  using Copy = std::shared_ptr<const std::byte[]>;  // of a whole payload

  // A hit from memory takes 0.2 of the time of one by `pread` for 4 KiB, 0.32 for 16 KiB, 0.40 for 32 KiB and
  // 0.60 for 64 KiB, while the memory that it takes grows with the payload.
  static constexpr uint64_t LARGEST_COPY = 16 * 1024;
  // What a copy takes besides its payload: its count of users, the allocator's record and rounding.
  static constexpr uint64_t COPY_OVERHEAD = 64;
  static constexpr uint64_t LEAST_BYTES = 17 * 1024;  // any copy fits

  struct Found {
    Block block;             // null when it is not in the table
    Copy copy{};             // null when there is none
    bool isCopyDue = false;  // it has none, is small and was found often: who reads it now is to keep() one
  };

  // At most `bound` blocks and `maxBytes` of copies, with what these cost.
  HotTable(size_t bound, uint64_t maxBytes)
      : m_boundOfShard(bound / SHARDS + (bound % SHARDS != 0)), m_maxBytes(maxBytes) {}

  // Each shard's blocks are gone over in turn for one to close, and one that was found since the last time is passed
  // over once.
  Found find(const BlockId& block);
  void insert(const BlockId& block, Block open);
  void erase(const BlockId& block);
  void clear();
  // Keeps a copy of the payload of a block, unless that has left the table, or others' copies don't make room: they
  // are gone over like blocks.
  void keep(const Block& block, Copy copy);
  size_t size();
  uint64_t bytes() const { return m_bytes.load(std::memory_order_relaxed); }

 private:
  // Open addressing, with the next place tried after a taken one: a look costs one line of memory.
  struct Slot {
    uint64_t tag = 0;
    Block block;
    Copy copy{};
    bool isUsed = false;      // found since it was gone over last for one to close
    bool isCopyUsed = false;  // the same for a copy to drop
    uint8_t found = 0;        // how often, since it came or a copy was due
  };
  struct alignas(64) Shard {
    KxCriticalSection lock;
    std::vector<Slot> slots DC_GUARDED_BY(lock);  // a power of two in number, half of them empty
    size_t size DC_GUARDED_BY(lock) = 0;
    size_t hand DC_GUARDED_BY(lock) = 0;
    size_t copyHand DC_GUARDED_BY(lock) = 0;
  };

  static constexpr size_t SHARDS = 16, FIRST_SLOTS = 16;
  // So that a scan leaves no copy, and that a set too large for the memory does not displace itself all the time.
  static constexpr uint8_t FINDS_BEFORE_COPY = 2, FINDS_BEFORE_DISPLACING = 8;
  // Who needs room for a copy looks at no more; his block's turn comes again.
  static constexpr size_t LOOKS_FOR_ROOM = 32, SLOTS_OF_LOOK = 64;
  static uint64_t tagOf(const BlockId& block) {
    return block.object.low ^ block.number * uint64_t{0x9e3779b97f4a7c15U};
  }
  Shard& shardOf(const BlockId& block) { return m_shards[(block.object.high ^ block.number) % SHARDS]; }
  // The block's slot, or the empty one where it would go. Not for a shard without slots.
  static Slot& slotOf(Shard& shard, const BlockId& block) DC_REQUIRES(shard.lock);
  static void grow(Shard& shard) DC_REQUIRES(shard.lock);
  Slot closeOne(Shard& shard) DC_REQUIRES(shard.lock);
  Slot take(Shard& shard, size_t at) DC_REQUIRES(shard.lock);
  bool isCopyDue(Slot& slot) const;
  bool takeBytes(uint64_t bytes);
  bool makeRoom(uint64_t bytes);
  void dropOneCopy(Shard& shard);
  void uncount(const Slot& slot);

  const size_t m_boundOfShard;
  const uint64_t m_maxBytes;
  std::atomic<uint64_t> m_bytes{0};
  std::atomic<unsigned> m_nextForRoom{0};
  std::array<Shard, SHARDS> m_shards;
};

}  // namespace ObjectStore
