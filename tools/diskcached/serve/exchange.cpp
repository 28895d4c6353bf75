#include "serve/exchange.h"

#include <fmt/format.h>
#include <unistd.h>

#include <boost/asio/as_tuple.hpp>
#include <boost/beast/http/read.hpp>

#include "http/headGuard.h"

namespace diskcached {
namespace {

constexpr uint64_t MOST_SKIPPED = 64 << 10;

std::string_view view(boost::beast::string_view text) { return {text.data(), text.size()}; }

Refused refusedBody(const boost::system::error_code& error) {
  if (error == http::error::body_limit) return {413, "the body is too long"};
  return {400, "the body is no body: " + error.message()};
}

}  // namespace

Exchange::Exchange(Service& itsService, ClientStream& itsClient)
    : service(itsService), client(itsClient), options(itsService.options()) {
  m_parser.header_limit(static_cast<uint32_t>(std::min<uint64_t>(options->maxHeaderBytes + 1, 1U << 30U)));
  m_parser.body_limit(options->maxUpload);
  client.setIdleTimeout(options->idleTimeout);
}

Exchange::~Exchange() {
  try {
    account();
  } catch (...) {  // a line of the access log is no reason to end
  }
}

void Exchange::account() {
  if (m_status == 0) return;
  service.stats.countAnswer(m_status);
  service.stats.bodyBytes += m_bodyBytes;
  if (!service.accessLog.isWanted()) return;
  boost::system::error_code error;
  const auto peer = client.socket().remote_endpoint(error);
  const std::string address = error ? "" : peer.address().to_string();
  std::string_view target = view(request().target());
  const std::string_view path = target.substr(0, target.find('?'));
  target.remove_prefix(std::min(path.size() + 1, target.size()));
  const std::string query = withoutSignature(target);
  service.accessLog.write({.client = address,
                           .method = m_method,
                           .target = fmt::format("{}{}{}", path, query.empty() ? "" : "?", query),
                           .range = header(http::field::range),
                           .cache = m_cacheStatus,
                           .status = m_status,
                           .bodyBytes = m_bodyBytes,
                           .took = std::chrono::steady_clock::now() - m_began});
}

void Exchange::parse(size_t headSize) {
  const std::string_view head = client.received().substr(0, headSize);
  boost::system::error_code error;
  m_parser.put(asio::const_buffer(head.data(), head.size()), error);
  client.buffer().consume(headSize);
  if (error == http::error::body_limit) throw Refused(413, "the body is too long");
  if (error && error != http::error::need_more) throw Refused(400, error.message());
  if (!m_parser.is_header_done()) throw Refused(400, "the head is no head");
  m_method = view(m_parser.get().method_string());
  m_isKeptAlive = m_parser.keep_alive() && !service.isStopping();
  const std::string_view target = view(m_parser.get().target());
  if (target.size() > options->maxUrlBytes) throw Refused(414, "the target is too long");
  auto parsed = parseTarget(target);
  if (!parsed) throw Refused(400, "the target names nothing that can be served");
  m_target = std::move(*parsed);
  // Nobody here looks at a signature; with one the request is about the object like any other.
  m_target.query = withoutSignature(m_target.query);
  if (repeatsMethod(m_target.query, m_method)) m_target.query.clear();
  const std::string_view expect = header(http::field::expect);
  if (!expect.empty() && !equalsIgnoringCase(expect, "100-continue"))
    throw Refused(417, "an unknown expectation");
}

std::string_view Exchange::header(http::field name) const { return view(m_parser.get()[name]); }
std::string_view Exchange::header(std::string_view name) const {
  return view(m_parser.get()[boost::beast::string_view(name.data(), name.size())]);
}

bool Exchange::hasBody() const {
  return m_parser.chunked() || m_parser.content_length_remaining().value_or(0) > 0;
}

std::optional<uint64_t> Exchange::bodyLength() const {
  if (const auto left = m_parser.content_length_remaining()) return *left;
  return std::nullopt;
}

asio::awaitable<void> Exchange::sendContinue() {
  m_isContinued = true;
  if (speaksChunks() && !header(http::field::expect).empty() && client.buffer().size() == 0)
    co_await client.send("HTTP/1.1 100 Continue\r\n\r\n", ClientStream::More::No);
}

asio::awaitable<size_t> Exchange::receiveBody(std::span<std::byte> to) {
  if (m_parser.is_done()) co_return 0;
  if (!m_isContinued) co_await sendContinue();
  auto& body = m_parser.get().body();
  body.data = to.data();
  body.size = to.size();
  body.more = true;
  boost::system::error_code error;
  while (body.size == to.size() && !m_parser.is_done()) {
    if (client.buffer().size() > 0) {
      const size_t taken = m_parser.put(client.buffer().data(), error);
      client.buffer().consume(taken);
      if (error == http::error::need_buffer) error = {};
      if (error && error != http::error::need_more) {
        closeAfter();
        throw refusedBody(error);
      }
      if (!error && taken > 0) continue;
      refuseLongFraming();
    }
    client.touch();
    if (!co_await client.receive(to.size())) {
      closeAfter();
      if (client.isTimedOut()) throw Refused(408, "the body does not come");
      throw ClientGone();
    }
  }
  client.setDeadline(ClientStream::Time::max());  // whatever comes now is not the client's delay
  co_return to.size() - body.size;
}

// What is left in the buffer while the parser wants more is a chunk's head or a trailer: nobody bounds these else.
void Exchange::refuseLongFraming() {
  if (client.buffer().size() <= options->maxHeaderBytes) return;
  closeAfter();
  throw Refused(431, "a chunk's head or a trailer is too long");
}

asio::awaitable<void> Exchange::skipBody() {
  std::array<std::byte, 16 << 10> bytes;
  uint64_t skipped = 0;
  while (const size_t got = co_await receiveBody(bytes)) {
    if ((skipped += got) > MOST_SKIPPED) {
      closeAfter();
      throw Refused(413, "a body where none belongs");
    }
  }
}

std::string Exchange::finish(AnswerHead head) {
  m_status = head.status();
  if (m_isKeptAlive && !speaksChunks()) head.add("Connection", "keep-alive");
  return head.finish(m_isKeptAlive);
}

asio::awaitable<void> Exchange::sendHead(AnswerHead head, ClientStream::More more) {
  const std::string text = finish(std::move(head));
  co_await client.send(text, more);
}

asio::awaitable<void> Exchange::sendSmallFile(AnswerHead head, int file, uint64_t offset, uint64_t bytes) {
  std::string text = finish(std::move(head));
  const size_t headSize = text.size();
  text.resize(headSize + bytes);
  const ssize_t got = ::pread(file, &text[headSize], bytes, static_cast<off_t>(offset));
  if (got != static_cast<ssize_t>(bytes)) throw ClientGone();
  co_await client.send(text, ClientStream::More::No);
  m_bodyBytes += bytes;
}

asio::awaitable<void> Exchange::sendBody(std::span<const std::byte> bytes, ClientStream::More more) {
  co_await client.send(bytes, more);
  m_bodyBytes += bytes.size();
}

asio::awaitable<void> Exchange::sendFile(int file, uint64_t offset, uint64_t bytes) {
  co_await client.sendFile(file, offset, bytes);
  m_bodyBytes += bytes;
  service.stats.fileBytes += bytes;
}

asio::awaitable<void> Exchange::sendText(AnswerHead head, std::string_view type, std::string_view text) {
  addCacheStatus(head);
  head.add("Content-Type", type);
  head.add("Content-Length", text.size());
  const size_t bodySize = isHead() ? 0 : text.size();
  const std::string whole = finish(std::move(head)).append(text.substr(0, bodySize));
  co_await client.send(whole, ClientStream::More::No);
  m_bodyBytes += bodySize;
}

asio::awaitable<void> Exchange::refuse(const Refused& refused) {
  AnswerHead head(refused.status);
  if (refused.status == 503) head.add("Retry-After", "1");
  if (!m_parser.is_done()) closeAfter();  // what is left of the request would be taken for the next one
  if (refused.code.empty()) {
    const std::string text = refused.reason + '\n';
    co_return co_await sendText(std::move(head), "text/plain", text);
  }
  const std::string text = fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Error><Code>{}</Code><Message>{}</Message></Error>\n",
      refused.code, refused.reason);
  co_await sendText(std::move(head), "application/xml", text);
}

}  // namespace diskcached
