// How far the server is: told by the thread that starts and stops it, asked by the admin socket.
#pragma once

#include <cstdint>
#include <string>

#include "support/lock.h"

namespace diskcached {

enum class Phase { Starting, Ready, Stopping };

class StartState {
 public:
  struct Snapshot {
    Phase phase = Phase::Starting;
    uint64_t blocks = 0;  // found so far
    std::string volume{};
  };
  void setPhase(Phase phase) {
    const ObjectStore::KxCriticalSectionLock lock(&m_lock);
    m_now.phase = phase;
  }
  void setProgress(const std::string& volume, uint64_t blocks) {
    const ObjectStore::KxCriticalSectionLock lock(&m_lock);
    m_now.volume = volume;
    m_now.blocks = blocks;
  }
  Snapshot now() {
    const ObjectStore::KxCriticalSectionLock lock(&m_lock);
    return m_now;
  }

 private:
  ObjectStore::KxCriticalSection m_lock;
  Snapshot m_now DC_GUARDED_BY(m_lock);
};

}  // namespace diskcached
