// The operator's socket: /metrics, /healthz, /readyz, /status, POST /purge?prefix=.
//
// Runs in a thread of its own, so that it answers whatever the clients do.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <thread>

#include "life/startState.h"
#include "serve/service.h"

namespace diskcached {

class AdminSocket {
 public:
  // Throws BadOptions.
  AdminSocket(const Address& address, Service& service, StartState& start);
  ~AdminSocket();
  AdminSocket(const AdminSocket&) = delete;
  AdminSocket& operator=(const AdminSocket&) = delete;

  // Once it has returned nothing is answered.
  void stop();
  uint16_t port() const;

 private:
  Service& m_service;
  StartState& m_start;
  boost::asio::io_context m_context{1};
  boost::asio::ip::tcp::acceptor m_acceptor{m_context};
  std::thread m_thread;
};

}  // namespace diskcached
