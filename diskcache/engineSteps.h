// What the log calls the steps that the engine's operations share: whoever reads it knows them as operations
// of the engine, whichever component takes them.
//
// Internal.
#pragma once

#include "support/error.h"

// The place of a step's line: DC_LOG_AT(DC_STEP(loadVolumeInfo), level, ...).
#define DC_STEP(step) (::ObjectStore::RMCodeLocation{__FILE__, ::ObjectStore::engineStep::step, __LINE__})

namespace ObjectStore::engineStep {

inline constexpr const char* autoOpenSegment =
    "ObjectStore::AutoOpenSegment::AutoOpenSegment(ObjectStore::DiskCache&, const ObjectStore::guid_t&)";
inline constexpr const char* delayWriteToSegment = "void ObjectStore::DiskCache::delayWriteToSegment()";

}  // namespace ObjectStore::engineStep
