#include "admin/adminSocket.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>

#include "admin/pages.h"
#include "life/ioThreads.h"

namespace diskcached {

namespace http = boost::beast::http;
using asio::ip::tcp;

namespace {

constexpr std::chrono::seconds PATIENCE(10);
constexpr std::chrono::milliseconds PAUSE(200);
constexpr unsigned MOST_AT_ONCE = 64;

using Request = http::request<http::string_body>;

asio::awaitable<Page> pageFor(const Request& request, Service& service, StartState& start) {
  // Some page's form in the operator's browser.
  if (request.count(http::field::origin) > 0) co_return Page{403, "text/plain", "not for browsers\n"};
  const auto method = request.method_string(), target = request.target();
  const auto make = [&] {
    return adminPage(service, start, {method.data(), method.size()}, {target.data(), target.size()});
  };
  if (request.method() != http::verb::post || start.now().phase != Phase::Ready) co_return make();
  try {
    co_return co_await service.disks.run(
        make);  // a purge takes long, and others are to be answered meanwhile
  } catch (const Overloaded&) {
    co_return Page{503, "text/plain", "overloaded\n"};
  }
}

// One request a connection.
asio::awaitable<void> answer(tcp::socket socket, Service& service, StartState& start) {
  boost::beast::tcp_stream stream(std::move(socket));
  stream.expires_after(PATIENCE);
  boost::beast::flat_buffer buffer;
  Request request;
  const auto [readError, got] = co_await http::async_read(stream, buffer, request, AS_TUPLE);
  if (readError) co_return;
  Page page = co_await pageFor(request, service, start);
  http::response<http::string_body> response{static_cast<http::status>(page.status), 11};
  response.set(http::field::content_type, page.type);
  response.body() = request.method() == http::verb::head ? "" : std::move(page.body);
  response.keep_alive(false);
  response.prepare_payload();
  stream.expires_after(PATIENCE);
  co_await http::async_write(stream, response, AS_TUPLE);
}

asio::awaitable<void> acceptAll(tcp::acceptor& acceptor, Service& service, StartState& start) {
  const auto count = std::make_shared<unsigned>(0);
  for (;;) {
    auto [error, socket] = co_await acceptor.async_accept(AS_TUPLE);
    if (error == asio::error::operation_aborted) co_return;
    if (error) {
      asio::steady_timer pause(acceptor.get_executor(), PAUSE);  // for want of descriptors, mostly
      co_await pause.async_wait(AS_TUPLE);
      continue;
    }
    if (*count >= MOST_AT_ONCE) continue;
    ++*count;
    asio::co_spawn(acceptor.get_executor(), answer(std::move(socket), service, start),
                   [count](const std::exception_ptr&) { --*count; });
  }
}

}  // namespace

AdminSocket::AdminSocket(const Address& address, Service& service, StartState& start)
    : m_service(service), m_start(start) {
  bindTo(m_acceptor, address, "admin");
  m_acceptor.listen(asio::socket_base::max_listen_connections);
  asio::co_spawn(m_context, acceptAll(m_acceptor, m_service, m_start), asio::detached);
  m_thread = std::thread([this] { m_context.run(); });
}

AdminSocket::~AdminSocket() { stop(); }

void AdminSocket::stop() {
  m_context.stop();
  if (m_thread.joinable()) m_thread.join();
}

uint16_t AdminSocket::port() const { return m_acceptor.local_endpoint().port(); }

}  // namespace diskcached
