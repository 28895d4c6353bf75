// Looking for a segment that may be moved meanwhile.
//
// Internal.
#pragma once

#include <cerrno>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheState.h"

namespace ObjectStore {

// Calls `look`, which looks for a segment in the places of its context and returns ENOENT when it is in none,
// until it is found or surely absent. A segment that is moved between the looks into two places seems to be
// in neither; when no move was under way meanwhile, it was not there. While its volume is migrated the places
// are twice as many, and one more look has to do.
template <typename Look>
int DiskCache::lookUntilCertain(const DiskCacheContext& ctx, Look look) {
  constexpr int MAX_LOOKS = 50;  // moves of other segments must not keep an honest miss for ever
  for (int looks = 1;; ++looks) {
    const uint64_t done = m_movesDone.load();
    const uint32_t generation = m_state->migrator.generation();
    const int error = look();
    if (error != ENOENT || looks == MAX_LOOKS) return error;
    const bool mayHaveMoved = ctx.useNonPrunableDir && m_movesBegun.load() != done;
    const bool mayHaveMigrated = m_state->migrator.generation() != generation ||
                                 (looks == 1 && m_state->migrator.isMigrating(ctx.volume));
    if (!mayHaveMoved && !mayHaveMigrated) return error;
  }
}

}  // namespace ObjectStore
