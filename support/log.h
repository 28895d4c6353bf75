// The process's log writer: the interface the library writes to, and a default writer for those who have
// none of their own.
//
// The hosting process sets g_ptrLogWriter before it makes an engine and leaves it until the last one is
// gone; null means that nothing is logged. Every thread of the library writes without a lock of the
// cache's, so a writer must be safe for that. It must not throw.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "support/error.h"
#include "support/export.h"

namespace ObjectStore {

// A line of level L is written when the writer's level is at least L.
namespace LogLevel {
inline constexpr int Error = -1;      // every failure but a write refused for lack of space
inline constexpr int Notice = 0;      // clearing the cache, waiting for space
inline constexpr int Setup = 1;       // set-up, registration, watermarks
inline constexpr int Info = 3;        // start and end of threads, volumes
inline constexpr int NoSpace = 4;     // writes refused for lack of space, the pruner's wake-up line
inline constexpr int Segment = 5;     // one or more lines for each segment operation
inline constexpr int Copy = 6;        // one line for each file the migrator copies
inline constexpr int Accounting = 9;  // every change of the space counters
}  // namespace LogLevel

class DISKCACHE_EXPORT CLogWriterInterface {
 public:
  virtual ~CLogWriterInterface() = default;
  // Writes one line. `operation` is the full signature of the operation and `line` its source line; the two
  // arguments behind them are always 0.
  __attribute__((format(printf, 7, 8))) virtual void write(int level, const char* operation, int line,
                                                           int reserved1, int reserved2, const char* format,
                                                           ...) = 0;
  virtual int getLevel() const = 0;
};

DISKCACHE_EXPORT extern std::shared_ptr<CLogWriterInterface> g_ptrLogWriter;

inline bool isLogged(int level) { return g_ptrLogWriter && g_ptrLogWriter->getLevel() >= level; }

// Writes one line of a level; its arguments are not evaluated when the level is off. The level itself is
// evaluated twice: give a constant or a variable.
#define DC_LOG(level, ...)                                                                               \
  (::ObjectStore::isLogged(level)                                                                        \
       ? ::ObjectStore::g_ptrLogWriter->write((level), __PRETTY_FUNCTION__, __LINE__, 0, 0, __VA_ARGS__) \
       : static_cast<void>(0))

// The same on behalf of an operation that calls a shared step: a line names an operation of a class's
// interface, never a helper, a lambda or a step of one.
#define DC_LOG_AT(where, level, ...)                                                                       \
  (::ObjectStore::isLogged(level)                                                                          \
       ? ::ObjectStore::g_ptrLogWriter->write((level), (where).operation, (where).line, 0, 0, __VA_ARGS__) \
       : static_cast<void>(0))

// A failure's count by its number (0 to FAILURE_NUMBERS - 1; the last one: all others) in this process. Every
// failure below counts once, where it is found, but for a file that is only traced as missing: a miss.
inline constexpr int FAILURE_NUMBERS = 136;
DISKCACHE_EXPORT void countFailure(int errNo, int level = LogLevel::Error) noexcept;
uint64_t failuresOf(int errNo) noexcept;
// Counts what a step that logs for itself has come to, 0 or a number, and gives it back.
inline int countedResult(int rc) noexcept {
  if (rc != 0) countFailure(rc);
  return rc;
}

// Logs a failure and makes the error value for it: `return DC_FAIL(LogLevel::Error, err, "...", ...)`.
#define DC_FAIL(level, errNo, ...)                                            \
  (DC_LOG(level, __VA_ARGS__), ::ObjectStore::countFailure((errNo), (level)), \
   ::ObjectStore::RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, (errNo)))

// The same two on behalf of an operation that calls a shared step: the line carries the caller's place.
__attribute__((format(printf, 3, 4))) void logAt(const RMCodeLocation& where, int level, const char* format,
                                                 ...);
__attribute__((format(printf, 4, 5))) CZuError failAt(const RMCodeLocation& where, int level, int errNo,
                                                      const char* format, ...);

// Logs the exception being handled and makes the error value for it, at the edge of a public operation:
// failed allocations become ENOMEM, system errors their own number, anything else EIO.
CZuError failWithException(const RMCodeLocation& where) noexcept;
// The same for a step whose result, this number, is counted by who asked for the step.
int numberOfException(const RMCodeLocation& where) noexcept;

// Does a step that returns 0 or a number; what it throws is logged and becomes its number. For threads of the
// cache's own: nothing that is thrown there may end the process.
template <typename Step>
int guarded(const RMCodeLocation& where, Step&& step) noexcept {
  try {
    return step();
  } catch (...) {
    return RMErrorUtil::GetErrNo(failWithException(where));
  }
}

// Pushes a message onto an error that came from below, logs the whole of it as "%s: %s" (detailed form,
// plain form) at the error level, and returns it.
__attribute__((format(printf, 3, 4))) CZuError pushAndLog(CZuError error, const RMCodeLocation& where,
                                                          const char* format, ...);

// Writes each line as: UTC time, level, operation:line, text. Control characters in a line, also those that
// direct writing, are written as \xNN, so that an identifier cannot forge a line. Any thread may call any
// operation.
class DISKCACHE_EXPORT FileLogWriter : public CLogWriterInterface {
 public:
  // To standard error.
  explicit FileLogWriter(int level);
  // Appends to a file, made with mode 0600. Throws std::system_error when it cannot be opened.
  FileLogWriter(int level, const std::string& path);
  ~FileLogWriter() override;
  FileLogWriter(const FileLogWriter&) = delete;
  FileLogWriter& operator=(const FileLogWriter&) = delete;

  __attribute__((format(printf, 7, 8))) void write(int level, const char* operation, int line, int reserved1,
                                                   int reserved2, const char* format, ...) override;
  int getLevel() const override { return m_level.load(std::memory_order_relaxed); }
  void setLevel(int level) { m_level.store(level, std::memory_order_relaxed); }

 private:
  std::atomic<int> m_level;
  int m_fd;
};

}  // namespace ObjectStore
