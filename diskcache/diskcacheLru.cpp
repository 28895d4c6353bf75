#include "diskcache/diskcacheLru.h"

#include <cerrno>
#include <iostream>
#include <new>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheContexts.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

DiskcacheLRU::~DiskcacheLRU() {
  const KxCriticalSectionLock lock(&m_lruLock);
  std::cout << "hash size=" << m_lruMap.size() << std::endl;
}

int DiskcacheLRU::init(unsigned long maxEntries) {
  m_maxLruEntries = maxEntries;
  return 0;
}

CZuError DiskcacheLRU::addToLru(const guid_t& guid, VolIndex vol, const std::string& dir) {
  DC_LOG(LogLevel::Segment, "addToLru: [%s] num=%lu max=%lu", guid.c_str(), m_numEntries.value(),
         static_cast<uint64_t>(m_maxLruEntries));
  const Key key(guid);
  const KxCriticalSectionLock lock(&m_lruLock);
  try {
    if (const auto found = m_lruMap.find(key); found != m_lruMap.end()) {
      moveToFront(found->second);
      return {};
    }
    if (m_numEntries.value() >= m_maxLruEntries) {
      if (m_diskCache.m_pruningMode != PruningMode::Random) {
        if (const CZuError error = pruneFromBack(); error.IsError()) {
          return pushAndLog(error, RM_CODE_LOCATION, "Error: No prunable items in LRU");
        }
      } else if (!m_lruList.empty()) {
        // The entry goes, the counter stays: see m_numEntries.
        m_lruMap.erase(Key(m_lruList.back().guid));
        m_lruList.pop_back();
      }
    }
    insertFront(key, vol, dir);
    return {};
  } catch (const std::bad_alloc&) {
    return DC_FAIL(LogLevel::Error, ENOMEM, "Error: out of memory");
  }
}

void DiskcacheLRU::insertFront(Key key, VolIndex vol, const std::string& dir) {
  // Most often that of the entry before.
  const bool isSame = !m_lruList.empty() && m_lruList.front().dir == dir;
  m_lruList.push_front({guid_t(key.guid), vol, isSame ? m_lruList.front().dir : *m_dirs.insert(dir).first});
  try {
    key.guid = m_lruList.front().guid;
    const auto [entry, added] = m_lruMap.try_emplace(key, m_lruList.begin());
    if (added) {
      m_numEntries++;
      return;
    }
    m_lruList.pop_front();  // the callback that made room put the segment in itself
    moveToFront(entry->second);
  } catch (...) {
    m_lruList.pop_front();
    throw;
  }
}

CZuError DiskcacheLRU::pruneFromBack() {
  const auto outOfSpace = [] {
    DC_LOG(LogLevel::Segment, "lru out of space");
    return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOSPC);
  };
  if (m_pruning) return outOfSpace();  // a callback that adds to the list is not asked again while it decides
  for (uint64_t i = 0; i < m_numEntries.value() && !m_lruList.empty(); ++i) {
    if (giveUpBack(RM_CODE_LOCATION)) return {};
    if (m_numEntries.value() >= m_maxLruEntries) return outOfSpace();
  }
  return {};
}

// Asks about the oldest entry: one that is given up leaves the list, one that is refused moves to the front.
bool DiskcacheLRU::giveUpBack(const RMCodeLocation& where) {
  const LruInfo oldest = m_lruList.back();  // the callback may change the list
  const bool givenUp = askClient(oldest);
  const auto entry = m_lruMap.find(Key(oldest.guid));
  if (givenUp) {
    DC_LOG_AT(where, LogLevel::Segment, "successfully pruned: [%s]", oldest.guid.c_str());
    if (entry != m_lruMap.end()) erase(entry->second);
  } else if (entry != m_lruMap.end()) {
    moveToFront(entry->second);
  }
  return givenUp;
}

CZuError DiskcacheLRU::giveUpOldest(uint64_t n, uint64_t& given) {
  for (given = 0; given < n; ++given) {
    const KxCriticalSectionLock lock(&m_lruLock);  // anew for each: others get their turn in between
    if (m_lruList.empty()) break;
    if (m_pruning || !giveUpBack(RM_CODE_LOCATION)) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOSPC);
  }
  return {};
}

