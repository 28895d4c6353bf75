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
    m_error = cache.openInTable(m_handle, guid);
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

// Counts its owner as a writer that overwrites payload in place. Made and destroyed with the segment's lock
// held; between the two the lock may be given up.
class InPlaceWriter {
 public:
  explicit InPlaceWriter(OpenSegmentInfo& segment) : m_segment(segment) { ++m_segment.inPlaceWriters; }
  ~InPlaceWriter() { --m_segment.inPlaceWriters; }
  InPlaceWriter(const InPlaceWriter&) = delete;
  InPlaceWriter& operator=(const InPlaceWriter&) = delete;

 private:
  OpenSegmentInfo& m_segment;
};

// Waits, with the segment's lock held, until no writer is overwriting payload in place: such a writer has
// given the lock up, and a copy made now could hold half of its bytes.
void waitForInPlaceWriters(OpenSegmentInfo& segment) DC_REQUIRES(segment.lock);

}  // namespace ObjectStore
