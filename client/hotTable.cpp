#include "client/hotTable.h"

#include <algorithm>
#include <utility>

#include "client/openBlock.h"

namespace ObjectStore {

namespace {

uint64_t costOfCopy(const OpenBlock& block) { return block.trailer().payloadSize + HotTable::COPY_OVERHEAD; }

bool mayHaveCopy(const OpenBlock& block) {
  return block.trailer().payloadSize > 0 && block.trailer().payloadSize <= HotTable::LARGEST_COPY;
}

}  // namespace

HotTable::Slot& HotTable::slotOf(Shard& shard, const BlockId& block) {
  const uint64_t tag = tagOf(block);
  const size_t mask = shard.slots.size() - 1;
  size_t at = tag & mask;
  for (; shard.slots[at].block; at = (at + 1) & mask) {
    if (shard.slots[at].tag == tag && shard.slots[at].block->id() == block) break;
  }
  return shard.slots[at];
}

HotTable::Found HotTable::find(const BlockId& block) {
  Shard& shard = shardOf(block);
  const KxCriticalSectionLock lock(&shard.lock);
  if (shard.size == 0) return {};
  Slot& slot = slotOf(shard, block);
  if (!slot.block) return {};
  slot.isUsed = slot.isCopyUsed = true;
  return {slot.block, slot.copy, isCopyDue(slot)};
}

bool HotTable::isCopyDue(Slot& slot) const {
  if (m_maxBytes == 0 || slot.copy || !mayHaveCopy(*slot.block)) return false;
  const bool isFull = bytes() + costOfCopy(*slot.block) > m_maxBytes;
  if (++slot.found < (isFull ? FINDS_BEFORE_DISPLACING : FINDS_BEFORE_COPY)) return false;
  slot.found = 0;
  return true;
}

void HotTable::insert(const BlockId& block, Block open) {
  if (m_boundOfShard == 0) return;
  Shard& shard = shardOf(block);
  Slot gone;  // destroyed, and with it closed, after the lock
  const KxCriticalSectionLock lock(&shard.lock);
  if (2 * (shard.size + 1) > shard.slots.size()) grow(shard);
  Slot* slot = &slotOf(shard, block);
  if (slot->block) {
    uncount(*slot);
    gone = std::move(*slot);
  } else {
    if (shard.size >= m_boundOfShard) {
      gone = closeOne(shard);
      slot = &slotOf(shard, block);
    }
    ++shard.size;
  }
  *slot = {tagOf(block), std::move(open)};
}

void HotTable::grow(Shard& shard) {
  std::vector<Slot> old(std::max(FIRST_SLOTS, 2 * shard.slots.size()));
  old.swap(shard.slots);
  for (Slot& slot : old) {
    if (slot.block) slotOf(shard, slot.block->id()) = std::move(slot);
  }
  shard.hand = shard.copyHand = 0;
}

HotTable::Slot HotTable::closeOne(Shard& shard) {
  for (;; shard.hand = (shard.hand + 1) & (shard.slots.size() - 1)) {
    Slot& slot = shard.slots[shard.hand];
    if (slot.block && !slot.isUsed) return take(shard, shard.hand);
    slot.isUsed = false;
  }
}

// Those behind the gap that would no longer be found move up.
HotTable::Slot HotTable::take(Shard& shard, size_t at) {
  uncount(shard.slots[at]);
  Slot taken = std::move(shard.slots[at]);
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
  Slot gone;
  const KxCriticalSectionLock lock(&shard.lock);
  if (shard.size == 0) return;
  Slot& slot = slotOf(shard, block);
  if (slot.block) gone = take(shard, static_cast<size_t>(&slot - shard.slots.data()));
}

void HotTable::clear() {
  for (Shard& shard : m_shards) {
    std::vector<Slot> gone;
    const KxCriticalSectionLock lock(&shard.lock);
    for (const Slot& slot : shard.slots) uncount(slot);
    gone.swap(shard.slots);
    shard.size = shard.hand = shard.copyHand = 0;
  }
}

void HotTable::keep(const Block& block, Copy copy) {
  const uint64_t bytes = costOfCopy(*block);
  if (!makeRoom(bytes)) return;
  Shard& shard = shardOf(block->id());
  const KxCriticalSectionLock lock(&shard.lock);
  Slot* const slot = shard.size == 0 ? nullptr : &slotOf(shard, block->id());
  if (!slot || slot->block != block || slot->copy) {
    m_bytes.fetch_sub(bytes, std::memory_order_relaxed);
    return;
  }
  slot->copy = std::move(copy);
  slot->isCopyUsed = false;
}

bool HotTable::takeBytes(uint64_t bytes) {
  uint64_t held = m_bytes.load(std::memory_order_relaxed);
  while (bytes <= m_maxBytes && held <= m_maxBytes - bytes) {
    if (m_bytes.compare_exchange_weak(held, held + bytes, std::memory_order_relaxed)) return true;
  }
  return false;
}

bool HotTable::makeRoom(uint64_t bytes) {
  for (size_t look = 0; look < LOOKS_FOR_ROOM; ++look) {
    if (takeBytes(bytes)) return true;
    dropOneCopy(m_shards[m_nextForRoom.fetch_add(1, std::memory_order_relaxed) % SHARDS]);
  }
  return takeBytes(bytes);
}

void HotTable::dropOneCopy(Shard& shard) {
  Copy gone;
  const KxCriticalSectionLock lock(&shard.lock);
  for (size_t looked = 0; looked < std::min(SLOTS_OF_LOOK, shard.slots.size()); ++looked) {
    Slot& slot = shard.slots[shard.copyHand++ & (shard.slots.size() - 1)];
    if (!slot.copy || std::exchange(slot.isCopyUsed, false)) continue;
    uncount(slot);
    gone = std::move(slot.copy);
    return;
  }
}

void HotTable::uncount(const Slot& slot) {
  if (slot.copy) m_bytes.fetch_sub(costOfCopy(*slot.block), std::memory_order_relaxed);
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
