#include "serve/connection.h"

#include "http/headGuard.h"
#include "serve/changeObject.h"
#include "serve/getObject.h"
#include "serve/passThrough.h"
#include "support/log.h"

namespace diskcached {

namespace {

constexpr size_t RECEIVED_AT_ONCE = 4096;

}  // namespace

Connection::Connection(Service& service, asio::ip::tcp::socket socket)
    : m_service(service), m_client(std::move(socket)), m_options(service.options()) {
  ++m_service.stats.connections;
}
Connection::~Connection() { --m_service.stats.connections; }

void Connection::stop() {
  if (m_isIdle) m_client.cancel();
}

asio::awaitable<void> Connection::run() {
  try {
    while (co_await serveOne()) {
    }
  } catch (const ClientGone&) {
    if (m_client.isTimedOut()) ++m_service.stats.timeouts;
  } catch (const std::exception& error) {
    DC_LOG(ObjectStore::LogLevel::Error, "Error: a connection ended: %s", error.what());
  }
}

asio::awaitable<void> Connection::turnAway() {
  try {
    co_await refuse(503, "too many connections");
  } catch (const std::exception&) {  // whoever has gone need not be told
  }
}

void Connection::skipEmptyLines() {
  while (m_client.received().starts_with("\r\n")) m_client.buffer().consume(2);
}

asio::awaitable<Connection::Head> Connection::receiveHead() {
  const auto began = std::chrono::steady_clock::now();
  if (m_client.buffer().capacity() > m_options->maxHeaderBytes) m_client.buffer().shrink_to_fit();
  m_client.setIdleTimeout(m_options->idleTimeout);
  m_client.touch();
  for (size_t looked = 0;;) {
    if (looked == 0) skipEmptyLines();
    const std::string_view received = m_client.received();
    if (!received.empty() && m_isIdle) {
      m_isIdle = false;
      m_client.setDeadline(began + m_options->requestTimeout);
    }
    const HeadEnd end = findHeadEnd(received, looked);
    const bool isLineLong =
        received.substr(0, m_options->maxUrlBytes + 32).find('\n') == std::string_view::npos &&
        received.size() >= m_options->maxUrlBytes + 32;
    if (isLineLong) co_return co_await refuse(414, "the target is too long"), Head();
    if (end.isBare) co_return co_await refuse(400, "a line ends without its carriage return"), Head();
    if (std::max(end.size, end.size == 0 ? received.size() : 0) > m_options->maxHeaderBytes)
      co_return co_await refuse(431, "the head is too long"), Head();
    if (end.size > 0) co_return Head{end.size};
    looked = received == "\r" ? 0 : received.size();  // it may be half of an empty line
    if (co_await m_client.receive(RECEIVED_AT_ONCE)) continue;
    if (m_client.isTimedOut() && !m_client.received().empty()) {
      ++m_service.stats.timeouts;
      co_await refuse(408, "the request does not come");
    }
    co_return Head();
  }
}

asio::awaitable<bool> Connection::serveOne() {
  m_options = m_service.options();
  m_isIdle = true;
  if (m_service.isStopping()) co_return false;
  const Head head = co_await receiveHead();
  if (head.size == 0) co_return false;
  if (const Refusal refusal = refusalOf(m_client.received().substr(0, head.size)); refusal.status != 0) {
    co_await refuse(refusal.status, refusal.reason);
    co_return false;
  }
  bool isKeptAlive = false, isLingering = false;
  {
    Exchange exchange(m_service, m_client);
    std::optional<Refused> refused;
    try {
      exchange.parse(head.size);
      co_await serve(exchange);
    } catch (const Refused& refusal) {
      refused = refusal;
    } catch (const Overloaded&) {
      refused.emplace(503, "overloaded");
    } catch (const std::bad_alloc&) {
      refused.emplace(503, "no memory");
    }
    if (refused && exchange.isAnswered()) throw ClientGone();
    if (refused) {
      co_await exchange.refuse(*refused);
      isLingering = !exchange.isKeptAlive();
    }
    isKeptAlive = exchange.isKeptAlive();
  }
  if (isLingering) co_await m_client.linger();
  co_return isKeptAlive;
}

asio::awaitable<void> Connection::serve(Exchange& exchange) {
  const std::string_view method = exchange.method();
  const bool isOfObject = exchange.target().query.empty() && !exchange.target().key.empty();
  if (isOfObject && (method == "GET" || method == "HEAD")) {
    co_await exchange.skipBody();
    co_await getObject(exchange);
  } else if (isOfObject && method == "PUT") {
    co_await putObject(exchange);
  } else if (isOfObject && method == "DELETE") {
    co_await deleteObject(exchange);
  } else if (method == "CONNECT" || method == "TRACE") {
    throw Refused(405, "no such method here");
  } else {
    co_await passThrough(exchange, isOfObject ? "fwd=method" : "fwd=bypass");
  }
}

// Answers what is not even a request.
asio::awaitable<void> Connection::refuse(unsigned status, std::string_view reason) {
  AnswerHead head(status);
  if (status == 503) head.add("Retry-After", "1");
  head.add("Content-Type", "text/plain");
  head.add("Content-Length", reason.size() + 1);
  const std::string text = head.finish(false) + std::string(reason) + '\n';
  m_service.stats.countAnswer(status);
  m_isIdle = false;
  co_await m_client.send(text, ClientStream::More::No);
  co_await m_client.linger();
}

}  // namespace diskcached
