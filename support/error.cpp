#include "support/error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace ObjectStore {

namespace {

// The code says only "error": the number lives in the record, so that an error with number 0 is one too.
constexpr int32_t ERROR_CODE = -1;

struct Message {
  RMCodeLocation where;
  std::string text;  // empty for the bottom message of an error raised without one
};

std::string systemText(int errNo) {
  const char* text = errNo == 0 ? "no system error" : strerrordesc_np(errNo);
  return std::string(text ? text : "unknown error") + " (" + std::to_string(errNo) + ")";
}

}  // namespace

std::string formatText(const char* format, va_list args) {
  va_list measured;
  va_copy(measured, args);
  const int length = vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length <= 0) return {};
  std::string text(static_cast<size_t>(length), '\0');
  vsnprintf(text.data(), text.size() + 1, format, args);
  return text;
}

struct ErrorRecord {
  int errNo;
  std::vector<Message> messages;  // oldest first
};

CZuError::CZuError(int32_t code, std::shared_ptr<ErrorRecord> record) noexcept
    : m_code(code), m_record(std::move(record)) {}

CZuError& CZuError::Success() noexcept {
  m_code = 0;
  m_record.reset();
  return *this;
}

void CZuError::Push(const RMCodeLocation& where, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Push(where, format, args);
  va_end(args);
}

void CZuError::Push(const RMCodeLocation& where, const char* format, va_list args) {
  if (!IsError()) return;
  if (!m_record) m_record = std::make_shared<ErrorRecord>(ErrorRecord{ENOMEM, {}});
  m_record->messages.push_back({where, formatText(format, args)});
}

std::string CZuError::AsString(EErrorOutputFormat format) const {
  if (!IsError()) return "success";
  std::string out;
  if (m_record) {
    for (auto it = m_record->messages.rbegin(); it != m_record->messages.rend(); ++it) {
      const bool detailed = format == EErrorOutputFormat::Detailed;
      if (it->text.empty() && !detailed) continue;
      out += it->text;
      if (detailed) {
        out += it->text.empty() ? "[" : " [";
        out += it->where.file;
        out += ':' + std::to_string(it->where.line) + ' ' + it->where.operation + ']';
      }
      out += ": ";
    }
  }
  return out + systemText(RMErrorUtil::GetErrNo(*this));
}

CZuError RMErrorUtil::ErrorErrNo(const RMCodeLocation& where, int errNo) noexcept {
  try {
    return {ERROR_CODE, std::make_shared<ErrorRecord>(ErrorRecord{errNo, {{where, {}}}})};
  } catch (...) {
    return {ERROR_CODE, nullptr};
  }
}

CZuError RMErrorUtil::ErrorErrNo(const RMCodeLocation& where, int errNo, const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  CZuError error(ERROR_CODE, nullptr);
  try {
    error.m_record = std::make_shared<ErrorRecord>(ErrorRecord{errNo, {{where, formatText(format, args)}}});
  } catch (...) {
    error.m_record.reset();
  }
  va_end(args);
  return error;
}

int RMErrorUtil::GetErrNo(const CZuError& error) noexcept {
  if (!error.IsError()) return 0;
  return error.m_record ? error.m_record->errNo : ENOMEM;
}

bool RMErrorUtil::IsErrNo(const CZuError& error, int errNo) noexcept {
  return error.IsError() && GetErrNo(error) == errNo;
}

}  // namespace ObjectStore
