// The bytes of a segment file: its header, and appending, changing and finding section records.
//
// Internal. Used by one thread a descriptor; no lock is taken but the volumes' for a moment. Every failure is
// logged here; one for want of room is counted.
#pragma once

#include <cstdint>
#include <cstdio>

#include "diskcache/diskcacheSettings.h"
#include "diskcache/diskcacheSpace.h"
#include "diskcache/diskcacheTypes.h"
#include "diskcache/diskcacheVolume.h"
#include "diskcache/segmentFormat.h"
#include "support/error.h"
#include "support/lock.h"
#include "support/threadAnnotations.h"

namespace ObjectStore {

// EINVAL for a header of another kind of file, EIO for one that is cut.
CZuError readSegmentHeader(SegmentHeader& header, int fd);
CZuError readSegmentHeader(SegmentHeader& header, std::FILE* stream);
CZuError writeSegmentHeader(std::FILE* stream);

// Sets `found` and `offset` to where the section of a type begins; EINVAL for a type that none can have.
CZuError findSection(bool* found, uint64_t* offset, int type, const SegmentHeader& header);
// The section that begins last, of types 0 to 4; type -1 and offset 0 when there is none.
CZuError findLastSection(int* type, uint64_t* offset, const SegmentHeader& header);

class SegmentRecords {
 public:
  SegmentRecords(const DiskCacheSettings& settings, DiskCacheSpace& space, DiskCacheVolumes& volumes)
      : m_settings(settings), m_space(space), m_volumes(volumes) {}

  CZuError writeSegmentHeader(int fd);
  // Writes a section behind all others. ENOSPC when the volume has no room; in mode Random the pruner first
  // gets a second to make some.
  CZuError appendSection(int fd, VolIndex volume, const Section& section);
  // Writes into the record at an offset. The segment's lock, which the caller holds, is given up while the
  // bytes move.
  CZuError modifySection(int fd, const Section& section, uint64_t recordOffset, KxCriticalSection& lock)
      DC_REQUIRES(lock);

 private:
  bool waitForRoom(VolIndex volume, uint64_t bytes, const RMCodeLocation& where);

  const DiskCacheSettings& m_settings;
  DiskCacheSpace& m_space;
  DiskCacheVolumes& m_volumes;
};

}  // namespace ObjectStore
