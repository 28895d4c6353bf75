// A line of JSON for each request, if it is wanted.
//
// Any thread may call anything. A line is one write to the end of the file, so that lines never mix.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "support/lock.h"

namespace diskcached {

struct AccessLine {
  std::string_view client, method, target, range, cache;
  unsigned status = 0;
  uint64_t bodyBytes = 0;
  std::chrono::nanoseconds took{0};
};

class AccessLog {
 public:
  explicit AccessLog(const std::string& path) { open(path); }
  ~AccessLog();
  AccessLog(const AccessLog&) = delete;
  AccessLog& operator=(const AccessLog&) = delete;

  // Opens the file anew, as after it was moved away; an empty path ends the log. Throws BadOptions.
  void open(const std::string& path);
  bool isWanted() const { return m_isWanted; }
  void write(const AccessLine& line);

 private:
  ObjectStore::KxCriticalSection m_lock;
  int m_fd DC_GUARDED_BY(m_lock) = -1;
  std::atomic<bool> m_isWanted{false};
};

}  // namespace diskcached
