// A few threads for calls that block, with a bounded queue.
//
// Any thread may call anything; stop() runs once, when no coroutine waits for a result any more.
#pragma once

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

#include "serve/suspend.h"
#include "support/lock.h"

namespace diskcached {

// More is wanted than the limits allow just now: to be answered with 503.
struct Overloaded : std::exception {
  const char* what() const noexcept override { return "overloaded"; }
};

class WorkerPool {
 public:
  WorkerPool(unsigned threads, size_t longestQueue);
  ~WorkerPool() { stop(); }
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // False when the queue is full, or there is no memory for it.
  bool post(std::function<void()> work);
  // Does all that is queued and ends the threads.
  void stop();
  size_t queued();

  // The result of `work`, done by a thread of the pool. Throws what it throws; Overloaded when the queue is
  // full.
  template <typename F>
  asio::awaitable<std::invoke_result_t<F&>> run(F work) {
    using Result = std::invoke_result_t<F&>;
    std::optional<Result> result;
    std::exception_ptr thrown;
    const auto perform = [&] {
      try {
        result.emplace(work());
      } catch (...) {
        thrown = std::current_exception();
      }
    };
    const auto start = [&](const std::function<void()>& resume) {
      const bool isQueued = post([&perform, resume] {
        perform();
        resume();
      });
      if (isQueued) return;
      thrown = std::make_exception_ptr(Overloaded());
      resume();
    };
    co_await suspend(start);
    if (thrown) std::rethrow_exception(thrown);
    co_return std::move(*result);
  }

 private:
  void work();

  const size_t m_longestQueue;
  ObjectStore::KxCriticalSection m_lock;
  std::condition_variable_any m_changed;
  std::deque<std::function<void()>> m_queue DC_GUARDED_BY(m_lock);
  bool m_isStopped DC_GUARDED_BY(m_lock) = false;
  std::vector<std::thread> m_threads;
};

}  // namespace diskcached
