// Where the operations find a segment, and where they change or make it: in its context's own directory or
// the non-prunable one, on either side of a migration.
//
// Internal. Any thread may call the operations; no lock is held when they return.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <string>

#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcacheTypes.h"
#include "support/error.h"

namespace ObjectStore {

class SegmentPlaces {
 public:
  explicit SegmentPlaces(DiskCacheMigrator& migrator) : m_migrator(migrator) {}
  SegmentPlaces(const SegmentPlaces&) = delete;
  SegmentPlaces& operator=(const SegmentPlaces&) = delete;

  // A segment's path; "", which no file can have, on a volume that is not known, so that nobody looks into
  // the working directory.
  std::string segmentPath(const guid_t& guid, VolIndex volume, const std::string& dir);
  // Sets `path` to the same; whether a copy is there, or cannot be looked at.
  bool isCopyThere(std::string& path, const guid_t& guid, VolIndex volume, const std::string& dir);
  // The path of the copy that counts.
  std::string pathInUse(const DiskCacheContext& ctx, const guid_t& guid);
  // Asked in turn, so that a segment which changes its place between two questions is met by the next.
  bool isInEitherPlace(const DiskCacheContext& ctx, const guid_t& guid);

  // segmentPath of a segment that is going to be changed or made, under its lock.
  CZuError claimPath(std::string& path, const guid_t& guid, VolIndex volume, const std::string& dir,
                     const RMCodeLocation& where);
  // Moves a segment's file to its other place. `dir` is the directory that it leaves; a migration may have
  // put the two on different file systems.
  CZuError moveSegment(const DiskCacheContext& ctx, const guid_t& guid, const std::string& dir,
                       const std::string& source, const std::string& target, const RMCodeLocation& where);

  // Calls `look`, which looks for a segment in the places of its context and returns ENOENT when it is in
  // none, until it is found or surely absent. A segment that is moved between the looks into two places seems
  // to be in neither; when no move was under way meanwhile, it was not there. While its volume is migrated
  // the places are twice as many, and one more look has to do.
  template <typename Look>
  int lookUntilCertain(const DiskCacheContext& ctx, Look look) {
    constexpr int MAX_LOOKS = 50;  // moves of other segments must not keep an honest miss for ever
    for (int looks = 1;; ++looks) {
      const uint64_t done = m_movesDone.load();
      const uint32_t generation = m_migrator.generation();
      const int error = look();
      if (error != ENOENT || looks == MAX_LOOKS) return error;
      const bool mayHaveMoved = ctx.useNonPrunableDir && m_movesBegun.load() != done;
      const bool mayHaveMigrated =
          m_migrator.generation() != generation || (looks == 1 && m_migrator.isMigrating(ctx.volume));
      if (!mayHaveMoved && !mayHaveMigrated) return error;
    }
  }

 private:
  DiskCacheMigrator& m_migrator;
  // Segments' moves between two places, begun and done: while they differ, one is under way.
  std::atomic<uint64_t> m_movesBegun{0};
  std::atomic<uint64_t> m_movesDone{0};
};

}  // namespace ObjectStore
