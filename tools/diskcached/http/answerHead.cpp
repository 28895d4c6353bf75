#include "http/answerHead.h"

#include <fmt/format.h>

#include <boost/beast/http/status.hpp>
#include <ctime>
#include <iterator>

#include "http/httpDate.h"

namespace diskcached {
namespace {

// Made anew once a second.
const std::string& dateNow() {
  thread_local std::time_t made = 0;
  thread_local std::string text;
  if (const std::time_t now = std::time(nullptr); now != made) {
    made = now;
    text = formatHttpDate(now);
  }
  return text;
}

// Without one for a status that nobody knows.
std::string_view reasonOf(unsigned status) {
  const auto known = boost::beast::http::int_to_status(status);
  if (known == boost::beast::http::status::unknown) return "";
  const auto reason = boost::beast::http::obsolete_reason(known);
  return {reason.data(), reason.size()};
}

}  // namespace

AnswerHead::AnswerHead(unsigned status) : m_status(status) {
  m_text.reserve(512);
  fmt::format_to(std::back_inserter(m_text), "HTTP/1.1 {} {}\r\nServer: diskcached\r\nDate: {}\r\n", status,
                 reasonOf(status), dateNow());
}

void AnswerHead::add(std::string_view name, std::string_view value) {
  m_text.append(name).append(": ").append(value).append("\r\n");
}

void AnswerHead::add(std::string_view name, uint64_t value) { add(name, fmt::format_int(value).str()); }

std::string AnswerHead::finish(bool isKeptAlive) {
  m_text += isKeptAlive ? "\r\n" : "Connection: close\r\n\r\n";
  return std::move(m_text);
}

}  // namespace diskcached