bool DiskcacheLRU::touch(const guid_t& guid) {
  const Key key(guid);
  const KxCriticalSectionLock lock(&m_lruLock);
  const auto found = m_lruMap.find(key);
  if (found == m_lruMap.end()) return false;
  moveToFront(found->second);
  return true;
}

bool DiskcacheLRU::findVolume(const guid_t& guid, VolIndex& volume) {
  const Key key(guid);
  const KxCriticalSectionLock lock(&m_lruLock);
  const auto found = m_lruMap.find(key);
  if (found == m_lruMap.end()) return false;
  volume = found->second->vol;
  return true;
}

bool DiskcacheLRU::askClient(const LruInfo& entry) {
  const std::string dir(entry.dir);
  const std::string path = m_diskCache.guid2path(entry.guid, entry.vol, dir);
  m_pruning = true;
  bool givenUp = false;
  try {
    const CZuError error = m_diskCache.m_contexts->ask(givenUp, dir, path, entry.guid);
    if (error.IsError()) DC_LOG(LogLevel::Error, "Error: %s", error.AsString().c_str());
  } catch (...) {
    DC_LOG(LogLevel::Error, "Error: pruning callback of [%s] threw", dir.c_str());
  }
  m_pruning = false;
  return givenUp;
}

bool DiskcacheLRU::isInLru(const guid_t& guid, bool moveToFrontIfFound) {
  const Key key(guid);
  const KxCriticalSectionLock lock(&m_lruLock);
  const auto found = m_lruMap.find(key);
  if (found == m_lruMap.end()) {
    ++m_diskCache.m_stats.lruMisses;
    return false;
  }
  if (moveToFrontIfFound) moveToFront(found->second);
  ++m_diskCache.m_stats.lruHits;
  return true;
}

void DiskcacheLRU::removeFromLru(const guid_t& guid) {
  const Key key(guid);
  const KxCriticalSectionLock lock(&m_lruLock);
  if (const auto found = m_lruMap.find(key); found != m_lruMap.end()) erase(found->second);
}

void DiskcacheLRU::moveToFront(Position entry) { m_lruList.splice(m_lruList.begin(), m_lruList, entry); }

void DiskcacheLRU::erase(Position entry) {
  m_lruMap.erase(Key(entry->guid));
  m_lruList.erase(entry);
  m_numEntries--;
}

void DiskcacheLRU::clearLru() {
  const KxCriticalSectionLock lock(&m_lruLock);
  m_lruMap.clear();
  m_lruList.clear();
  m_dirs.clear();
  m_numEntries = 0;
}

void DiskcacheLRU::dumpLru() {
  const KxCriticalSectionLock lock(&m_lruLock);
  std::cout << "cache: list=" << m_lruList.size() << " map=" << m_lruMap.size() << std::endl;
  for (const LruInfo& entry : m_lruList) std::cout << entry.guid << std::endl;
}

void DiskcacheLRU::getStatus(std::map<std::string, std::string>& out) {
  pushStat(out, "DC.LRUEntriesMax", static_cast<uint64_t>(m_maxLruEntries), "");
  pushStat(out, "DC.LRUEntriesCur", m_numEntries.value(), "");
  pushStat(out, "DC.LRUPtr", to_hexstring(this), "");
}

bool DiskcacheLRU::testLru() {
  const guid_t first = "testLru-1";
  const guid_t second = "testLru-2";
  bool passed = !addToLru(first, 1, "testLru").IsError() && !addToLru(second, 1, "testLru").IsError();
  passed = passed && isInLru(first, true) && isInLru(second, false);
  dumpLru();
  removeFromLru(first);
  removeFromLru(second);
  return passed && !isInLru(first, false) && !isInLru(second, false) && CheckInvariants();
}

bool DiskcacheLRU::CheckInvariants() {
  const KxCriticalSectionLock lock(&m_lruLock);
  if (m_lruList.size() != m_lruMap.size()) return false;
  for (auto entry = m_lruList.begin(); entry != m_lruList.end(); ++entry) {
    const auto found = m_lruMap.find(Key(entry->guid));
    if (found == m_lruMap.end() || found->second != entry) return false;
    if (found->first.guid.data() != entry->guid.data()) return false;  // a key of its own is a second copy
  }
  return true;
}

}  // namespace ObjectStore
