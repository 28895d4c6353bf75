#include "support/thread.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace ObjectStore {

struct KXThreadH {
  std::thread thread;
  mutable std::mutex mutex;
  std::condition_variable ended;
  bool running = true;

  bool inProgress() const {
    const std::lock_guard lock(mutex);
    return running;
  }
  void markEnded() {
    const std::lock_guard lock(mutex);
    running = false;
    ended.notify_all();
  }
};

KXThread::KXThread() = default;
KXThread::KXThread(KXThread&&) noexcept = default;

KXThread& KXThread::operator=(KXThread&& other) noexcept {
  joinThread(WAIT_FOREVER, nullptr);
  m_impl = std::move(other.m_impl);
  m_lastError = std::move(other.m_lastError);
  return *this;
}

KXThread::~KXThread() { joinThread(WAIT_FOREVER, nullptr); }

bool KXThread::createThread(void* (*fn)(void*), void* arg) {
  if (threadInProgress()) {
    m_lastError = "thread is already running";
    return false;
  }
  joinThread(WAIT_FOREVER, nullptr);  // a thread that has ended but was never joined
  try {
    auto impl = std::make_unique<KXThreadH>();
    impl->thread = std::thread([state = impl.get(), fn, arg] {
      fn(arg);
      state->markEnded();
    });
    m_impl = std::move(impl);
    return true;
  } catch (const std::system_error& e) {
    m_lastError = e.what();
  } catch (const std::bad_alloc&) {
    m_lastError = "out of memory";
  }
  return false;
}

bool KXThread::threadInProgress() const { return m_impl && m_impl->inProgress(); }

void KXThread::joinThread(unsigned timeoutMs, bool* timedOut) {
  if (timedOut) *timedOut = false;
  if (!m_impl) return;
  if (timeoutMs != WAIT_FOREVER) {
    std::unique_lock lock(m_impl->mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    if (!m_impl->ended.wait_until(lock, deadline, [this] { return !m_impl->running; })) {
      if (timedOut) *timedOut = true;
      return;
    }
  }
  m_impl->thread.join();
  m_impl.reset();
}

}  // namespace ObjectStore
