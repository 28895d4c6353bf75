// The scope guard that keeps a segment open in the engine's table.
//
// Internal. Usual use: guard, test of opened(), then a KxCriticalSectionLock on the record's lock, so that
// the lock goes first at the end of the scope.
#pragma once

#include "diskcache/diskcache.h"

namespace ObjectStore {

class AutoOpenSegment {
 public:
  AutoOpenSegment(DiskCache& cache, const guid_t& guid) : m_cache(cache) {
    m_error = cache.openInTable(m_handle, guid, RM_CODE_LOCATION);
    m_open = !m_error.IsError();
  }
  ~AutoOpenSegment() {
    if (m_open) m_cache.closeSegment(m_handle);
  }
  AutoOpenSegment(const AutoOpenSegment&) = delete;
  AutoOpenSegment& operator=(const AutoOpenSegment&) = delete;

  // False when the table could not take the segment: there is then no lock to work under.
  bool opened() const { return m_open; }
  const CZuError& error() const { return m_error; }
  OpenSegmentInfo* getSegInfo() { return m_cache.segInfoFromHandle(m_handle); }
  const SegmentHandle& handle() const { return m_handle; }
  // Leaves the segment open behind the guard.
  void keepOpen() { m_open = false; }

 private:
  DiskCache& m_cache;
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
  QuietSegment(DiskCache& cache, const guid_t& guid) DC_NO_THREAD_SAFETY_ANALYSIS
      : m_open(cache, guid),
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
