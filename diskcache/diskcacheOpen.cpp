// The table of open segments: one shared record with a lock for each segment that is in use.
#include "diskcache/diskcacheOpen.h"

#include <new>

#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr uint32_t NEVER_A_DESCRIPTOR = 0xFFFFFFFF;

}  // namespace

void SegmentGate::takeTurn(KxCriticalSection& lock, bool alone) {
  const size_t ticket = m_nextTicket++;
  lock.waitWithoutAnyEntry(m_turnMayHaveCome, [this, ticket, alone] {
    return m_nextServed == ticket && (alone ? m_holders == 0 : !m_isAlone);
  });
  ++m_nextServed;
  ++m_holders;
  m_isAlone = alone;
  if (waiting() > 0) m_turnMayHaveCome.notify_all();  // the next may share this turn
}

bool SegmentGate::becomeAlone(KxCriticalSection& lock) {
  if (m_holders == 1) {
    m_isAlone = true;
    return true;
  }
  leave();
  enterAlone(lock);
  return false;
}

void SegmentGate::leave() {
  m_isAlone = false;
  if (--m_holders == 0 && waiting() > 0) m_turnMayHaveCome.notify_all();
}

SegmentTurn::SegmentTurn(OpenSegmentInfo& segment, Kind kind) : m_segment(segment) {
  kind == Alone ? segment.gate.enterAlone(segment.lock) : segment.gate.enterShared(segment.lock);
}

void waitForInPlaceWriters(OpenSegmentInfo& segment) { const SegmentTurn turn(segment, SegmentTurn::Alone); }

CZuError DiskCache::openSegment(SegmentHandle& handle, guid_t guid) {
  return openInTable(handle, guid, RM_CODE_LOCATION);
}

CZuError DiskCache::openInTable(SegmentHandle& handle, const guid_t& guid, const RMCodeLocation& where) try {
  DC_LOG_AT(where, LogLevel::Segment, "Opening disk segment for [%s]", guid.c_str());
  const KxCriticalSectionLock lock(&m_openSegmentsLock);
  if (const auto found = m_openSegments.find(guid); found != m_openSegments.end()) {
    ++found->second->refCount;
    handle = found;
    return {};
  }
  if (!m_spareEntries.empty()) {
    m_spareEntries.back().key() = guid;
    handle = m_openSegments.insert(std::move(m_spareEntries.back())).position;
    m_spareEntries.pop_back();
    return {};
  }
  auto record = std::unique_ptr<OpenSegmentInfo>(new (std::nothrow) OpenSegmentInfo);
  if (!record) return failAt(where, LogLevel::Error, ENOMEM, "Error: out of memory");
  const auto [entry, inserted] = m_openSegments.try_emplace(guid, record.get());
  OpenSegmentInfo* const owned = record.release();  // by the table from here on
  if (!inserted) {
    // Not freed here, on purpose: whoever put the entry in may hold this record.
    return failAt(where, LogLevel::Error, EINVAL, "Error: can't insert [%s]", entry->first.c_str());
  }
  entry->second = owned;
  handle = entry;
  return {};
} catch (...) {
  return failWithException(where);
}

void DiskCache::closeSegment(SegmentHandle handle) {
  const KxCriticalSectionLock lock(&m_openSegmentsLock);
  OpenSegmentInfo* const record = handle->second;
  if (record->refCount > 1) {
    --record->refCount;
  } else if (m_spareEntries.size() < m_spareEntries.capacity()) {
    m_spareEntries.push_back(m_openSegments.extract(handle));
  } else {
    m_openSegments.erase(handle);
    delete record;
  }
}

unsigned DiskCache::openSegment(guid_t guid) try {
  DC_LOG(LogLevel::Segment, "Opening disk segment for [%s]", guid.c_str());
  AutoOpenSegment open(*this, guid);
  if (!open.opened()) return 0;

  KxCriticalSectionLock lock(&m_openSegmentsLock);
  for (uint32_t attempt = 0; attempt < NEVER_A_DESCRIPTOR; ++attempt) {
    const uint32_t candidate = m_nextHandle++;
    if (m_nextHandle == NEVER_A_DESCRIPTOR) m_nextHandle = 1;
    if (!m_handles.try_emplace(candidate, open.handle()).second) continue;
    open.keepOpen();
    DC_LOG(LogLevel::Segment, "opened disk segment %d", static_cast<int>(candidate));
    return candidate;
  }
  DC_LOG(LogLevel::Error, "Error: can't find unused descriptor for [%s]", guid.c_str());
  return 0;
} catch (...) {
  (void)failWithException(RM_CODE_LOCATION);  // logged; the result has no room for a number
  return 0;
}

void DiskCache::closeSegment(unsigned desc) {
  KxCriticalSectionLock lock(&m_openSegmentsLock);
  const auto found = m_handles.find(desc);
  if (found == m_handles.end()) {
    DC_LOG(LogLevel::Error, "Error: Can't find descriptor %d", static_cast<int>(desc));
    return;
  }
  const SegmentHandle handle = found->second;
  m_handles.erase(found);
  lock.resetCriticalSection(nullptr);
  closeSegment(handle);
}

bool DiskCache::IsSegmentOpened(guid_t guid) { return isInOpenTable(guid, RM_CODE_LOCATION); }

bool DiskCache::isInOpenTable(const guid_t& guid, const RMCodeLocation& where) {
  DC_LOG_AT(where, LogLevel::Segment, "checking whether disk segment [%s] opened.", guid.c_str());
  const KxCriticalSectionLock lock(&m_openSegmentsLock);
  return m_openSegments.contains(guid);
}

// Returns when all work on segments that is going on now has ended; new work may have begun.
void DiskCache::waitForSegmentWork() {
  std::vector<guid_t> inUse;
  {
    const KxCriticalSectionLock lock(&m_openSegmentsLock);
    for (const auto& [guid, segment] : m_openSegments) inUse.push_back(guid);
  }
  for (const guid_t& guid : inUse) const QuietSegment once(*this, guid);
}

OpenSegmentInfo* DiskCache::segInfoFromHandle(const SegmentHandle& handle) { return handle->second; }

}  // namespace ObjectStore
