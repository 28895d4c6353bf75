// One at a time for changes of one key at the store, so that the last one here is the last one there.
#pragma once

#include <array>
#include <functional>
#include <string_view>

#include "support/lock.h"

namespace diskcached {

class KeyLocks {
 public:
  ObjectStore::KxCriticalSection& of(std::string_view key) {
    return m_locks[std::hash<std::string_view>()(key) % m_locks.size()];
  }

 private:
  std::array<ObjectStore::KxCriticalSection, 256> m_locks;  // each for many keys
};

}  // namespace diskcached
