// Faults in the calls of wrappedCalls.txt that our own objects make, and a record of those calls.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ObjectStore {

// Records calls and injects faults while it lives, on every thread. A call is named as in the C library, the
// start of a std::thread "thread". A fault that never came to pass fails the test when the plan ends.
class FaultPlan {
 public:
  static constexpr std::string_view ANY = "any";  // in place of a call's name

  FaultPlan();
  ~FaultPlan();
  FaultPlan& operator=(FaultPlan&&) = delete;

  // The nth call from now on (1 is the next) is not made but fails with `errNo`; a failing close closes.
  FaultPlan& fail(std::string_view call, size_t nth, int errNo);
  FaultPlan& failAlways(std::string_view call, int errNo);
  // The nth call from now on moves at most `bytes` bytes, reports that and leaves errno alone.
  FaultPlan& shortTransfer(std::string_view call, size_t nth, size_t bytes);
  // The fault planned last stays from its call on.
  void forGood();
  // The nth call from now on, whichever it is, is not made: the process dies of SIGKILL in its place.
  FaultPlan& killAt(size_t nth);
  // The nth call from now on, one at most at a time, is made only after release() or the plan's end.
  FaultPlan& hold(std::string_view call, size_t nth);
  bool held() const;  // false when that call did not come in time
  void release();
  // nanosleep (and with it std::this_thread::sleep_for) returns at once; what it was asked for is kept.
  void skipSleeps();

  // What was called since the plan began, in order; taking begins the record anew and keeps the faults.
  std::vector<std::string> trace() const;
  std::vector<std::string> takeTrace();
  size_t count(std::string_view call) const;
  std::vector<std::chrono::nanoseconds> sleeps() const;

  // The longest that a thread has begun to wait for an event since the plan began; not part of the record.
  std::chrono::milliseconds longestWait() const;

  void clearFaults();  // also those to come
};

// While it lives, the nth allocation from now on (1 is the next) that this thread makes in our own objects
// throws std::bad_alloc.
class FailingNew {
 public:
  explicit FailingNew(size_t nth) { s_left = nth; }
  ~FailingNew() { s_left = 0; }
  FailingNew& operator=(FailingNew&&) = delete;
  bool happened() const { return s_left == 0; }

  static inline thread_local size_t s_left = 0;  // up to and with the one that fails; 0: none fails
};

}  // namespace ObjectStore
