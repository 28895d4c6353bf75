// What a condition variable needs of a lock whose guard stays in its scope.
#pragma once

#include "support/lock.h"

namespace ObjectStore {

struct Waitable {
  void lock() DC_NO_THREAD_SAFETY_ANALYSIS { section.enter(true); }
  void unlock() DC_NO_THREAD_SAFETY_ANALYSIS { section.leave(); }
  KxCriticalSection& section;
};

}  // namespace ObjectStore
