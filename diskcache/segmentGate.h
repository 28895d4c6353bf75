// Who may work on a segment's file when: first come, first served.
//
// Internal; shown because a segment's record holds one. The segment's lock guards it, and every operation is
// called with that lock held. Writers that overwrite sections in place give the lock up while their bytes
// move; the gate keeps out meanwhile who must not see half of them, and is not passed by those who come later
// while somebody waits. A wait gives up every entry that the calling thread has of the lock.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>

#include "support/lock.h"

namespace ObjectStore {

class SegmentGate {
 public:
  void enterShared(KxCriticalSection& lock) DC_REQUIRES(lock) { takeTurn(lock, false); }
  void enterAlone(KxCriticalSection& lock) DC_REQUIRES(lock) { takeTurn(lock, true); }
  // For a holder. False when others had their turn before this one was alone: what was seen is out of date.
  bool becomeAlone(KxCriticalSection& lock) DC_REQUIRES(lock);
  void leave();

  // How many wait for their turn.
  size_t waiting() const { return m_nextTicket - m_nextServed; }

 private:
  void takeTurn(KxCriticalSection& lock, bool alone) DC_REQUIRES(lock);

  size_t m_nextTicket = 0;
  size_t m_nextServed = 0;
  uint32_t m_holders = 0;
  bool m_isAlone = false;  // the one holder
  std::condition_variable_any m_turnMayHaveCome;
};

}  // namespace ObjectStore
