#include "look/segmentMap.h"

namespace diskcachectl {

using ObjectStore::VolIndex;

SegmentMap::Known SegmentMap::find(const std::string& id) const {
  const std::scoped_lock lock(m_lock);
  const auto entry = m_entries.find(id);
  return entry == m_entries.end() ? Known() : entry->second;
}

SegmentMap::Entry SegmentMap::adopt(const std::string& id, VolIndex volume) {
  const std::scoped_lock lock(m_lock);
  const auto [entry, isNew] = m_entries.try_emplace(id);
  if (isNew) entry->second = {volume, ++m_lastStamp};
  return entry->second;
}

bool SegmentMap::claim(const std::string& id, const Known& known) {
  const std::scoped_lock lock(m_lock);
  const auto entry = m_entries.find(id);
  const Known now = entry == m_entries.end() ? Known() : entry->second;
  if (now != known || (now && now->isClaimed())) return false;
  m_entries[id] = {0, ++m_lastStamp};
  return true;
}

bool SegmentMap::doom(const std::string& id) {
  const std::scoped_lock lock(m_lock);
  const auto entry = m_entries.find(id);
  if (entry == m_entries.end() || !entry->second.isClaimed()) return false;
  entry->second.isDoomed = true;
  return true;
}

bool SegmentMap::settle(const std::string& id, VolIndex volume) {
  const std::scoped_lock lock(m_lock);
  Entry& entry = m_entries[id];
  if (entry.isDoomed) return false;
  entry = {volume, ++m_lastStamp};
  return true;
}

void SegmentMap::forget(const std::string& id) {
  const std::scoped_lock lock(m_lock);
  m_entries.erase(id);
}

}  // namespace diskcachectl
