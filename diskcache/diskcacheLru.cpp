#include "diskcache/diskcacheLru.h"

#include <cerrno>
#include <iostream>
#include <new>

#include "diskcache/engineSteps.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// Under the list's lock.
void countOne(RelaxedAtomic<uint64_t>& count) { count = count + 1; }

}  // namespace

DiskcacheLRU::~DiskcacheLRU() {
  const KxCriticalSectionLock lock(&m_lruLock);
  std::cout << "hash size=" << m_table.slots() << std::endl;
}

int DiskcacheLRU::init(unsigned long maxEntries) {
  m_maxLruEntries = maxEntries;
  return 0;
}

CZuError DiskcacheLRU::addToLru(const guid_t& guid, VolIndex vol, const std::string& dir) {
  return enter(guid, vol, dir, false);
}

CZuError DiskcacheLRU::enter(const guid_t& guid, VolIndex vol, const std::string& dir, bool isUse) {
  DC_LOG_AT(DC_STEP(addToLru), LogLevel::Segment, "addToLru: [%s] num=%lu max=%lu", guid.c_str(),
            m_numEntries.value(), static_cast<uint64_t>(m_maxLruEntries));
  const Key key = keyOf(guid);
  const KxCriticalSectionLock lock(&m_lruLock);
  if (const Position known = m_table.find(key); known != RecencyTable::NONE) {
    if (isUse) countOne(m_space.counters().listHits);
    m_table.moveToFront(known);
    return {};
  }
  if (isUse) countOne(m_space.counters().listMisses);
  try {
    if (const CZuError error = insert(key, vol, dir); error.IsError()) {
      m_table.dropReserve();
      return pushAndLog(error, DC_STEP(addToLru), "Error: No prunable items in LRU");
    }
    return {};
  } catch (const std::bad_alloc&) {
    m_table.dropReserve();
    return failWithException(DC_STEP(addToLru));
  }
}

CZuError DiskcacheLRU::touchSegment(const guid_t& guid, VolIndex vol, const std::string& dir,
                                    const RMCodeLocation& where) {
  CZuError error = enter(guid, vol, dir, true);
  if (error.IsError()) error = pushAndLog(error, where, "Error: can't add [%s] to LRU", guid.c_str());
  return error;
}

// Nothing is dropped, and nobody asked, before there is memory for the new entry.
CZuError DiskcacheLRU::insert(const Key& key, VolIndex vol, const std::string& dir) {
  m_table.reserve(key.guid, dir);
  if (m_numEntries.value() >= m_maxLruEntries) {
    if (m_settings.pruningMode != PruningMode::Random) {
      if (const CZuError error = pruneFromBack(); error.IsError()) return error;
      // The callback may have put the segment in itself, or used the memory for another.
      if (const Position known = m_table.find(key); known != RecencyTable::NONE) {
        m_table.dropReserve();
        m_table.moveToFront(known);
        return {};
      }
      if (!m_table.isReserved()) m_table.reserve(key.guid, dir);
    } else if (!m_table.empty()) {
      m_table.erase(m_table.oldest());  // the entry goes, the counter stays: see m_numEntries
    }
  }
  m_table.pushFront(key, vol);
  m_numEntries++;
  return {};
}

CZuError DiskcacheLRU::pruneFromBack() {
  // A callback that adds to the list is not asked again while it decides.
  bool isRefused = m_pruning;
  for (uint64_t i = 0; !isRefused && i < m_numEntries.value() && !m_table.empty(); ++i) {
    if (giveUpOldestOne(RM_CODE_LOCATION)) return {};
    isRefused = m_numEntries.value() >= m_maxLruEntries;
  }
  if (!isRefused) return {};
  return DC_FAIL(LogLevel::Segment, ENOSPC, "lru out of space");
}

CZuError DiskcacheLRU::giveUpOldest(uint64_t n, uint64_t& given) {
  try {
    for (given = 0; given < n; ++given) {
      const KxCriticalSectionLock lock(&m_lruLock);  // anew for each: others get their turn in between
      if (m_table.empty()) break;
      if (m_pruning || !giveUpOldestOne(RM_CODE_LOCATION)) {
        return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOSPC);
      }
    }
    return {};
  } catch (const std::bad_alloc&) {
    return DC_FAIL(LogLevel::Error, ENOMEM, "Error: out of memory");
  }
}

