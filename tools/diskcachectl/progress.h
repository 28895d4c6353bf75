// A progress bar on standard error.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace diskcachectl {

// Shows only when standard error is a terminal and the work has taken more than a second; its line is wiped
// at the end. Used by one thread.
class Progress {
 public:
  Progress(std::string what, uint64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void show(uint64_t done);

 private:
  const std::string m_what;
  const uint64_t m_total;
  const bool m_isTerminal;
  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
  bool m_isShown = false;
};

}  // namespace diskcachectl
