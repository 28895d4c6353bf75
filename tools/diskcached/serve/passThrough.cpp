#include "serve/passThrough.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

#include "http/multiDelete.h"
#include "http/range.h"
#include "serve/passStream.h"
#include "serve/requestBody.h"

namespace diskcached {

namespace {

constexpr size_t MOST_LISTED = 2 << 20;  // bytes of a list of keys to delete: a store takes 1000 of them

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

// The objects that a request may change: the one it names, and those that it lists.
std::vector<std::string> changedBy(const OriginCall& call) {
  if (call.method == "GET" || call.method == "HEAD" || call.method == "OPTIONS") return {};
  std::vector<std::string> changed = {call.key};
  if (call.method != "POST" || !queryValue(call.query, "delete")) return changed;
  if (call.body.size() > MOST_LISTED) throw Refused(413, "the list of keys is too long");
  const auto listed = keysToDelete({reinterpret_cast<const char*>(call.body.data()), call.body.size()});
  if (listed.empty()) throw Refused(400, "the keys to delete can't be read");
  const std::string bucket = call.key.empty() || call.key.ends_with('/') ? call.key : call.key + '/';
  for (const std::string& key : listed) changed.push_back(bucket + key);
  return changed;
}

// Parts of an upload, its begin, or that it is given up: the object changes at its end only.
bool isOfParts(const OriginCall& call) {
  const auto has = [&](std::string_view name) { return queryValue(call.query, name).has_value(); };
  return (call.method == "PUT" && has("partNumber") && has("uploadId")) ||
         (call.method == "POST" && has("uploads")) || (call.method == "DELETE" && has("uploadId"));
}

// By the upload of an object that is staged here: it would come over what this makes of the object, and bring back
// what this deletes.
bool wouldBeUndone(Service& service, const std::vector<std::string>& changed) {
  return std::any_of(changed.begin(), changed.end(),
                     [&](const std::string& key) { return !service.cache.stagedObjects(key).empty(); });
}

// Makes the call, and forgets what it changes before its answer can be seen, and again at the end: a store may
// begin to answer before it is done.
OriginReply callStore(Service& service, OriginCall& call, PassStream& stream,
                      const std::vector<std::string>& changed, std::shared_ptr<KeyTurns::Turn>& turn) {
  const auto forgetChanged = [&](const OriginReply& reply) {
    if (!reply.mayHaveChanged()) return;
    for (const std::string& key : changed) service.forget(key);
  };
  call.onHead = [&](const OriginReply& reply) {
    forgetChanged(reply);
    turn.reset();  // the client may be slow
    return stream.putHead(reply);
  };
  OriginReply reply = service.origin.call(call);
  forgetChanged(reply);
  return reply;
}

// What the store answered, piece by piece; a length that it told is told on.
asio::awaitable<void> relay(Exchange& exchange, PassStream& stream, const OriginReply& reply) {
  AnswerHead head = relayedHead(reply);
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

AnswerHead relayedHead(const OriginReply& reply) {
  AnswerHead head(reply.status);
  const std::string connection = valuesOf(reply.headers, "connection");
  for (const auto& [name, value] : reply.headers) {
    const bool isOurs = equalsIgnoringCase(name, "server") || equalsIgnoringCase(name, "date") ||
                        equalsIgnoringCase(name, "content-length") ||
                        equalsIgnoringCase(name, "cache-status");
    if (!isHopByHop(name, connection) && !isOurs) head.add(name, value);
  }
  return head;
}

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
  auto changed = changedBy(*call);
  const auto stream = std::make_shared<PassStream>();
  const Abandon abandon(*stream);
  call->onBody = [stream](std::span<const std::byte> bytes) { return stream->putBody(bytes); };
  // What changes one object takes its turn; parts of an upload come side by side.
  const bool isYetToChange = isOfParts(*call);
  std::shared_ptr<KeyTurns::Turn> turn;
  if (changed.size() == 1 && !isYetToChange) turn = co_await service.keyTurns.take(call->key);
  if (!isYetToChange && wouldBeUndone(service, changed))
    throw Refused(503, "what is staged is to be uploaded first");
  WorkerPool& workers = changed.empty() ? service.passers : service.changers;
  const bool isPosted = workers.post(
      [&service, call, stream, spool, changed = std::move(changed), turn = std::move(turn)]() mutable {
        OriginReply reply;
        try {
          reply = callStore(service, *call, *stream, changed, turn);
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
