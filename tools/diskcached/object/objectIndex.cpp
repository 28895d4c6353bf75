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
  if (known != m_positions.end() && known->second->info->isStaged) return false;
  const bool isNew =
      known == m_positions.end() ? info != nullptr : !info || known->second->info->version != info->version;
  isNew ? putLocked(key, std::move(info)) : setLocked(key, std::move(info));
  return true;
}

void ObjectIndex::change(std::string_view key, ObjectInfoPointer info) {
  const KxCriticalSectionLock lock(&m_lock);
  ++changesOf(key);
  putLocked(key, std::move(info));
}

ObjectInfoPointer ObjectIndex::forget(std::string_view key) {
  const KxCriticalSectionLock lock(&m_lock);
  ++changesOf(key);
  const auto known = m_positions.find(key);
  if (known == m_positions.end() || known->second->info->isStaged) return nullptr;
  ObjectInfoPointer info = known->second->info;
  putLocked(key, nullptr);
  return info;
}

bool ObjectIndex::erase(std::string_view key, const ObjectInfo& found) {
  const KxCriticalSectionLock lock(&m_lock);
  const auto known = m_positions.find(key);
  if (known == m_positions.end() || known->second->info->version != found.version) return true;
  if (known->second->info->isStaged) return false;
  putLocked(key, nullptr);
  return true;
}

// Noted last: the log may be written anew then, from what is in memory.
void ObjectIndex::putLocked(std::string_view key, ObjectInfoPointer info) {
  setLocked(key, info);
  noteLocked(key, info.get());
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
  if (m_log.isToBeRewritten()) rewriteLocked();
}

void ObjectIndex::rewriteLocked() {
  (void)m_log.rewrite(m_logPath, [this](const IndexLog::Visit& visit) DC_NO_THREAD_SAFETY_ANALYSIS {
    for (auto entry = m_entries.rbegin(); entry != m_entries.rend(); ++entry) {
      if (!entry->info->isStaged) visit(entry->key, entry->info);
    }
  });
}

void ObjectIndex::open(const std::string& logPath) {
  const KxCriticalSectionLock lock(&m_lock);
  m_logPath = logPath;
  IndexLog::read(logPath, [this](const std::string& key, ObjectInfoPointer info)
                              DC_NO_THREAD_SAFETY_ANALYSIS { setLocked(key, std::move(info)); });
  rewriteLocked();
}

void ObjectIndex::save() {
  {
    const KxCriticalSectionLock lock(&m_lock);
    rewriteLocked();
  }
  sync();
}

void ObjectIndex::sync() {
  IndexLog::File file;
  std::string path;
  {
    const KxCriticalSectionLock lock(&m_lock);
    file = m_log.file();
    path = m_logPath;
  }
  const int errNo = file ? IndexLog::sync(path, *file) : 0;
  if (errNo == 0) return;
  const KxCriticalSectionLock lock(&m_lock);
  (void)m_log.fail(errNo);
}

size_t ObjectIndex::size() {
  const KxCriticalSectionLock lock(&m_lock);
  return m_entries.size();
}

}  // namespace diskcached
