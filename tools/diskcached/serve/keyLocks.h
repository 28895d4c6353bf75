// What the disks and the index hold of one key is changed by one at a time. Nobody asks the store while he holds one,
// but who stages or forgets an object waits for those of its blocks that are on their way from there.
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
