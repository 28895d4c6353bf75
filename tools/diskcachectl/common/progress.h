// A progress bar on standard error.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace diskcachectl {

// Shows only when standard error is a terminal and the work has taken more than a second; its line is wiped
// at the end. Used by one thread.
class Progress {
 public:
  explicit Progress(std::string what);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Whether anybody would see it: standard error is a terminal.
  bool isWanted() const { return m_isTerminal; }

  // `part` of the work is done, 0 to 1; `detail` follows the bar.
  void show(double part, std::string_view detail);
  // "1,234 of 5,678"
  void show(uint64_t done, uint64_t total);

 private:
  const std::string m_what;
  const bool m_isTerminal;
  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
  bool m_isShown = false;
};

}  // namespace diskcachectl
