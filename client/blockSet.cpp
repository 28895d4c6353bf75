#include "client/blockSet.h"

namespace ObjectStore {

void BlockSet::insert(const BlockId& block, VolIndex volume) {
  const KxCriticalSectionLock lock(&m_lock);
  m_blocks.insert_or_assign(block, volume);
  m_size.store(m_blocks.size());
}

void BlockSet::erase(const BlockId& block) {
  const KxCriticalSectionLock lock(&m_lock);
  m_blocks.erase(block);
  m_size.store(m_blocks.size());
}

std::optional<VolIndex> BlockSet::find(const BlockId& block) {
  if (m_size.load() == 0) return {};
  const KxCriticalSectionLock lock(&m_lock);
  const auto found = m_blocks.find(block);
  if (found == m_blocks.end()) return {};
  return found->second;
}

}  // namespace ObjectStore
