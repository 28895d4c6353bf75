// One client's connection: request after request.
//
// Belongs to one I/O thread.
#pragma once

#include "serve/exchange.h"

namespace diskcached {

class Connection {
 public:
  Connection(Service& service, asio::ip::tcp::socket socket);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Serves until one of both sides has had enough. Throws nothing.
  asio::awaitable<void> run();
  // Says 503 and closes: there are too many others.
  asio::awaitable<void> turnAway();

  void expire(ClientStream::Time now) { m_client.expire(now); }
  // Between two requests it ends at once, otherwise after the one it is at.
  void stop();
  // Whatever it is at ends as if the client had gone.
  void cutOff() { m_client.cutOff(); }

 private:
  struct Head {
    size_t size = 0;  // 0: no other request
  };
  asio::awaitable<Head> receiveHead();
  asio::awaitable<bool> serveOne();
  asio::awaitable<void> serve(Exchange& exchange);
  asio::awaitable<void> refuse(unsigned status, std::string_view reason);
  void skipEmptyLines();

  Service& m_service;
  ClientStream m_client;
  std::shared_ptr<const Options> m_options;
  bool m_isIdle = true;
};

}  // namespace diskcached
