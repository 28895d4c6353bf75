// A joinable thread with a text for its last failure.
#pragma once

#include <memory>
#include <string>

#include "support/export.h"

namespace ObjectStore {

struct KXThreadH;

// One owner creates, joins and destroys; threadInProgress() may be asked from any thread between the two.
class DISKCACHE_EXPORT KXThread {
 public:
  // The time-out of joinThread that never runs out.
  static constexpr unsigned WAIT_FOREVER = 0xFFFFFFFF;

  KXThread();
  // Joins a thread that was not joined.
  ~KXThread();
  KXThread(KXThread&&) noexcept;
  KXThread& operator=(KXThread&&) noexcept;

  // Runs fn(arg) on a new thread. False when one is running already or none can be had; getLastError()
  // then says why.
  bool createThread(void* (*fn)(void*), void* arg);
  const std::string& getLastError() const { return m_lastError; }
  // True from createThread's return to the end of the thread's function.
  bool threadInProgress() const;
  // Waits for the thread's end, at most `timeoutMs` milliseconds. `timedOut` may be null. Without a thread
  // it returns at once; after a time-out it may be called again.
  void joinThread(unsigned timeoutMs, bool* timedOut);

 private:
  std::unique_ptr<KXThreadH> m_impl;
  std::string m_lastError;
};

}  // namespace ObjectStore
