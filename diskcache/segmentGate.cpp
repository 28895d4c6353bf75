#include "diskcache/segmentGate.h"

namespace ObjectStore {

void SegmentGate::takeTurn(KxCriticalSection& lock, bool alone) {
  const size_t ticket = m_nextTicket++;
  lock.waitWithoutAnyEntry(m_turnMayHaveCome, [this, ticket, alone] {
    return m_nextServed == ticket && (alone ? m_holders == 0 : !m_isAlone);
  });
  ++m_nextServed;
  ++m_holders;
  m_isAlone = alone;
  if (waiting() > 0) m_turnMayHaveCome.notify_all();  // the next may share this turn
}

bool SegmentGate::becomeAlone(KxCriticalSection& lock) {
  if (m_holders == 1) {
    m_isAlone = true;
    return true;
  }
  leave();
  enterAlone(lock);
  return false;
}

void SegmentGate::leave() {
  m_isAlone = false;
  if (--m_holders == 0 && waiting() > 0) m_turnMayHaveCome.notify_all();
}

}  // namespace ObjectStore
