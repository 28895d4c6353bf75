#include "support/event.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

namespace ObjectStore {

struct KxEventH {
  explicit KxEventH(bool initial) : signalled(initial) {}
  std::mutex mutex;
  std::condition_variable changed;
  bool signalled;
};

KxEvent::KxEvent(bool signalled) : m_impl(new (std::nothrow) KxEventH(signalled)) {
  if (!m_impl) throw "Not enough memory to initialize KxEvent";
}

KxEvent::~KxEvent() = default;

void KxEvent::set() {
  const std::lock_guard lock(m_impl->mutex);
  m_impl->signalled = true;
  m_impl->changed.notify_one();
}

bool KxEvent::wait(unsigned long ms) {
  std::unique_lock lock(m_impl->mutex);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  const bool signalled = m_impl->changed.wait_until(lock, deadline, [this] { return m_impl->signalled; });
  m_impl->signalled = false;
  return signalled;
}

}  // namespace ObjectStore
