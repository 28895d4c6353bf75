#include "support/lock.h"

#include <mutex>
#include <new>

namespace ObjectStore {

struct KxCriticalSectionH {
  std::recursive_mutex mutex;
};

KxCriticalSection::KxCriticalSection() : m_impl(new (std::nothrow) KxCriticalSectionH) {
  if (!m_impl) throw "Not enough memory to initialize KxCriticalSection";
}

KxCriticalSection::~KxCriticalSection() = default;

void KxCriticalSection::enter(bool /*wait*/) DC_NO_THREAD_SAFETY_ANALYSIS { m_impl->mutex.lock(); }
void KxCriticalSection::leave() DC_NO_THREAD_SAFETY_ANALYSIS { m_impl->mutex.unlock(); }

KxCriticalSectionLock::KxCriticalSectionLock(KxCriticalSection* cs) DC_NO_THREAD_SAFETY_ANALYSIS : m_cs(cs) {
  if (m_cs) m_cs->enter(true);
}

KxCriticalSectionLock::~KxCriticalSectionLock() DC_NO_THREAD_SAFETY_ANALYSIS {
  if (m_cs) m_cs->leave();
}

void KxCriticalSectionLock::resetCriticalSection(KxCriticalSection* cs) DC_NO_THREAD_SAFETY_ANALYSIS {
  if (m_cs) m_cs->leave();
  m_cs = cs;
  if (m_cs) m_cs->enter(true);
}

KxCriticalSectionUnlock::KxCriticalSectionUnlock(KxCriticalSection& cs) : m_cs(cs) { m_cs.leave(); }
KxCriticalSectionUnlock::~KxCriticalSectionUnlock() { m_cs.enter(true); }

}  // namespace ObjectStore
