#include "support/lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace ObjectStore {

KxCriticalSection::KxCriticalSection() : m_impl(new (std::nothrow) KxCriticalSectionH) {
  if (!m_impl) throw "Not enough memory to initialize KxCriticalSection";
}

pthread_t KxCriticalSectionH::callingThread() noexcept { return pthread_self(); }

// Whoever has slept takes it as awaited: there may be others, whom its unlock() then wakes one by one.
void KxCriticalSectionH::sleepUntilHeld() noexcept {
  const int saved = errno;
  static_assert(sizeof state == sizeof(int), "what the system waits on");
  while (state.exchange(AWAITED, std::memory_order_acquire) != FREE) {
    syscall(SYS_futex, &state, FUTEX_WAIT_PRIVATE, AWAITED, nullptr);
  }
  errno = saved;
}

void KxCriticalSectionH::wakeOne() noexcept {
  const int saved = errno;
  syscall(SYS_futex, &state, FUTEX_WAKE_PRIVATE, 1);
  errno = saved;
}

}  // namespace ObjectStore
