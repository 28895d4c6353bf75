// A client's connection: bytes in, bytes and parts of files out, and the time by which something must happen.
//
// Belongs to one I/O thread.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <chrono>
#include <cstddef>
#include <exception>
#include <span>
#include <string_view>

#include "serve/suspend.h"

namespace diskcached {

// The connection has ended, in whatever way; nothing can be said to the client any more.
struct ClientGone : std::exception {
  const char* what() const noexcept override { return "the client has gone"; }
};

class ClientStream {
 public:
  using Time = std::chrono::steady_clock::time_point;
  enum class More { Yes, No };  // follows at once, so that a short packet may wait for it

  explicit ClientStream(asio::ip::tcp::socket socket);

  // Appends what comes to `buffer`; false at the end of what the client sends, or when time is up.
  asio::awaitable<bool> receive(size_t most);
  asio::awaitable<void> send(std::span<const std::byte> bytes, More more);
  asio::awaitable<void> send(std::string_view text, More more) {
    return send(std::as_bytes(std::span(text)), more);
  }
  // Bytes of a file, without copying them. ClientGone also when the file is shorter.
  asio::awaitable<void> sendFile(int file, uint64_t offset, uint64_t bytes);
  // So that the client reads the answer although he is still sending: says that this end is done, and takes
  // what comes for a moment.
  asio::awaitable<void> linger();

  // Nothing may take longer than until then without a byte coming or going.
  void setDeadline(Time deadline) { m_deadline = deadline; }
  // How long the client is waited for from now on. Waiting uses it up, and what comes or goes gives it back slowly, so
  // that a byte now and then keeps nothing of the server's for ever.
  void setIdleTimeout(std::chrono::seconds timeout) { m_idleTimeout = m_patience = timeout; }
  void touch() { m_deadline = std::chrono::steady_clock::now() + m_patience; }
  // Ends whatever waits when the deadline is over, or at once.
  void expire(Time now);
  void cancel();
  // Nothing comes or goes any more.
  void cutOff();
  bool isCutOff() const { return m_isCutOff; }
  bool isTimedOut() const { return m_isTimedOut; }

  asio::ip::tcp::socket& socket() { return m_socket; }
  boost::beast::flat_buffer& buffer() { return m_buffer; }
  std::string_view received() const {
    return {static_cast<const char*>(m_buffer.data().data()), m_buffer.size()};
  }

 private:
  asio::awaitable<void> writable();
  // Of the patience with the client.
  void useUp(Time began);
  void earn(uint64_t bytes);

  asio::ip::tcp::socket m_socket;
  boost::beast::flat_buffer m_buffer;
  Time m_deadline = Time::max();
  std::chrono::steady_clock::duration m_idleTimeout = std::chrono::seconds(60), m_patience = m_idleTimeout;
  bool m_isTimedOut = false;
  bool m_isCancelled = false;
  bool m_isCutOff = false;
  uint64_t m_sentInARow = 0;
};

}  // namespace diskcached
