// A log writer that keeps its lines, so that a test can read them, wait for one or hold its writer.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/log.h"

namespace ObjectStore {

constexpr std::chrono::seconds LONGEST_WAIT(30);

// Parts of the names of an operation's steps: a line names what a reader of the log can look up.
constexpr const char* STEPS[] = {"copyEntries",  "pruneEntries",      "scanEntries",
                                 "enableVolume", "setUpVolumes",      "lambda",
                                 "isEnd",        "DiskCacheContexts", "SegmentRecords::"};

struct LogLine {
  int level;
  std::string operation;
  std::string text;
};

// The process's log writer while it lives, which must be longer than any thread that logs.
class LogCapture final : public CLogWriterInterface {
 public:
  explicit LogCapture(int level = LogLevel::Accounting)
      : m_previous(std::exchange(g_ptrLogWriter, {std::shared_ptr<void>(), this})), m_level(level) {}
  ~LogCapture() override { g_ptrLogWriter = m_previous; }

  __attribute__((format(printf, 7, 8))) void write(int level, const char* operation, int, int, int,
                                                   const char* format, ...) override {
    va_list args;
    va_start(args, format);
    const std::string text = formatText(format, args);
    va_end(args);
    std::unique_lock lock(m_mutex);
    m_lines.push_back({level, operation, text});
    for (const char* step : STEPS)
      EXPECT_EQ(m_lines.back().operation.find(step), std::string::npos) << operation << ": " << text;
    const std::shared_ptr<Hold> hold = m_hold;
    const bool holds = hold && !hold->reached && text.find(hold->part) != std::string::npos;
    if (holds) hold->reached = true;
    m_changed.notify_all();
    if (holds) m_changed.wait(lock, [&] { return hold->released; });
    errno = EOWNERDEAD;  // a writer may change errno: code that reports it must have kept it
  }
  int getLevel() const override { return m_level; }
  void setLevel(int level) { m_level = level; }

  std::vector<LogLine> take() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_lines, {});
  }
  void clear() { take(); }
  // The lines of one level as "text", or all as "level text"; the record begins anew.
  std::vector<std::string> takeTexts(int level) {
    std::vector<std::string> texts;
    for (const LogLine& line : take())
      if (line.level == level) texts.push_back(line.text);
    return texts;
  }
  std::vector<std::string> takeTexts() {
    std::vector<std::string> texts;
    for (const LogLine& line : take()) texts.push_back(std::to_string(line.level) + ' ' + line.text);
    return texts;
  }

  // Whether there is a line of exactly this level and text.
  bool has(int level, std::string_view text) const {
    const std::lock_guard lock(m_mutex);
    return std::any_of(m_lines.begin(), m_lines.end(),
                       [&](const LogLine& line) { return line.level == level && line.text == text; });
  }
  // False when no line with `part` in its text came in time.
  bool waitFor(std::string_view part) const {
    const auto fits = [&](const LogLine& line) { return line.text.find(part) != std::string::npos; };
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, LONGEST_WAIT,
                              [&] { return std::any_of(m_lines.begin(), m_lines.end(), fits); });
  }

 private:
  friend class HoldAtLine;
  struct Hold {
    std::string part;
    bool reached = false, released = false;
  };

  std::shared_ptr<CLogWriterInterface> m_previous;
  std::atomic<int> m_level;
  mutable std::mutex m_mutex;  // guards what follows
  mutable std::condition_variable m_changed;
  std::vector<LogLine> m_lines;
  std::shared_ptr<Hold> m_hold;
};

// Holds the first thread that logs a line with `part` in its text, until release() or its own end.
class HoldAtLine {
 public:
  HoldAtLine(LogCapture& log, const std::string& part)
      : m_log(log), m_hold(std::make_shared<LogCapture::Hold>(LogCapture::Hold{part})) {
    const std::lock_guard lock(m_log.m_mutex);
    m_log.m_hold = m_hold;
  }
  ~HoldAtLine() { release(); }
  HoldAtLine& operator=(HoldAtLine&&) = delete;

  bool reached() {
    std::unique_lock lock(m_log.m_mutex);
    return m_log.m_changed.wait_for(lock, LONGEST_WAIT, [this] { return m_hold->reached; });
  }
  void release() {
    const std::lock_guard lock(m_log.m_mutex);
    m_hold->released = true;
    m_log.m_changed.notify_all();
  }

 private:
  LogCapture& m_log;
  const std::shared_ptr<LogCapture::Hold> m_hold;
};

}  // namespace ObjectStore
