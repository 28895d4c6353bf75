// Steps that several operations on segments begin with.
//
// Internal.
#pragma once

#include <string>

#include "diskcache/diskcacheState.h"
#include "diskcache/diskcacheTypes.h"
#include "support/error.h"

namespace ObjectStore {

// Touches a segment that is going to be changed. EINVAL when the context lacks the directory that it says it
// has.
CZuError beginChange(DiskCacheState& engine, const DiskCacheContext& ctx, const guid_t& guid,
                     const RMCodeLocation& where);

// DiskCache::copyOverrideSegment.
CZuError copyOverride(DiskCacheState& engine, const DiskCacheContext& ctx, const guid_t& guid, bool move);

// Whether a write first makes sure of an override copy.
bool copiesFirst(const DiskCacheContext& ctx, ForceDiskLoc force);

// Sets `path` to the copy that is to be changed, which is made first where the context says so. Under the
// segment's lock, so that a migration cannot move the file on.
CZuError resolveForWrite(DiskCacheState& engine, std::string& path, const DiskCacheContext& ctx,
                         const guid_t& guid, ForceDiskLoc force, const RMCodeLocation& where);

// Neither there nor absent: to go on could replace a copy or lose one, to do nothing would pass for success.
CZuError cannotLookAt(const std::string& path, int error, const RMCodeLocation& where);

}  // namespace ObjectStore
