// The order in which the engine's locks are taken, for the analysis of the clang build.
//
// Internal. A component's lock cannot be named outside it, so each says between which two of these levels it
// stands. Nothing is ever locked here.
#pragma once

#include "support/threadAnnotations.h"

namespace ObjectStore::lockOrder {

struct DC_CAPABILITY("level") Level {};

// Outermost first: starting and ending a migration; the recency list, which is held while a client's callback
// works on segments; a segment's own lock; volumes, and what appears on either side of a migration; leaves.
extern Level lists;
extern Level segments DC_ACQUIRED_AFTER(lists);
extern Level volumes DC_ACQUIRED_AFTER(segments);
extern Level leaves DC_ACQUIRED_AFTER(volumes);

}  // namespace ObjectStore::lockOrder
