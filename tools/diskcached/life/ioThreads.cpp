#include "life/ioThreads.h"

#include <fcntl.h>
#include <fmt/core.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/steady_timer.hpp>
#include <future>
#include <list>
#include <thread>

#include "serve/connection.h"
#include "support/log.h"

namespace diskcached {

using asio::ip::tcp;

namespace {

constexpr std::chrono::milliseconds SWEEP(200), LOOK(5);

}  // namespace

// One of them. All but construction, stop and join runs in its thread.
class IoThread {
 public:
  explicit IoThread(Service& service) : m_service(service) {
    asio::co_spawn(m_context, sweep(), asio::detached);
    m_thread = std::thread([this] { m_context.run(); });
  }

  asio::io_context& context() { return m_context; }
  void adopt(tcp::socket socket) { asio::co_spawn(m_context, serve(std::move(socket)), asio::detached); }
  void listen(int listener, tcp protocol) {
    asio::co_spawn(m_context, accept(listener, protocol), asio::detached);
  }

  void askToStop() {
    asio::post(m_context, [this] {
      m_isStopping = true;
      if (m_acceptor) m_acceptor->close();
      for (Connection* connection : m_connections) connection->stop();
      if (m_connections.empty()) m_isEmpty = true;
    });
  }
  void cutOff() {
    asio::post(m_context, [this] {
      for (Connection* connection : m_connections) connection->cutOff();
    });
  }
  bool isEmpty() const { return m_isEmpty; }
  // After it nothing runs.
  void join() {
    m_context.stop();
    if (m_thread.joinable()) m_thread.join();
  }

 private:
  // Every thread accepts for itself, from one queue.
  asio::awaitable<void> accept(int listener, tcp protocol) {
    m_acceptor.emplace(m_context, protocol, listener);
    while (!m_isStopping) {
      auto [error, socket] = co_await m_acceptor->async_accept(AS_TUPLE);
      if (error == asio::error::operation_aborted || m_isStopping) co_return;
      if (!error) {
        adopt(std::move(socket));
        continue;
      }
      DC_LOG(ObjectStore::LogLevel::Error, "Error: no connection can be accepted: %s",
             error.message().c_str());
      asio::steady_timer pause(m_context, SWEEP);  // for want of descriptors, mostly
      co_await pause.async_wait(AS_TUPLE);
    }
  }

  asio::awaitable<void> serve(tcp::socket socket) {
    ++m_service.stats.accepted;
    try {
      Connection connection(m_service, std::move(socket));
      const auto place = m_connections.insert(m_connections.end(), &connection);
      if (m_service.stats.connections > m_service.options()->maxConnections) {
        ++m_service.stats.refusedConnections;
        co_await connection.turnAway();
      } else {
        co_await connection.run();
      }
      m_connections.erase(place);
    } catch (const std::exception&) {  // it was gone before it was looked at
    }
    if (m_isStopping && m_connections.empty()) m_isEmpty = true;
  }

  asio::awaitable<void> sweep() {
    asio::steady_timer timer(m_context);
    for (;;) {
      timer.expires_after(SWEEP);
      co_await timer.async_wait(AS_TUPLE);
      const auto now = std::chrono::steady_clock::now();
      for (Connection* connection : m_connections) connection->expire(now);
    }
  }

  Service& m_service;
  asio::io_context m_context{1};
  std::optional<tcp::acceptor> m_acceptor;
  std::list<Connection*> m_connections;
  bool m_isStopping = false;
  std::atomic<bool> m_isEmpty{false};
  std::thread m_thread;
};

void bindTo(tcp::acceptor& acceptor, const Address& address, const char* option) {
  boost::system::error_code error;
  tcp::resolver resolver(acceptor.get_executor());
  const auto found =
      resolver.resolve(address.host, std::to_string(address.port), tcp::resolver::passive, error);
  if (!error) {
    const tcp::endpoint endpoint = *found.begin();
    acceptor.open(endpoint.protocol(), error);
    if (!error) acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error) acceptor.bind(endpoint, error);
  }
  if (error)
    throw BadOptions(fmt::format("--{}: {}:{}: {}", option, address.host, address.port, error.message()));
}

IoThreads::IoThreads(const Address& address, unsigned threads) {
  bindTo(m_acceptor, address, "listen");
  m_threads.reserve(threads);
  m_threads.resize(threads);
}

IoThreads::~IoThreads() {
  for (const auto& thread : m_threads) {
    if (thread) thread->join();
  }
}

uint16_t IoThreads::port() const { return m_acceptor.local_endpoint().port(); }

void IoThreads::start(Service& service) {
  m_acceptor.listen(asio::socket_base::max_listen_connections);
  m_acceptor.non_blocking(true);
  for (auto& thread : m_threads) {
    thread = std::make_unique<IoThread>(service);
    const int listener = fcntl(m_acceptor.native_handle(), F_DUPFD_CLOEXEC, 0);
    if (listener >= 0) thread->listen(listener, m_acceptor.local_endpoint().protocol());
  }
}

void IoThreads::stop(std::chrono::steady_clock::time_point deadline) {
  m_acceptor.close();
  for (const auto& thread : m_threads) thread->askToStop();
  while (!areEmpty() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(LOOK);
}

void IoThreads::cutOff() {
  for (const auto& thread : m_threads) thread->cutOff();
  while (!areEmpty()) std::this_thread::sleep_for(LOOK);
  for (const auto& thread : m_threads) thread->join();
}

bool IoThreads::areEmpty() const {
  return std::all_of(m_threads.begin(), m_threads.end(),
                     [](const auto& thread) { return thread->isEmpty(); });
}

}  // namespace diskcached
