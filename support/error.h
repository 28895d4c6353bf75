// The error value that the cache's operations return, and where it was raised.
//
// An error carries a system error number (GetErrNo) and a stack of messages: the failing operation's at the
// bottom, what its callers pushed above it. Copies are cheap and share the messages, also those pushed
// later; one value and its copies are not to be pushed onto from two threads at once.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

#include "support/export.h"

namespace ObjectStore {

// A place in the source: file, full signature of the operation, line. Owns nothing.
struct RMCodeLocation {
  const char* file;
  const char* operation;
  int32_t line;
};

#define RM_CODE_LOCATION (::ObjectStore::RMCodeLocation{__FILE__, __PRETTY_FUNCTION__, __LINE__})

enum class EErrorOutputFormat : int32_t {
  Plain = 0,     // the messages, newest first
  Detailed = 2,  // each message with its place in the source
};

// What printf would write, as a string.
__attribute__((format(printf, 1, 0))) std::string formatText(const char* format, va_list args);

struct ErrorRecord;

class [[nodiscard]] DISKCACHE_EXPORT CZuError {
 public:
  CZuError() noexcept = default;

  // Makes this value a success again.
  CZuError& Success() noexcept;
  bool IsError() const noexcept { return m_code < 0; }

  // Puts a message on top of an error's messages; a success stays as it is.
  __attribute__((format(printf, 3, 4))) void Push(const RMCodeLocation& where, const char* format, ...);
  __attribute__((format(printf, 3, 0))) void Push(const RMCodeLocation& where, const char* format,
                                                  va_list args);

  // All messages in one line, newest first, the system's text and number last; "success" without an error.
  std::string AsString() const { return AsString(EErrorOutputFormat::Plain); }
  std::string AsString(EErrorOutputFormat format) const;

 private:
  friend struct RMErrorUtil;
  CZuError(int32_t code, std::shared_ptr<ErrorRecord> record) noexcept;

  int32_t m_code = 0;
  // Null for success, and for the one error that could not allocate it: that one carries ENOMEM.
  std::shared_ptr<ErrorRecord> m_record;
};

struct DISKCACHE_EXPORT RMErrorUtil {
  // An error whatever `errNo` is: 0 gives an error with the number 0 (a transfer that came up short without
  // the system reporting why). Never throws.
  static CZuError ErrorErrNo(const RMCodeLocation& where, int errNo) noexcept;
  __attribute__((format(printf, 3, 4))) static CZuError ErrorErrNo(const RMCodeLocation& where, int errNo,
                                                                   const char* format, ...) noexcept;
  // The number given to ErrorErrNo; 0 for success.
  static int GetErrNo(const CZuError& error) noexcept;
  // Whether `error` is an error that carries exactly `errNo`.
  static bool IsErrNo(const CZuError& error, int errNo) noexcept;
};

}  // namespace ObjectStore
