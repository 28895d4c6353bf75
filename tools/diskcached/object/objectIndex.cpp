#include "object/objectIndex.h"

namespace diskcached {

using ObjectStore::KxCriticalSectionLock;

ObjectInfoPointer ObjectIndex::find(std::string_view key) {
  const KxCriticalSectionLock lock(&m_lock);
  const auto found = m_positions.find(key);
  if (found == m_positions.end()) return nullptr;
  m_entries.splice(m_entries.begin(), m_entries, found->second);
  return found->second->info;
}

uint64_t& ObjectIndex::changesOf(std::string_view key) {
  return m_changes[std::hash<std::string_view>()(key) % m_changes.size()];
}

uint64_t ObjectIndex::ticket(std::string_view key) {
  const KxCriticalSectionLock lock(&m_lock);
  return changesOf(key);
}

bool ObjectIndex::putFound(std::string_view key, ObjectInfoPointer info, uint64_t ticket) {
  const KxCriticalSectionLock lock(&m_lock);
  if (changesOf(key) != ticket) return false;
  const auto known = m_positions.find(key);
  const bool isNew =
      known == m_positions.end() ? info != nullptr : !info || known->second->info->version != info->version;
  if (isNew) noteLocked(key, info.get());
  setLocked(key, std::move(info));
  return true;
}

void ObjectIndex::change(std::string_view key, ObjectInfoPointer info) {
  const KxCriticalSectionLock lock(&m_lock);
  ++changesOf(key);
  noteLocked(key, info.get());
  setLocked(key, std::move(info));
}

void ObjectIndex::erase(std::string_view key) {
  const KxCriticalSectionLock lock(&m_lock);
  noteLocked(key, nullptr);
  eraseLocked(key);
}

void ObjectIndex::setLocked(std::string_view key, ObjectInfoPointer info) {
  if (!info) return eraseLocked(key);
  if (const auto found = m_positions.find(key); found != m_positions.end()) {
    found->second->info = std::move(info);
    m_entries.splice(m_entries.begin(), m_entries, found->second);
    return;
  }
  m_entries.push_front({std::string(key), std::move(info)});
  m_positions.emplace(m_entries.front().key, m_entries.begin());
  shrinkLocked();
}

void ObjectIndex::shrinkLocked() {
  for (size_t looked = m_entries.size(); looked > 0 && m_entries.size() > m_most; --looked) {
    const auto last = std::prev(m_entries.end());
    if (last->info->isStaged) {
      m_entries.splice(m_entries.begin(), m_entries, last);
    } else {
      eraseLocked(last->key);
    }
  }
}

void ObjectIndex::eraseLocked(std::string_view key) {
  const auto found = m_positions.find(key);
  if (found == m_positions.end()) return;
  const Position position = found->second;
  m_positions.erase(found);
  m_entries.erase(position);
}

std::vector<std::pair<std::string, ObjectInfoPointer>> ObjectIndex::takePrefix(std::string_view prefix) {
  std::vector<std::pair<std::string, ObjectInfoPointer>> taken;
  const KxCriticalSectionLock lock(&m_lock);
  for (auto at = m_entries.begin(); at != m_entries.end();) {
    const auto next = std::next(at);
    if (at->key.starts_with(prefix) && !at->info->isStaged) {
      ++changesOf(at->key);
      (void)m_log.append(at->key, nullptr);
      m_positions.erase(at->key);
      taken.emplace_back(std::move(at->key), std::move(at->info));
      m_entries.erase(at);
    }
    at = next;
  }
  return taken;
}

void ObjectIndex::noteLocked(std::string_view key, const ObjectInfo* info) {
  (void)m_log.append(key, info);  // who reads the log is told when it can't be written
  if (m_log.isLong()) rewriteLocked();
}

void ObjectIndex::rewriteLocked() {
  (void)m_log.rewrite(m_logPath, [this](const IndexLog::Visit& visit) DC_NO_THREAD_SAFETY_ANALYSIS {
    for (auto entry = m_entries.rbegin(); entry != m_entries.rend(); ++entry) visit(entry->key, entry->info);
  });
}

void ObjectIndex::open(const std::string& logPath) {
  const KxCriticalSectionLock lock(&m_lock);
  m_logPath = logPath;
  IndexLog::read(logPath,
                 [this](const std::string& key, ObjectInfoPointer info) DC_NO_THREAD_SAFETY_ANALYSIS {
                   const auto known = m_positions.find(key);
                   if (!info && known != m_positions.end() && known->second->info->isStaged) {
                     auto deleted = std::make_shared<ObjectInfo>();
                     deleted->isRemembered = true;
                     info = std::move(deleted);
                   }
                   setLocked(key, std::move(info));
                 });
  rewriteLocked();
}

void ObjectIndex::save() {
  const KxCriticalSectionLock lock(&m_lock);
  rewriteLocked();
}

int ObjectIndex::sync() {
  const KxCriticalSectionLock lock(&m_lock);
  return m_log.sync();
}

size_t ObjectIndex::size() {
  const KxCriticalSectionLock lock(&m_lock);
  return m_entries.size();
}

}  // namespace diskcached
