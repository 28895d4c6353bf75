// One request and its answer.
//
// Belongs to one I/O thread.
#pragma once

#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <chrono>
#include <optional>
#include <string>

#include "http/answerHead.h"
#include "http/target.h"
#include "serve/clientStream.h"
#include "serve/service.h"

namespace diskcached {

namespace http = boost::beast::http;

// The request can't be served; to be answered so if nothing was sent yet. With a code it is told as a store tells it,
// which clients of stores understand.
struct Refused : std::exception {
  Refused(unsigned itsStatus, std::string itsReason, std::string itsCode = "")
      : status(itsStatus), reason(std::move(itsReason)), code(std::move(itsCode)) {}
  const char* what() const noexcept override { return reason.c_str(); }
  unsigned status;
  std::string reason, code;
};

class Exchange {
 public:
  Exchange(Service& service, ClientStream& client);
  // Logs the answer.
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  // Takes a whole head that passed the guard. Throws Refused.
  void parse(size_t headSize);

  std::string_view method() const { return m_method; }
  bool isHead() const { return m_method == "HEAD"; }
  const Target& target() const { return m_target; }
  std::string_view header(http::field name) const;
  std::string_view header(std::string_view name) const;
  const http::request<http::buffer_body>& request() const { return m_parser.get(); }

  // The next bytes of the request's body into `to`; 0 at its end. Throws Refused, ClientGone.
  asio::awaitable<size_t> receiveBody(std::span<std::byte> to);
  bool hasBody() const;
  std::optional<uint64_t> bodyLength() const;  // what is left of it; none when it comes in chunks
  // Takes what is left of a body that nobody wants, if that is little.
  asio::awaitable<void> skipBody();

  // The answer's head; what follows is counted as its body.
  asio::awaitable<void> sendHead(AnswerHead head, ClientStream::More more);
  asio::awaitable<void> sendBody(std::span<const std::byte> bytes, ClientStream::More more);
  asio::awaitable<void> sendFile(int file, uint64_t offset, uint64_t bytes);
  // Head and body by one call. ClientGone also when the file is shorter.
  asio::awaitable<void> sendSmallFile(AnswerHead head, int file, uint64_t offset, uint64_t bytes);
  // A whole answer with its body, or without one for HEAD.
  asio::awaitable<void> sendText(AnswerHead head, std::string_view type, std::string_view text);
  asio::awaitable<void> refuse(const Refused& refused);

  void setCacheStatus(std::string status) { m_cacheStatus = std::move(status); }
  void addCacheStatus(AnswerHead& head) const { head.add("Cache-Status", m_cacheStatus); }
  bool isAnswered() const { return m_status != 0; }
  // Whether another request may follow on this connection.
  bool isKeptAlive() const { return m_isKeptAlive; }
  void closeAfter() { m_isKeptAlive = false; }
  bool speaksChunks() const { return m_parser.get().version() >= 11; }

  Service& service;
  ClientStream& client;
  const std::shared_ptr<const Options> options;

 private:
  // Leaves out fields behind the body: they would count as headers that nobody in front of the server has looked at.
  class Parser : public http::request_parser<http::buffer_body> {
    void on_field_impl(http::field name, boost::beast::string_view itsName, boost::beast::string_view value,
                       boost::beast::error_code&) override {
      if (!is_header_done()) get().insert(name, itsName, value);
    }
  };

  void account();  // in the counters and the access log
  std::string finish(AnswerHead head);

  asio::awaitable<void> sendContinue();
  void refuseLongFraming();

  Parser m_parser;
  std::string m_method;
  Target m_target;
  std::string m_cacheStatus = "diskcached; fwd=bypass";
  unsigned m_status = 0;
  uint64_t m_bodyBytes = 0;
  bool m_isKeptAlive = false;
  bool m_isContinued = false;
  const std::chrono::steady_clock::time_point m_began = std::chrono::steady_clock::now();
};

}  // namespace diskcached
