#include "serve/changeObject.h"

#include <fmt/core.h>

#include <ctime>

#include "http/httpDate.h"
#include "http/range.h"
#include "serve/passThrough.h"
#include "serve/requestBody.h"
#include "serve/staging.h"

namespace diskcached {

namespace {

constexpr size_t MOST_TEXT = 64 << 10;  // of what the store says to a change

struct Changed {
  OriginReply reply;
  std::string text;
};

// What a look at the store tells that began before its end counts no more.
Changed changeAtStore(Service& service, OriginCall call) {
  Changed changed;
  call.onBody = [&](std::span<const std::byte> bytes) {
    const size_t room = MOST_TEXT - changed.text.size();
    changed.text.append(reinterpret_cast<const char*>(bytes.data()), std::min(bytes.size(), room));
    return true;
  };
  const ObjectInfoPointer before = service.index.find(call.key);
  changed.reply = service.origin.call(call);
  // Also after an error: the store may have done what it could not say.
  if (changed.reply.isSuccess() || changed.reply.isTrouble()) service.forgetOlder(call.key, before);
  return changed;
}

// Also of an object that only this server has: then the store may know nothing of it.
Changed removeAtStore(Service& service, const OriginCall& call) {
  const ObjectInfoPointer known = service.index.find(call.key);
  Changed changed = changeAtStore(service, call);
  if (known && known->isStaged && changed.reply.status == 404) {
    service.forgetOlder(call.key, known);
    changed = {.reply = {.status = 204}, .text = ""};
  }
  return changed;
}

// One change of a key at a time.
template <typename F>
asio::awaitable<Changed> inTurn(Service& service, const std::string& key, F change) {
  const auto turn = co_await service.keyTurns.take(key);
  co_return co_await service.changers.run(std::move(change));
}

asio::awaitable<void> relayChange(Exchange& exchange, const Changed& changed) {
  const OriginReply& reply = changed.reply;
  exchange.setCacheStatus(fmt::format("diskcached; fwd=method; fwd-status={}", reply.status));
  if (reply.status == 0) throw Refused(reply.isTimeout ? 504 : 502, "the store can't be asked");
  AnswerHead head(reply.status);
  const std::string connection = valuesOf(reply.headers, "connection");
  for (const auto& [name, value] : reply.headers) {
    const bool isOurs = equalsIgnoringCase(name, "server") || equalsIgnoringCase(name, "date") ||
                        equalsIgnoringCase(name, "content-length");
    if (!isHopByHop(name, connection) && !isOurs) head.add(name, value);
  }
  if (reply.status != 204) head.add("content-length", changed.text.size());
  exchange.addCacheStatus(head);
  co_await exchange.sendHead(std::move(head), ClientStream::More::No);
  if (reply.status != 204)
    co_await exchange.sendBody(std::as_bytes(std::span(changed.text)), ClientStream::More::No);
}

OriginCall callOf(const Exchange& exchange) {
  OriginCall call;
  call.method = exchange.method();
  call.key = exchange.target().key;
  call.headers = forwardedHeaders(exchange);
  return call;
}

bool isConditional(const Exchange& exchange) {
  using http::field;
  return !exchange.header(field::if_match).empty() || !exchange.header(field::if_none_match).empty() ||
         !exchange.header(field::if_unmodified_since).empty();
}

asio::awaitable<void> putThrough(Exchange& exchange, std::span<const std::byte> bytes) {
  OriginCall call = callOf(exchange);
  call.hasBody = true;
  call.body = bytes;
  call.mayRepeat = !isConditional(exchange);
  Service& service = exchange.service;
  const Changed changed = co_await inTurn(service, call.key, [&] { return changeAtStore(service, call); });
  co_await relayChange(exchange, changed);
}

// The answer comes when the object is safe here; from then on everybody sees it.
asio::awaitable<void> putStaged(Exchange& exchange, std::span<const std::byte> bytes) {
  Service& service = exchange.service;
  Metadata kept = cachedHeaders(forwardedHeaders(exchange));
  kept["last-modified"] = formatHttpDate(std::time(nullptr));
  const StageResult staged = co_await service.changers.run(
      [&] { return stageObject(service, exchange.target().key, bytes, std::move(kept), *exchange.options); });
  exchange.setCacheStatus("diskcached; fwd=method; detail=staged");
  if (staged.error.IsError()) throw Refused(507, "the object can't be staged");
  AnswerHead head(200);
  head.add("etag", staged.etag);
  head.add("content-length", uint64_t{0});
  exchange.addCacheStatus(head);
  co_await exchange.sendHead(std::move(head), ClientStream::More::No);
}

void refuseUnsupported(const Exchange& exchange) {
  if (exchange.target().key.empty()) throw Refused(405, "the root is no object");
  // A body in signed pieces is for the one who can check its signatures.
  if (exchange.header("x-amz-content-sha256").starts_with("STREAMING-"))
    throw Refused(501, "bodies in signed chunks are not taken: sign the whole body, or none of it");
}

}  // namespace

asio::awaitable<void> putObject(Exchange& exchange) {
  exchange.setCacheStatus("diskcached; fwd=method");
  refuseUnsupported(exchange);
  ++exchange.service.stats.uploads;
  const auto spool = std::make_unique<Spool>();
  const auto bytes = co_await takeBody(exchange, *spool);
  exchange.client.setDeadline(ClientStream::Time::max());
  const bool isCopy = !exchange.header("x-amz-copy-source").empty();
  if (exchange.options->writeBack && !isConditional(exchange) && !isCopy) {
    co_await putStaged(exchange, bytes);
  } else {
    co_await putThrough(exchange, bytes);
  }
}

asio::awaitable<void> deleteObject(Exchange& exchange) {
  exchange.setCacheStatus("diskcached; fwd=method");
  refuseUnsupported(exchange);
  ++exchange.service.stats.deletes;
  co_await exchange.skipBody();
  exchange.client.setDeadline(ClientStream::Time::max());
  OriginCall call = callOf(exchange);
  Service& service = exchange.service;
  Changed changed = co_await inTurn(service, call.key, [&] { return removeAtStore(service, call); });
  co_await relayChange(exchange, changed);
}

}  // namespace diskcached
