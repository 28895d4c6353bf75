// The lock that every guarded member of the cache uses, and its scoped guards.
//
// KxCriticalSection is recursive: a client's pruning callback may come back into the engine on the thread
// that called it. All types here may be used from any thread; a guard belongs to the thread that made it.
#pragma once

#include <memory>

#include "support/export.h"
#include "support/threadAnnotations.h"

namespace ObjectStore {

struct KxCriticalSectionH;

class DISKCACHE_EXPORT DC_CAPABILITY("mutex") KxCriticalSection {
 public:
  // Throws `const char*` "Not enough memory to initialize KxCriticalSection".
  KxCriticalSection();
  ~KxCriticalSection();
  KxCriticalSection(const KxCriticalSection&) = delete;
  KxCriticalSection& operator=(const KxCriticalSection&) = delete;

  // Blocks until the calling thread holds the lock, once more if it held it already. Callers pass true.
  void enter(bool wait) DC_ACQUIRE();
  // Gives up one entry of the calling thread.
  void leave() DC_RELEASE();

 private:
  std::unique_ptr<KxCriticalSectionH> m_impl;
};

// Holds a lock for a scope. Built on null it holds nothing.
class DISKCACHE_EXPORT DC_SCOPED_CAPABILITY KxCriticalSectionLock {
 public:
  explicit KxCriticalSectionLock(KxCriticalSection* cs) DC_ACQUIRE(cs);
  ~KxCriticalSectionLock() DC_RELEASE();
  KxCriticalSectionLock(const KxCriticalSectionLock&) = delete;
  KxCriticalSectionLock& operator=(const KxCriticalSectionLock&) = delete;

  // Releases what is held and takes `cs` instead. Null releases early, and the destructor then does
  // nothing. The analysis sees a release: code that hands over a second lock reads no guarded member
  // through this guard.
  void resetCriticalSection(KxCriticalSection* cs) DC_RELEASE();

 private:
  KxCriticalSection* m_cs;
};

// The inverse guard: gives a held lock up for a scope and has it again on every way out, exceptions too.
class DISKCACHE_EXPORT KxCriticalSectionUnlock {
 public:
  explicit KxCriticalSectionUnlock(KxCriticalSection& cs) DC_NO_THREAD_SAFETY_ANALYSIS;
  ~KxCriticalSectionUnlock() DC_NO_THREAD_SAFETY_ANALYSIS;
  KxCriticalSectionUnlock(const KxCriticalSectionUnlock&) = delete;
  KxCriticalSectionUnlock& operator=(const KxCriticalSectionUnlock&) = delete;

 private:
  KxCriticalSection& m_cs;
};

}  // namespace ObjectStore
