#include "client/hotTable.h"

#include <algorithm>

#include "client/openBlock.h"

namespace ObjectStore {

HotTable::Slot& HotTable::slotOf(Shard& shard, const BlockId& block) {
  const uint64_t tag = tagOf(block);
  const size_t mask = shard.slots.size() - 1;
  size_t at = tag & mask;
  for (; shard.slots[at].block; at = (at + 1) & mask) {
    if (shard.slots[at].tag == tag && shard.slots[at].block->id() == block) break;
  }
  return shard.slots[at];
}

HotTable::Block HotTable::find(const BlockId& block) {
  Shard& shard = shardOf(block);
  const KxCriticalSectionLock lock(&shard.lock);
  if (shard.size == 0) return nullptr;
  Slot& slot = slotOf(shard, block);
  slot.isUsed = slot.block != nullptr;
  return slot.block;
}

void HotTable::insert(const BlockId& block, Block open) {
  if (m_boundOfShard == 0) return;
  Shard& shard = shardOf(block);
  Block gone;  // destroyed, and with it closed, after the lock
  const KxCriticalSectionLock lock(&shard.lock);
  if (2 * (shard.size + 1) > shard.slots.size()) grow(shard);
  Slot* slot = &slotOf(shard, block);
  if (slot->block) {
    gone = std::move(slot->block);
  } else {
    if (shard.size >= m_boundOfShard) {
      gone = closeOne(shard);
      slot = &slotOf(shard, block);
    }
    ++shard.size;
  }
  *slot = {tagOf(block), std::move(open), false};
}

void HotTable::grow(Shard& shard) {
  std::vector<Slot> old(std::max(FIRST_SLOTS, 2 * shard.slots.size()));
  old.swap(shard.slots);
  for (Slot& slot : old) {
    if (slot.block) slotOf(shard, slot.block->id()) = std::move(slot);
  }
  shard.hand = 0;
}

HotTable::Block HotTable::closeOne(Shard& shard) {
  for (;; shard.hand = (shard.hand + 1) & (shard.slots.size() - 1)) {
    Slot& slot = shard.slots[shard.hand];
    if (slot.block && !slot.isUsed) return take(shard, shard.hand);
    slot.isUsed = false;
  }
}

// Those behind the gap that would no longer be found move up.
HotTable::Block HotTable::take(Shard& shard, size_t at) {
  Block taken = std::move(shard.slots[at].block);
  const size_t mask = shard.slots.size() - 1;
  for (size_t next = (at + 1) & mask; shard.slots[next].block; next = (next + 1) & mask) {
    const size_t home = shard.slots[next].tag & mask;
    if (((next - home) & mask) < ((next - at) & mask)) continue;  // it lies between its home and the gap
    shard.slots[at] = std::move(shard.slots[next]);
    at = next;
  }
  shard.slots[at] = {};
  --shard.size;
  return taken;
}

void HotTable::erase(const BlockId& block) {
  Shard& shard = shardOf(block);
  Block gone;
  const KxCriticalSectionLock lock(&shard.lock);
  if (shard.size == 0) return;
  Slot& slot = slotOf(shard, block);
  if (slot.block) gone = take(shard, static_cast<size_t>(&slot - shard.slots.data()));
}

size_t HotTable::size() {
  size_t sum = 0;
  for (Shard& shard : m_shards) {
    const KxCriticalSectionLock lock(&shard.lock);
    sum += shard.size;
  }
  return sum;
}

}  // namespace ObjectStore
