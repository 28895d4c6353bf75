// What several wait for: coroutines of any I/O thread, woken by one that does the work.
#pragma once

#include <functional>
#include <vector>

#include "serve/suspend.h"
#include "support/lock.h"

namespace diskcached {

// A value behind a lock, and those who wait for it to change.
template <typename State>
class Watched {
 public:
  // Changes the value, and wakes all who wait when `change` returns true.
  template <typename F>
  void change(F change) {
    std::vector<std::function<void()>> woken;
    {
      const ObjectStore::KxCriticalSectionLock lock(&m_lock);
      if (change(m_state)) woken.swap(m_waiting);
    }
    for (const auto& resume : woken) resume();
  }

  // The value as soon as `isReady` holds for it.
  template <typename F>
  asio::awaitable<State> when(F isReady) {
    for (;;) {
      if (State now = value(); isReady(now)) co_return now;
      const auto start = [&](std::function<void()> resume) { enter(std::move(resume), isReady); };
      co_await suspend(start);
    }
  }

  State value() {
    const ObjectStore::KxCriticalSectionLock lock(&m_lock);
    return m_state;
  }

 private:
  template <typename F>
  void enter(std::function<void()> resume, const F& isReady) {
    {
      const ObjectStore::KxCriticalSectionLock lock(&m_lock);
      if (!isReady(m_state)) {
        m_waiting.push_back(std::move(resume));
        return;
      }
    }
    resume();
  }

  ObjectStore::KxCriticalSection m_lock;
  State m_state DC_GUARDED_BY(m_lock){};
  std::vector<std::function<void()>> m_waiting DC_GUARDED_BY(m_lock);
};

}  // namespace diskcached
