// A signal that one thread sets and another waits for.
#pragma once

#include <memory>

#include "support/export.h"

namespace ObjectStore {

struct KxEventH;

// Latched and auto-reset: a set() before the wait is not lost, several count as one, and the wait that
// sees it clears it. Any thread may call both operations.
class DISKCACHE_EXPORT KxEvent {
 public:
  // `signalled`: whether the first wait returns at once. Throws `const char*`
  // "Not enough memory to initialize KxEvent".
  explicit KxEvent(bool signalled);
  ~KxEvent();
  KxEvent(const KxEvent&) = delete;
  KxEvent& operator=(const KxEvent&) = delete;

  void set();
  // Waits at most `ms` milliseconds of steady time; true when signalled, false when the time ran out.
  bool wait(unsigned long ms);

 private:
  std::unique_ptr<KxEventH> m_impl;
};

}  // namespace ObjectStore
