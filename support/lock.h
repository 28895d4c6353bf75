// The lock that every guarded member of the cache uses, and its scoped guards.
//
// KxCriticalSection is recursive: a client's pruning callback may come back into the engine on the thread
// that called it. All types here may be used from any thread; a guard belongs to the thread that made it.
// Everything is inline: a read takes two locks and more, and the calls would cost as much as the locks.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <utility>

#include "support/export.h"
#include "support/threadAnnotations.h"

namespace ObjectStore {

// One atomic step to take it and one to give it up while nobody else wants it; who has to wait sleeps at once.
// errno stays as it is.
struct KxCriticalSectionH {
  ~KxCriticalSectionH() { DC_TELL_SANITIZER(destroy(this, 0)); }
  void lock() noexcept {
    const pthread_t self = callingThread();
    if (holder.load(std::memory_order_relaxed) != self) {
      DC_TELL_SANITIZER(pre_lock(this, 0));
      int free = FREE;
      if (!state.compare_exchange_strong(free, HELD, std::memory_order_acquire, std::memory_order_relaxed)) {
        sleepUntilHeld();
      }
      DC_TELL_SANITIZER(post_lock(this, 0, 0));
      holder.store(self, std::memory_order_relaxed);
    }
    ++depth;
  }
  void unlock() noexcept {
    if (--depth != 0) return;
    holder.store(NOBODY, std::memory_order_relaxed);
    DC_TELL_SANITIZER(pre_unlock(this, 0));
    if (state.exchange(FREE, std::memory_order_release) == AWAITED) wakeOne();
    DC_TELL_SANITIZER(post_unlock(this, 0));
  }
  // Not pthread_self() here: compilers take that for constant, also where a coroutine goes on in another thread.
  DISKCACHE_EXPORT static pthread_t callingThread() noexcept;
  DISKCACHE_EXPORT void sleepUntilHeld() noexcept;
  DISKCACHE_EXPORT void wakeOne() noexcept;

  enum : int { FREE, HELD, AWAITED };  // AWAITED: held, and some thread may sleep until it is free
  static constexpr pthread_t NOBODY = 0;
  std::atomic<int> state = FREE;
  std::atomic<pthread_t> holder = NOBODY;
  unsigned depth = 0;  // entries of the holder
};

class DC_CAPABILITY("mutex") KxCriticalSection {
 public:
  // Throws `const char*` "Not enough memory to initialize KxCriticalSection".
  DISKCACHE_EXPORT KxCriticalSection();
  KxCriticalSection(const KxCriticalSection&) = delete;
  KxCriticalSection& operator=(const KxCriticalSection&) = delete;

  // Blocks until the calling thread holds the lock, once more if it held it already. Callers pass true.
  void enter(bool /*wait*/) DC_ACQUIRE() DC_NO_THREAD_SAFETY_ANALYSIS { m_impl->lock(); }
  // Gives up one entry of the calling thread.
  void leave() DC_RELEASE() DC_NO_THREAD_SAFETY_ANALYSIS { m_impl->unlock(); }
  // Returns when `until()`, asked with the lock held and again after each notification, is true. While it
  // waits the calling thread has no entry of the lock, and afterwards as many as before: whoever is waited
  // for is not kept out by a caller that holds the lock already.
  template <typename Condition>
  void waitWithoutAnyEntry(std::condition_variable_any& changed, Condition until) DC_REQUIRES(this) {
    AllEntries entries{*m_impl, 0};
    while (!until()) changed.wait(entries);
  }

 private:
  // Every entry of the holding thread, as one lock.
  struct AllEntries {
    void unlock() {
      count = std::exchange(section.depth, 1);
      section.unlock();
    }
    void lock() {
      section.lock();
      section.depth = count;
    }
    KxCriticalSectionH& section;
    unsigned count;
  };

  std::unique_ptr<KxCriticalSectionH> m_impl;
};

// Holds a lock for a scope. Built on null it holds nothing.
class DC_SCOPED_CAPABILITY KxCriticalSectionLock {
 public:
  explicit KxCriticalSectionLock(KxCriticalSection* cs) DC_ACQUIRE(cs) DC_NO_THREAD_SAFETY_ANALYSIS
      : m_cs(cs) {
    if (m_cs) m_cs->enter(true);
  }
  ~KxCriticalSectionLock() DC_RELEASE() DC_NO_THREAD_SAFETY_ANALYSIS {
    if (m_cs) m_cs->leave();
  }
  KxCriticalSectionLock(const KxCriticalSectionLock&) = delete;
  KxCriticalSectionLock& operator=(const KxCriticalSectionLock&) = delete;

  // Releases what is held and takes `cs` instead. Null releases early, and the destructor then does
  // nothing. The analysis sees a release: code that hands over a second lock reads no guarded member
  // through this guard.
  void resetCriticalSection(KxCriticalSection* cs) DC_RELEASE() DC_NO_THREAD_SAFETY_ANALYSIS {
    if (m_cs) m_cs->leave();
    m_cs = cs;
    if (m_cs) m_cs->enter(true);
  }

 private:
  KxCriticalSection* m_cs;
};

// The inverse guard: gives a held lock up for a scope and has it again on every way out, exceptions too.
class KxCriticalSectionUnlock {
 public:
  explicit KxCriticalSectionUnlock(KxCriticalSection& cs) DC_NO_THREAD_SAFETY_ANALYSIS : m_cs(cs) {
    m_cs.leave();
  }
  ~KxCriticalSectionUnlock() DC_NO_THREAD_SAFETY_ANALYSIS { m_cs.enter(true); }
  KxCriticalSectionUnlock(const KxCriticalSectionUnlock&) = delete;
  KxCriticalSectionUnlock& operator=(const KxCriticalSectionUnlock&) = delete;

 private:
  KxCriticalSection& m_cs;
};

}  // namespace ObjectStore