// One that is given up leaves the list, one that is refused moves to the front.
bool DiskcacheLRU::giveUpOldestOne(const RMCodeLocation& where) {
  const Position back = m_table.oldest();
  const LruInfo oldest{guid_t(m_table.guid(back)), m_table.volume(back), m_table.dir(back)};
  const bool givenUp = askClient(where, oldest);
  if (givenUp) {
    countOne(m_space.counters().givenUp);
    DC_LOG_AT(where, LogLevel::Segment, "successfully pruned: [%s]", oldest.guid.c_str());
  }
  const Position asked = m_table.find(keyOf(oldest.guid));  // the callback may have changed the list
  if (asked != RecencyTable::NONE) givenUp ? erase(asked) : m_table.moveToFront(asked);
  return givenUp;
}

bool DiskcacheLRU::askClient(const RMCodeLocation& where, const LruInfo& entry) {
  const std::string path = m_migrator.guidToPath(entry.guid, entry.vol, entry.dir);
  m_pruning = true;
  bool givenUp = false;
  try {
    const CZuError error = m_contexts.ask(givenUp, entry.dir, path, entry.guid);
    if (error.IsError()) DC_LOG_AT(where, LogLevel::Error, "Error: %s", error.AsString().c_str());
  } catch (...) {
    DC_LOG_AT(where, LogLevel::Error, "Error: pruning callback of [%s] threw", entry.dir.c_str());
  }
  m_pruning = false;
  return givenUp;
}

bool DiskcacheLRU::isInLru(const guid_t& guid, bool moveToFrontIfFound) {
  const Key key = keyOf(guid);
  const KxCriticalSectionLock lock(&m_lruLock);
  const Position found = m_table.find(key);
  if (found == RecencyTable::NONE) {
    ++m_space.stats().lruMisses;
    return false;
  }
  if (moveToFrontIfFound) m_table.moveToFront(found);
  ++m_space.stats().lruHits;
  return true;
}

bool DiskcacheLRU::touch(const guid_t& guid) {
  const Key key = keyOf(guid);
  const KxCriticalSectionLock lock(&m_lruLock);
  const Position found = m_table.find(key);
  countOne(found != RecencyTable::NONE ? m_space.counters().listHits : m_space.counters().listMisses);
  if (found == RecencyTable::NONE) return false;
  m_table.moveToFront(found);
  return true;
}

bool DiskcacheLRU::findVolume(const guid_t& guid, VolIndex& volume) {
  const Key key = keyOf(guid);
  const KxCriticalSectionLock lock(&m_lruLock);
  const Position found = m_table.find(key);
  if (found == RecencyTable::NONE) return false;
  volume = m_table.volume(found);
  return true;
}

void DiskcacheLRU::removeFromLru(const guid_t& guid) {
  const Key key = keyOf(guid);
  const KxCriticalSectionLock lock(&m_lruLock);
  if (const Position found = m_table.find(key); found != RecencyTable::NONE) erase(found);
}

void DiskcacheLRU::erase(Position entry) {
  m_table.erase(entry);
  m_numEntries--;
}

void DiskcacheLRU::clearLru() {
  RecencyTable gone;  // a long list takes a while to free: not under the lock
  const KxCriticalSectionLock lock(&m_lruLock);
  gone.swap(m_table);
  m_numEntries = 0;
}

void DiskcacheLRU::dumpLru() {
  const KxCriticalSectionLock lock(&m_lruLock);
  std::cout << "cache: list=" << m_table.size() << " map=" << m_table.slots() << std::endl;
  Position entry = m_table.newest();
  for (size_t i = 0; i < m_table.size(); ++i, entry = m_table.older(entry)) {
    std::cout << m_table.guid(entry) << std::endl;
  }
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
  return m_table.CheckInvariants();
}

size_t DiskcacheLRU::mappedBytes() {
  const KxCriticalSectionLock lock(&m_lruLock);
  return m_table.mappedBytes();
}

}  // namespace ObjectStore
