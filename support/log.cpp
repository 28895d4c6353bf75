#include "support/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "support/plainText.h"

namespace ObjectStore {

std::shared_ptr<CLogWriterInterface> g_ptrLogWriter;

namespace {

__attribute__((format(printf, 3, 0))) void writeAt(const RMCodeLocation& where, int level, const char* format,
                                                   va_list args) {
  if (!isLogged(level)) return;
  g_ptrLogWriter->write(level, where.operation, where.line, 0, 0, "%s", formatText(format, args).c_str());
}

}  // namespace

void logAt(const RMCodeLocation& where, int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  writeAt(where, level, format, args);
  va_end(args);
}

namespace {

std::array<std::atomic<uint64_t>, FAILURE_NUMBERS> g_failures{};

}  // namespace

void countFailure(int errNo, int level) noexcept {
  if (errNo == ENOENT && level >= LogLevel::Segment) return;
  const bool isKnown = errNo >= 0 && errNo < FAILURE_NUMBERS - 1;
  g_failures[static_cast<size_t>(isKnown ? errNo : FAILURE_NUMBERS - 1)].fetch_add(1,
                                                                                   std::memory_order_relaxed);
}

uint64_t failuresOf(int errNo) noexcept {
  return g_failures[static_cast<size_t>(errNo)].load(std::memory_order_relaxed);
}

CZuError failAt(const RMCodeLocation& where, int level, int errNo, const char* format, ...) {
  va_list args;
  va_start(args, format);
  writeAt(where, level, format, args);
  va_end(args);
  countFailure(errNo, level);
  return RMErrorUtil::ErrorErrNo(where, errNo);
}

namespace {

int numberOfException() noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  } catch (const std::length_error&) {
    return ENOMEM;
  } catch (const char*) {  // a lock or an event that could not be allocated
    return ENOMEM;
  } catch (const std::system_error& e) {
    return e.code().value() != 0 ? e.code().value() : EIO;
  } catch (...) {
    return EIO;
  }
}

}  // namespace

int numberOfException(const RMCodeLocation& where) noexcept {
  const int errNo = numberOfException();
  // Not through logAt: a line about memory must not ask for any.
  try {
    const char* text = errNo == ENOMEM ? "Error: out of memory" : "Error: unexpected exception";
    DC_LOG_AT(where, LogLevel::Error, "%s", text);
  } catch (...) {  // a writer must not throw; one that does loses its line
  }
  return errNo;
}

CZuError failWithException(const RMCodeLocation& where) noexcept {
  return RMErrorUtil::ErrorErrNo(where, countedResult(numberOfException(where)));
}

CZuError pushAndLog(CZuError error, const RMCodeLocation& where, const char* format, ...) {
  va_list args;
  va_start(args, format);
  error.Push(where, format, args);
  va_end(args);
  if (isLogged(LogLevel::Error)) {
    logAt(where, LogLevel::Error, "%s: %s", error.AsString(EErrorOutputFormat::Detailed).c_str(),
          error.AsString().c_str());
  }
  return error;
}

FileLogWriter::FileLogWriter(int level) : m_level(level), m_fd(STDERR_FILENO) {}

FileLogWriter::FileLogWriter(int level, const std::string& path)
    : m_level(level), m_fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
  if (m_fd < 0) throw std::system_error(errno, std::generic_category(), path);
}

FileLogWriter::~FileLogWriter() {
  if (m_fd != STDERR_FILENO) close(m_fd);
}

void FileLogWriter::write(int level, const char* operation, int line, int /*reserved1*/, int /*reserved2*/,
                          const char* format, ...) {
  const int savedErrno = errno;  // callers log between a failing call and its report
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);

  std::array<char, 4096> front;
  const size_t stamp = strftime(front.data(), front.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  snprintf(front.data() + stamp, front.size() - stamp, ".%06ldZ %2d %s:%d ", now.tv_nsec / 1000, level,
           operation, line);
  std::array<char, 8192> text;
  va_list args;
  va_start(args, format);
  vsnprintf(text.data(), text.size(), format, args);
  va_end(args);

  // On the stack, so that a line about failed memory needs none; what does not fit is cut.
  std::array<char, 16384> out;
  size_t used = strnlen(front.data(), front.size());
  memcpy(out.data(), front.data(), used);
  constexpr size_t widest = sizeof("\\xNN");
  size_t escaped = 0;  // bytes to come of a character that is not written as it is
  for (std::string_view rest = text.data(); !rest.empty() && used + widest < out.size();
       rest.remove_prefix(1)) {
    if (escaped == 0) escaped = controlAtFront(rest);
    if (escaped == 0) {
      out[used++] = rest.front();
    } else {
      used += static_cast<size_t>(
          snprintf(&out[used], widest, "\\x%02x", static_cast<unsigned char>(rest.front())));
      --escaped;
    }
  }
  out[used++] = '\n';
  // One write a line, so that lines of several threads and processes never mix. A log that cannot be
  // written has nowhere to say so.
  [[maybe_unused]] const ssize_t written = ::write(m_fd, out.data(), used);
  errno = savedErrno;
}

}  // namespace ObjectStore
