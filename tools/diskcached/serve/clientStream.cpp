#include "serve/clientStream.h"

#include <sys/sendfile.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/this_coro.hpp>
#include <cerrno>

namespace diskcached {

namespace {

// Others of this thread get their turn after so many bytes.
constexpr uint64_t FAIR_SHARE = 1 << 20;
constexpr std::chrono::seconds LINGER(1);
constexpr uint64_t LEAST_A_SECOND = 4
                                    << 10;  // bytes of a client that are not to use up the patience with him

bool isInterrupted() { return errno == EINTR; }
bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

}  // namespace

ClientStream::ClientStream(asio::ip::tcp::socket socket) : m_socket(std::move(socket)) {
  m_socket.native_non_blocking(true);
  m_socket.set_option(asio::ip::tcp::no_delay(true));
}

// Waits in the read itself: waiting for it to become possible would cost two more calls of each request.
asio::awaitable<bool> ClientStream::receive(size_t most) {
  if (m_isCancelled) co_return false;
  const Time began = std::chrono::steady_clock::now();
  const auto [error, got] = co_await m_socket.async_read_some(m_buffer.prepare(most), AS_TUPLE);
  useUp(began);
  m_sentInARow = 0;
  if (error == asio::error::eof || error == asio::error::operation_aborted) co_return false;
  if (error) throw ClientGone();
  m_buffer.commit(got);
  earn(got);
  co_return true;
}

asio::awaitable<void> ClientStream::writable() {
  if (m_isCancelled) throw ClientGone();
  touch();
  const Time began = std::chrono::steady_clock::now();
  const auto [error] = co_await m_socket.async_wait(asio::ip::tcp::socket::wait_write, AS_TUPLE);
  useUp(began);
  if (error) throw ClientGone();
}

void ClientStream::useUp(Time began) {
  m_patience -= std::min(m_patience, std::chrono::steady_clock::now() - began);
}

void ClientStream::earn(uint64_t bytes) {
  const std::chrono::duration<double> earned(static_cast<double>(bytes) / LEAST_A_SECOND);
  const auto rest = m_idleTimeout - m_patience;
  m_patience +=
      earned < rest ? std::chrono::duration_cast<std::chrono::steady_clock::duration>(earned) : rest;
}

asio::awaitable<void> ClientStream::send(std::span<const std::byte> bytes, More more) {
  while (!bytes.empty()) {
    const int flags = MSG_NOSIGNAL | (more == More::Yes ? MSG_MORE : 0);
    const ssize_t sent = ::send(m_socket.native_handle(), bytes.data(), bytes.size(), flags);
    if (sent >= 0) {
      bytes = bytes.subspan(static_cast<size_t>(sent));
      earn(static_cast<uint64_t>(sent));
      touch();
    } else if (wouldBlock()) {
      co_await writable();
    } else if (!isInterrupted()) {
      throw ClientGone();
    }
  }
}

asio::awaitable<void> ClientStream::sendFile(int file, uint64_t offset, uint64_t bytes) {
  auto at = static_cast<off_t>(offset);
  while (bytes > 0) {
    const ssize_t sent = ::sendfile(m_socket.native_handle(), file, &at, std::min(bytes, FAIR_SHARE));
    if (sent > 0) {
      bytes -= static_cast<uint64_t>(sent);
      m_sentInARow += static_cast<uint64_t>(sent);
      earn(static_cast<uint64_t>(sent));
      touch();
      if (bytes == 0 || m_sentInARow < FAIR_SHARE) continue;
      m_sentInARow = 0;
      co_await asio::post(m_socket.get_executor(), asio::use_awaitable);
    } else if (sent < 0 && wouldBlock()) {
      m_sentInARow = 0;
      co_await writable();
    } else if (sent == 0 || !isInterrupted()) {
      throw ClientGone();
    }
  }
}

asio::awaitable<void> ClientStream::linger() {
  boost::system::error_code ignored;
  m_socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
  setDeadline(std::chrono::steady_clock::now() + LINGER);
  m_buffer.clear();
  for (unsigned taken = 0; taken < 64 && co_await receive(64 << 10); ++taken) m_buffer.clear();
}

void ClientStream::expire(Time now) {
  if (now < m_deadline) return;
  m_isTimedOut = true;
  cancel();
}

void ClientStream::cancel() {
  boost::system::error_code ignored;
  m_socket.cancel(ignored);
  m_isCancelled = true;
}

void ClientStream::cutOff() {
  boost::system::error_code ignored;
  m_socket.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
  m_isCutOff = true;
  cancel();
}

}  // namespace diskcached
