#include "client/hotTable.h"

#include "client/openBlock.h"

namespace ObjectStore {

HotTable::Block HotTable::find(const BlockId& block) {
  Shard& shard = shardOf(block);
  const KxCriticalSectionLock lock(&shard.lock);
  const auto found = shard.map.find(block);
  if (found == shard.map.end()) return nullptr;
  shard.entries.splice(shard.entries.begin(), shard.entries, found->second);
  return found->second->second;
}

void HotTable::insert(const BlockId& block, Block open) {
  if (m_boundOfShard == 0) return;
  Shard& shard = shardOf(block);
  std::list<Entry> gone;  // destroyed, and with it closed, after the lock
  const KxCriticalSectionLock lock(&shard.lock);
  if (const auto found = shard.map.find(block); found != shard.map.end()) {
    gone.splice(gone.begin(), shard.entries, found->second);
    shard.map.erase(found);
  } else if (shard.entries.size() >= m_boundOfShard) {
    shard.map.erase(shard.entries.back().first);
    gone.splice(gone.begin(), shard.entries, std::prev(shard.entries.end()));
  }
  shard.entries.emplace_front(block, std::move(open));
  shard.map.emplace(block, shard.entries.begin());
}

void HotTable::erase(const BlockId& block) {
  Shard& shard = shardOf(block);
  std::list<Entry> gone;
  const KxCriticalSectionLock lock(&shard.lock);
  const auto found = shard.map.find(block);
  if (found == shard.map.end()) return;
  gone.splice(gone.begin(), shard.entries, found->second);
  shard.map.erase(found);
}

size_t HotTable::size() {
  size_t sum = 0;
  for (Shard& shard : m_shards) {
    const KxCriticalSectionLock lock(&shard.lock);
    sum += shard.entries.size();
  }
  return sum;
}

}  // namespace ObjectStore
