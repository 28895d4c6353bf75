#include "support/event.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

namespace ObjectStore {

namespace {

constexpr unsigned long LONGEST_WAIT_MS = 1UL << 40;  // decades; a clock's range ends before that of the type

}  // namespace

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
  ms = std::min(ms, LONGEST_WAIT_MS);
  std::unique_lock lock(m_impl->mutex);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  const bool signalled = m_impl->changed.wait_until(lock, deadline, [this] { return m_impl->signalled; });
  m_impl->signalled = false;
  return signalled;
}

}  // namespace ObjectStore
