// The threads that have the clients' connections, each its own.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <memory>
#include <vector>

#include "serve/service.h"

namespace diskcached {

class IoThread;

class IoThreads {
 public:
  // Binds the address, so that a wrong one is known at once, but takes no client yet. Throws BadOptions.
  IoThreads(const Address& address, unsigned threads);
  ~IoThreads();
  IoThreads(const IoThreads&) = delete;
  IoThreads& operator=(const IoThreads&) = delete;

  void start(Service& service);
  // Takes no more clients, and waits until those there are have gone or the deadline is over.
  void stop(std::chrono::steady_clock::time_point deadline);
  // Ends what connections are left, and waits until none has anything to do with the service any more. So nothing that
  // they wait for may take long by then.
  void cutOff();
  uint16_t port() const;

 private:
  bool areEmpty() const;

  boost::asio::io_context m_forAccepting{1};
  boost::asio::ip::tcp::acceptor m_acceptor{m_forAccepting};
  std::vector<std::unique_ptr<IoThread>> m_threads;
};

// "127.0.0.1:8080" as an acceptor that does not listen yet. Throws BadOptions.
void bindTo(boost::asio::ip::tcp::acceptor& acceptor, const Address& address, const char* option);

}  // namespace diskcached
