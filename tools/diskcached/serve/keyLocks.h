// What the disks and the index hold of one key is changed by one at a time; never held while the store is asked.
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
