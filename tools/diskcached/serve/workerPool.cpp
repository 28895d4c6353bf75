#include "serve/workerPool.h"

#include <new>

#include "support/log.h"

namespace diskcached {

using ObjectStore::KxCriticalSectionLock;

WorkerPool::WorkerPool(unsigned threads, size_t longestQueue) : m_longestQueue(longestQueue) {
  for (unsigned i = 0; i < threads; ++i) m_threads.emplace_back([this] { work(); });
}

bool WorkerPool::post(std::function<void()> work) {
  const KxCriticalSectionLock lock(&m_lock);
  if (m_isStopped || m_queue.size() >= m_longestQueue) return false;
  try {
    m_queue.push_back(std::move(work));
  } catch (const std::bad_alloc&) {
    return false;
  }
  m_changed.notify_one();
  return true;
}

void WorkerPool::stop() {
  {
    const KxCriticalSectionLock lock(&m_lock);
    m_isStopped = true;
    m_changed.notify_all();
  }
  for (std::thread& thread : m_threads) thread.join();
  m_threads.clear();
}

size_t WorkerPool::queued() {
  const KxCriticalSectionLock lock(&m_lock);
  return m_queue.size();
}

void WorkerPool::work() {
  for (;;) {
    std::function<void()> work;
    {
      const KxCriticalSectionLock lock(&m_lock);
      m_lock.waitWithoutAnyEntry(
          m_changed, [this]() DC_NO_THREAD_SAFETY_ANALYSIS { return m_isStopped || !m_queue.empty(); });
      if (m_queue.empty()) return;
      work = std::move(m_queue.front());
      m_queue.pop_front();
    }
    try {
      work();
    } catch (const std::exception& error) {  // no memory, mostly: one request fails, not the server
      DC_LOG(ObjectStore::LogLevel::Error, "Error: a call failed: %s", error.what());
    }
  }
}

}  // namespace diskcached
