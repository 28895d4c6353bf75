#include "http/answerHead.h"

#include <fmt/format.h>

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

}  // namespace

std::string_view reasonOf(unsigned status) {
  switch (status) {
    case 200: return "OK";
    case 201: return "Created";
    case 204: return "No Content";
    case 206: return "Partial Content";
    case 304: return "Not Modified";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 408: return "Request Timeout";
    case 412: return "Precondition Failed";
    case 413: return "Content Too Large";
    case 414: return "URI Too Long";
    case 416: return "Range Not Satisfiable";
    case 417: return "Expectation Failed";
    case 431: return "Request Header Fields Too Large";
    case 501: return "Not Implemented";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    case 504: return "Gateway Timeout";
    case 505: return "HTTP Version Not Supported";
    case 507: return "Insufficient Storage";
    default: return "Status";
  }
}

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
