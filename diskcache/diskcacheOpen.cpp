#include "diskcache/diskcacheOpen.h"

#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr uint32_t NEVER_A_DESCRIPTOR = 0xFFFFFFFF;
constexpr size_t MAX_SPARE_ENTRIES = 16;  // about as many segments as threads change at once

}  // namespace

DiskCacheOpenTable::DiskCacheOpenTable() DC_NO_THREAD_SAFETY_ANALYSIS {
  m_spareEntries.reserve(MAX_SPARE_ENTRIES);
}

DiskCacheOpenTable::~DiskCacheOpenTable() DC_NO_THREAD_SAFETY_ANALYSIS {
  for (const OpenTable::node_type& entry : m_spareEntries) delete entry.mapped();
}

CZuError DiskCacheOpenTable::openSegment(SegmentHandle& handle, const guid_t& guid,
                                         const RMCodeLocation& where) try {
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

void DiskCacheOpenTable::closeSegment(SegmentHandle handle) {
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

unsigned DiskCacheOpenTable::openSegment(const guid_t& guid, const RMCodeLocation& where) try {
  DC_LOG_AT(where, LogLevel::Segment, "Opening disk segment for [%s]", guid.c_str());
  AutoOpenSegment open(*this, guid);
  if (!open.opened()) return 0;

  const KxCriticalSectionLock lock(&m_openSegmentsLock);
  for (uint32_t attempt = 0; attempt < NEVER_A_DESCRIPTOR; ++attempt) {
    const uint32_t candidate = m_nextHandle++;
    if (m_nextHandle == NEVER_A_DESCRIPTOR) m_nextHandle = 1;
    if (!m_handles.try_emplace(candidate, open.handle()).second) continue;
    open.keepOpen();
    DC_LOG_AT(where, LogLevel::Segment, "opened disk segment %d", static_cast<int>(candidate));
    return candidate;
  }
  DC_LOG_AT(where, LogLevel::Error, "Error: can't find unused descriptor for [%s]", guid.c_str());
  return 0;
} catch (...) {
  (void)failWithException(where);  // logged; the result has no room for a number
  return 0;
}

void DiskCacheOpenTable::closeSegment(unsigned desc, const RMCodeLocation& where) {
  KxCriticalSectionLock lock(&m_openSegmentsLock);
  const auto found = m_handles.find(desc);
  if (found == m_handles.end()) {
    DC_LOG_AT(where, LogLevel::Error, "Error: Can't find descriptor %d", static_cast<int>(desc));
    return;
  }
  const SegmentHandle handle = found->second;
  m_handles.erase(found);
  lock.resetCriticalSection(nullptr);
  closeSegment(handle);
}

bool DiskCacheOpenTable::isSegmentOpened(const guid_t& guid, const RMCodeLocation& where) {
  DC_LOG_AT(where, LogLevel::Segment, "checking whether disk segment [%s] opened.", guid.c_str());
  const KxCriticalSectionLock lock(&m_openSegmentsLock);
  return m_openSegments.contains(guid);
}

void DiskCacheOpenTable::waitForSegmentWork() {
  std::vector<guid_t> inUse;
  {
    const KxCriticalSectionLock lock(&m_openSegmentsLock);
    for (const auto& [guid, segment] : m_openSegments) inUse.push_back(guid);
  }
  for (const guid_t& guid : inUse) const QuietSegment once(*this, guid);
}

SegmentTurn::SegmentTurn(OpenSegmentInfo& segment, Kind kind) : m_segment(segment) {
  kind == Alone ? segment.gate.enterAlone(segment.lock) : segment.gate.enterShared(segment.lock);
}

void waitForInPlaceWriters(OpenSegmentInfo& segment) { const SegmentTurn turn(segment, SegmentTurn::Alone); }

}  // namespace ObjectStore
