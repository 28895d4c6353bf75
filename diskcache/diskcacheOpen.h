// The segments that are open: one shared record with a lock for each that is in use.
//
// Internal. Any thread may call the operations. The table's lock is a leaf; the records' locks are taken by
// whoever works on a segment, and never within it.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "diskcache/diskcacheTypes.h"
#include "diskcache/engineSteps.h"
#include "diskcache/lockOrder.h"
#include "support/error.h"
#include "support/lock.h"
#include "support/threadAnnotations.h"

namespace ObjectStore {

class DiskCacheOpenTable {
 public:
  DiskCacheOpenTable();
  // Records of segments still open are not freed, on purpose: whoever kept one open may yet look at it.
  ~DiskCacheOpenTable();
  DiskCacheOpenTable(const DiskCacheOpenTable&) = delete;
  DiskCacheOpenTable& operator=(const DiskCacheOpenTable&) = delete;

  // See DiskCache; `where` is the operation that the lines speak for.
  CZuError openSegment(SegmentHandle& handle, const guid_t& guid, const RMCodeLocation& where);
  void closeSegment(SegmentHandle handle);
  unsigned openSegment(const guid_t& guid, const RMCodeLocation& where);
  void closeSegment(unsigned desc, const RMCodeLocation& where);
  bool isSegmentOpened(const guid_t& guid, const RMCodeLocation& where);

  // Returns when all work on segments that is going on now has ended; new work may have begun.
  void waitForSegmentWork();

 private:
  friend struct DiskCacheTestAccess;
  using OpenTable = std::map<guid_t, OpenSegmentInfo*>;

  KxCriticalSection m_openSegmentsLock DC_ACQUIRED_AFTER(lockOrder::leaves);
  OpenTable m_openSegments DC_GUARDED_BY(m_openSegmentsLock);
  // Entries of closed segments with their records, for the next ones: opening then allocates nothing.
  std::vector<OpenTable::node_type> m_spareEntries DC_GUARDED_BY(m_openSegmentsLock);
  std::map<uint32_t, SegmentHandle> m_handles DC_GUARDED_BY(m_openSegmentsLock);
  uint32_t m_nextHandle DC_GUARDED_BY(m_openSegmentsLock) = 1;
};

// Keeps a segment open. Usual use: guard, test of opened(), then a KxCriticalSectionLock on the record's
// lock, so that the lock goes first at the end of the scope.
class AutoOpenSegment {
 public:
  AutoOpenSegment(DiskCacheOpenTable& table, const guid_t& guid) : m_table(table) {
    m_error = table.openSegment(m_handle, guid, DC_STEP(autoOpenSegment));
    m_open = !m_error.IsError();
  }
  ~AutoOpenSegment() {
    if (m_open) m_table.closeSegment(m_handle);
  }
  AutoOpenSegment(const AutoOpenSegment&) = delete;
  AutoOpenSegment& operator=(const AutoOpenSegment&) = delete;

  // False when the table could not take the segment: there is then no lock to work under.
  bool opened() const { return m_open; }
  const CZuError& error() const { return m_error; }
  OpenSegmentInfo* getSegInfo() { return m_handle->second; }
  const SegmentHandle& handle() const { return m_handle; }
  // Leaves the segment open behind the guard.
  void keepOpen() { m_open = false; }

 private:
  DiskCacheOpenTable& m_table;
  SegmentHandle m_handle;
  CZuError m_error;
  bool m_open = false;
};

// A writer's turn at a segment that is there, for a whole operation: no copy is made, and nothing appended or
// cut, between two of its sections. Made and destroyed with the segment's lock held; between the two the lock
// may be given up. Making it may wait.
class SegmentTurn {
 public:
  enum Kind {
    Shared,  // overwrites sections in place, beside others that do
    Alone,   // appends, or copies the file first
  };
  SegmentTurn(OpenSegmentInfo& segment, Kind kind) DC_REQUIRES(segment.lock);
  ~SegmentTurn() DC_NO_THREAD_SAFETY_ANALYSIS { m_segment.gate.leave(); }
  SegmentTurn(const SegmentTurn&) = delete;
  SegmentTurn& operator=(const SegmentTurn&) = delete;

  // False when others had their turn before: what was seen of the file is out of date.
  bool becomeAlone() DC_NO_THREAD_SAFETY_ANALYSIS { return m_segment.gate.becomeAlone(m_segment.lock); }

 private:
  OpenSegmentInfo& m_segment;
};

// Waits, with the segment's lock held, until the writers who came before are done: one that overwrites in
// place has given the lock up, and a copy made now could hold half of its bytes. From then on the lock alone
// keeps others out, for as long as it is held.
void waitForInPlaceWriters(OpenSegmentInfo& segment) DC_REQUIRES(segment.lock);

// A segment that nobody changes: open, with its lock held and its writers waited for.
class QuietSegment {
 public:
  QuietSegment(DiskCacheOpenTable& table, const guid_t& guid) DC_NO_THREAD_SAFETY_ANALYSIS
      : m_open(table, guid),
        m_lock(m_open.opened() ? &m_open.getSegInfo()->lock : nullptr) {
    if (m_open.opened()) waitForInPlaceWriters(*m_open.getSegInfo());
  }

  // 0, or why the table could not take the segment: there is then no lock to work under.
  int error() const { return RMErrorUtil::GetErrNo(m_open.error()); }

 private:
  AutoOpenSegment m_open;
  const KxCriticalSectionLock m_lock;
};

}  // namespace ObjectStore
