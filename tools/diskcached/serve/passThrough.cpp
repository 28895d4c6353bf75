#include "serve/passThrough.h"

#include <fmt/core.h>

#include "http/range.h"
#include "serve/passStream.h"
#include "serve/requestBody.h"

namespace diskcached {
namespace {

bool isForwarded(std::string_view name, std::string_view connection) {
  if (isHopByHop(name, connection)) return false;
  // What is about this connection, and what signs the request to this server: the one to the store is signed
  // anew.
  for (const std::string_view own : {"host", "content-length", "expect", "authorization", "accept-encoding",
                                     "range", "x-amz-content-sha256", "x-amz-date", "x-amz-security-token"}) {
    if (equalsIgnoringCase(name, own)) return false;
  }
  return true;
}

OriginCall passedOn(const Exchange& exchange) {
  OriginCall call;
  call.method = exchange.method();
  call.key = exchange.target().key;
  call.query = canonicalQuery(exchange.target().query);
  call.headers = forwardedHeaders(exchange);
  if (const std::string_view range = exchange.header(http::field::range); !range.empty())
    call.headers.emplace_back("Range", range);
  call.mayRepeat = call.method == "GET" || call.method == "HEAD";
  return call;
}

// What the store answered, piece by piece; a length that it told is told on.
asio::awaitable<void> relay(Exchange& exchange, PassStream& stream, const OriginReply& reply) {
  AnswerHead head(reply.status);
  const std::string connection = valuesOf(reply.headers, "connection");
  for (const auto& [name, value] : reply.headers) {
    const bool isOurs = equalsIgnoringCase(name, "server") || equalsIgnoringCase(name, "date") ||
                        equalsIgnoringCase(name, "content-length") ||
                        equalsIgnoringCase(name, "cache-status");
    if (!isHopByHop(name, connection) && !isOurs) head.add(name, value);
  }
  const auto size = parseNumber(headerOf(reply.headers, "content-length"));
  const bool hasBody = !exchange.isHead() && reply.status != 204 && reply.status != 304;
  const bool isChunked = hasBody && !size && exchange.speaksChunks();
  if (size && reply.status != 204) head.add("Content-Length", *size);
  if (isChunked) head.add("Transfer-Encoding", "chunked");
  if (hasBody && !size && !isChunked) exchange.closeAfter();
  exchange.addCacheStatus(head);
  co_await exchange.sendHead(std::move(head), ClientStream::More::No);
  for (;;) {
    exchange.client.setDeadline(ClientStream::Time::max());
    const std::string piece = co_await stream.piece();
    exchange.client.touch();
    if (piece.empty()) break;
    if (!hasBody) continue;
    if (isChunked)
      co_await exchange.client.send(fmt::format("{:x}\r\n", piece.size()), ClientStream::More::Yes);
    co_await exchange.sendBody(std::as_bytes(std::span(piece)),
                               isChunked ? ClientStream::More::Yes : ClientStream::More::No);
    if (isChunked) co_await exchange.client.send("\r\n", ClientStream::More::No);
  }
  if (stream.isBroken())
    throw ClientGone();  // ends the connection, so that nobody takes a part for the whole
  if (isChunked) co_await exchange.client.send("0\r\n\r\n", ClientStream::More::No);
}

// Lets the store's thread go when the client's coroutine ends, however it does.
struct Abandon {
  explicit Abandon(PassStream& itsStream) : stream(itsStream) {}
  ~Abandon() { stream.abandon(); }
  Abandon(const Abandon&) = delete;
  Abandon& operator=(const Abandon&) = delete;
  PassStream& stream;
};

}  // namespace

Headers forwardedHeaders(const Exchange& exchange) {
  Headers headers;
  for (const auto& field : exchange.request()) {
    const std::string_view name(field.name_string().data(), field.name_string().size());
    headers.emplace_back(name, std::string_view(field.value().data(), field.value().size()));
  }
  const std::string connection = valuesOf(headers, "connection");
  std::erase_if(headers, [&](const auto& header) { return !isForwarded(header.first, connection); });
  return headers;
}

asio::awaitable<void> passThrough(Exchange& exchange, std::string_view why) {
  Service& service = exchange.service;
  ++service.stats.passed;
  const auto spool = std::make_shared<Spool>();
  const auto call = std::make_shared<OriginCall>(passedOn(exchange));
  call->hasBody = exchange.hasBody();
  call->body = co_await takeBody(exchange, *spool);
  const auto stream = std::make_shared<PassStream>();
  const Abandon abandon(*stream);
  call->onHead = [stream](const OriginReply& reply) { return stream->putHead(reply); };
  call->onBody = [stream](std::span<const std::byte> bytes) { return stream->putBody(bytes); };
  const bool isChange = call->method != "GET" && call->method != "HEAD" && call->method != "OPTIONS";
  WorkerPool& workers = isChange ? service.changers : service.passers;
  const bool isPosted = workers.post([&service, call, stream, spool, isChange] {
    OriginReply reply;
    try {
      reply = service.origin.call(*call);
      if (isChange && reply.mayHaveChanged()) service.forget(call->key);
    } catch (const std::exception& error) {
      reply = {.error = error.what()};
    }
    stream->end(std::move(reply));
  });
  if (!isPosted) throw Overloaded();
  exchange.client.setDeadline(ClientStream::Time::max());
  const OriginReply reply = co_await stream->head();
  exchange.client.touch();
  exchange.setCacheStatus(fmt::format("diskcached; {}; fwd-status={}", why, reply.status));
  if (reply.status == 0) throw Refused(reply.isTimeout ? 504 : 502, "the store can't be asked");
  co_await relay(exchange, *stream, reply);
}

}  // namespace diskcached
