#include "serve/changeObject.h"

#include <fmt/core.h>

#include <algorithm>
#include <ctime>

#include "http/httpDate.h"
#include "http/range.h"
#include "serve/passThrough.h"
#include "serve/requestBody.h"
#include "serve/staging.h"

namespace diskcached {

using ObjectStore::KxCriticalSectionLock;

namespace {

constexpr size_t MOST_TEXT = 64 << 10;  // of what the store says to a change

struct Changed {
  OriginReply reply;
  std::string text;
  GivenUp staged = GivenUp::Nothing;
};

bool hasReplaced(const OriginCall& call, const Changed& changed) {
  if (call.method == "DELETE" && changed.reply.status == 404 && changed.reply.error.empty()) return true;
  // The answer to a copy begins before it is made.
  return changed.reply.isSuccess() && changed.text.find("<Error>") == std::string::npos;
}

// What a look at the store tells that began before its end counts no more. What was staged before goes when the store
// has made the change, and not earlier: else it is as if it had not been asked for. What is staged meanwhile comes after.
Changed changeAtStore(Service& service, OriginCall call) {
  Changed changed;
  bool isTooLong = false;
  call.onBody = [&](std::span<const std::byte> bytes) {
    isTooLong = bytes.size() > MOST_TEXT - changed.text.size();
    if (!isTooLong) changed.text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return !isTooLong;
  };
  const auto before = service.cache.stagedObjects(call.key);
  if (!call.mayRepeat && !before.empty()) throw Refused(503, "the object is to be uploaded first");
  changed.reply = service.origin.call(call);
  const KxCriticalSectionLock lock(&service.keyLocks.of(call.key));
  if (hasReplaced(call, changed)) changed.staged = giveUpStaged(service, before);
  if (isTooLong) changed.reply.error = "the answer is too long";
  // Also after an error: the store may have done what it could not say.
  if (changed.reply.isSuccess() || changed.reply.isTrouble()) service.forget(call.key);
  // An object that only this server had: the store knows nothing of it.
  if (changed.staged == GivenUp::All && changed.reply.status == 404)
    changed = {.reply = {.status = 204}, .text = "", .staged = GivenUp::All};
  return changed;
}

asio::awaitable<void> relayChange(Exchange& exchange, const Changed& changed) {
  const OriginReply& reply = changed.reply;
  exchange.setCacheStatus(fmt::format("diskcached; fwd=method; fwd-status={}", reply.status));
  if (reply.status == 0 || !reply.error.empty())
    throw Refused(reply.isTimeout ? 504 : 502, "the store can't be asked");
  if (changed.staged == GivenUp::Failed || changed.staged == GivenUp::NotForSure)
    throw Refused(503, "what is staged can't be given up");
  AnswerHead head = relayedHead(reply);
  if (reply.status != 204) head.add("content-length", changed.text.size());
  exchange.addCacheStatus(head);
  co_await exchange.sendHead(std::move(head), ClientStream::More::No);
  if (reply.status != 204)
    co_await exchange.sendBody(std::as_bytes(std::span(changed.text)), ClientStream::More::No);
}

OriginCall callOf(const Exchange& exchange) {
  using http::field;
  OriginCall call;
  call.method = exchange.method();
  call.key = exchange.target().key;
  call.headers = forwardedHeaders(exchange);
  // Conditions, and changes of a part of an object, are about what the store has.
  call.mayRepeat =
      exchange.header(field::if_match).empty() && exchange.header(field::if_none_match).empty() &&
      exchange.header(field::if_unmodified_since).empty() && exchange.header(field::content_range).empty() &&
      exchange.header("x-amz-write-offset-bytes").empty();
  return call;
}

// Whether it asks for what only the store can do: a copy, an access list, encryption, a checksum.
bool wantsMore(const OriginCall& call) {
  return std::any_of(call.headers.begin(), call.headers.end(), [](const auto& header) {
    const auto begins = [&](std::string_view with) {
      return equalsIgnoringCase(std::string_view(header.first).substr(0, with.size()), with);
    };
    return begins("x-amz-") && !begins("x-amz-meta-");
  });
}

// One change of a key at a time.
asio::awaitable<void> changeThrough(Exchange& exchange, const OriginCall& call) {
  Service& service = exchange.service;
  auto turn = co_await service.keyTurns.take(call.key);
  const Changed changed = co_await service.changers.run([&] { return changeAtStore(service, call); });
  turn.reset();  // the client may be slow
  co_await relayChange(exchange, changed);
}

// The answer comes when the object is safe here; from then on everybody sees it.
asio::awaitable<void> putStaged(Exchange& exchange, const OriginCall& call) {
  Service& service = exchange.service;
  Metadata kept = cachedHeaders(call.headers);
  kept["last-modified"] = formatHttpDate(std::time(nullptr));
  const StageResult staged = co_await service.changers.run(
      [&] { return stageObject(service, call.key, call.body, std::move(kept), *exchange.options); });
  exchange.setCacheStatus("diskcached; fwd=method; detail=staged");
  if (staged.error.IsError()) throw Refused(507, "the object can't be staged");
  AnswerHead head(200);
  head.add("etag", staged.etag);
  head.add("content-length", uint64_t{0});
  exchange.addCacheStatus(head);
  co_await exchange.sendHead(std::move(head), ClientStream::More::No);
}

}  // namespace

asio::awaitable<void> putObject(Exchange& exchange) {
  exchange.setCacheStatus("diskcached; fwd=method");
  ++exchange.service.stats.uploads;
  const auto spool = std::make_unique<Spool>();
  const auto bytes = co_await takeBody(exchange, *spool);
  exchange.client.setDeadline(ClientStream::Time::max());
  OriginCall call = callOf(exchange);
  call.hasBody = true;
  call.body = bytes;
  if (exchange.options->writeBack && call.mayRepeat && !wantsMore(call)) {
    co_await putStaged(exchange, call);
  } else {
    co_await changeThrough(exchange, call);
  }
}

asio::awaitable<void> deleteObject(Exchange& exchange) {
  exchange.setCacheStatus("diskcached; fwd=method");
  ++exchange.service.stats.deletes;
  co_await exchange.skipBody();
  exchange.client.setDeadline(ClientStream::Time::max());
  const OriginCall call = callOf(exchange);
  co_await changeThrough(exchange, call);
}

}  // namespace diskcached
