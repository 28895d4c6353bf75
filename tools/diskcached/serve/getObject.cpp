#include "serve/getObject.h"

#include <fmt/core.h>

#include <cerrno>

#include "http/conditions.h"
#include "http/range.h"
#include "serve/objectBody.h"
#include "serve/passThrough.h"

namespace diskcached {
namespace {

constexpr unsigned MOST_VERSIONS = 3;  // that are tried when the object changes while it is fetched

constexpr uint64_t LARGEST_COPY = 16 << 10;  // takes less than a second call for the body

int64_t secondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration_cast<std::chrono::seconds>(to - from).count();
}

// One answer from one version.
class Answer {
 public:
  Answer(Exchange& exchange, Found found)
      : m_exchange(exchange), m_found(std::move(found)), m_info(*m_found.info) {}

  asio::awaitable<void> run() {
    switch (judge(conditions(), m_info.header("etag"), m_info.header("last-modified"))) {
      case Verdict::NotModified: co_return co_await sendEmpty(304);
      case Verdict::Failed: co_return co_await sendEmpty(412);
      case Verdict::Proceed: break;
    }
    RangeChoice choice;
    if (mayAnswerPart(m_exchange.header(http::field::if_range), m_info.header("etag"),
                      m_info.header("last-modified"), Clock::to_time_t(m_info.checkedAt)))
      choice = chooseRange(m_exchange.header(http::field::range), m_info.size);
    if (choice.kind == RangeChoice::Unsatisfiable) co_return co_await sendEmpty(416);
    const ByteRange range = choice.kind == RangeChoice::Part ? choice.range : ByteRange{0, m_info.size};
    const unsigned status = choice.kind == RangeChoice::Part ? 206 : 200;
    if (m_exchange.isHead() || range.size == 0) {
      setStatus(withoutBytes());
      co_return co_await m_exchange.sendHead(head(status, range), ClientStream::More::No);
    }
    co_await sendBytes(status, range);
  }

 private:
  Conditions conditions() const {
    using http::field;
    return {m_exchange.header(field::if_match), m_exchange.header(field::if_none_match),
            m_exchange.header(field::if_modified_since), m_exchange.header(field::if_unmodified_since)};
  }

  // How an answer came about for which no bytes were fetched.
  const char* withoutBytes() const {
    if (!m_found.isAsked || m_found.isStale) return "hit";
    return m_found.wasKnown ? "fwd=stale" : "fwd=miss";
  }

  void setStatus(std::string_view how) {
    std::string text = fmt::format("diskcached; {}", how);
    if (m_found.isAsked && !m_found.isStale) text += fmt::format("; fwd-status={}", m_found.reply.status);
    const Clock::time_point now = Clock::now();
    if (how == "hit" && m_info.freshUntil != Clock::time_point::max() && !m_info.isStaged)
      text += fmt::format("; ttl={}", secondsBetween(now, m_info.freshUntil));
    if (m_found.isStale) text += "; detail=stale-if-error";
    m_exchange.setCacheStatus(std::move(text));
  }

  AnswerHead head(unsigned status, const ByteRange& range) const {
    AnswerHead head(status);
    for (const auto& [name, value] : m_info.headers) head.add(name, value);
    head.add("accept-ranges", "bytes");
    head.add("age",
             static_cast<uint64_t>(std::max<int64_t>(0, secondsBetween(m_info.checkedAt, Clock::now()))));
    if (status == 206)
      head.add("content-range",
               fmt::format("bytes {}-{}/{}", range.from, range.from + range.size - 1, m_info.size));
    head.add("content-length", range.size);
    m_exchange.addCacheStatus(head);
    return head;
  }

  asio::awaitable<void> sendEmpty(unsigned status) {
    setStatus(withoutBytes());
    AnswerHead head(status);
    if (status == 416) head.add("content-range", fmt::format("bytes */{}", m_info.size));
    if (status == 304) {
      for (const auto& [name, value] : m_info.headers) {
        if (!name.starts_with("content-")) head.add(name, value);
      }
    } else {
      head.add("content-length", uint64_t{0});
    }
    m_exchange.addCacheStatus(head);
    co_await m_exchange.sendHead(std::move(head), ClientStream::More::No);
  }

  asio::awaitable<void> sendBytes(unsigned status, const ByteRange& range) {
    const uint64_t end = range.from + range.size;
    ObjectBody body(m_exchange.service, m_exchange.client, m_exchange.target().key, m_found.info, end);
    Piece piece = co_await body.next(range.from);
    countSource(body.source());
    if (!piece.bytes && piece.size == range.size && piece.size <= LARGEST_COPY)
      co_return co_await m_exchange.sendSmallFile(head(status, range), piece.file, piece.fileOffset,
                                                  piece.size);
    co_await m_exchange.sendHead(head(status, range), ClientStream::More::Yes);
    for (uint64_t at = range.from;;) {
      at += piece.size;
      if (piece.bytes) {
        co_await m_exchange.sendBody({piece.bytes, static_cast<size_t>(piece.size)}, ClientStream::More::No);
      } else {
        co_await m_exchange.sendFile(piece.file, piece.fileOffset, piece.size);
      }
      if (at == end) co_return;
      piece = co_await body.nextPatiently(at);
    }
  }

  void countSource(ObjectBody::Source source) {
    Stats& stats = m_exchange.service.stats;
    switch (source) {
      case ObjectBody::Source::Cache: ++stats.hits; return setStatus(withoutBytes());
      case ObjectBody::Source::Store: ++stats.misses; return setStatus("fwd=miss");
      case ObjectBody::Source::OtherClient: ++stats.collapsed; return setStatus("fwd=miss; collapsed");
    }
  }

  Exchange& m_exchange;
  const Found m_found;
  const ObjectInfo& m_info;
};

Refused refusalFor(const OriginReply& reply) {
  if (reply.isTimeout) return {504, "the store does not answer"};
  if (reply.status == 503 || reply.status == 429) return {503, "the store is overloaded"};
  return {502, "the store can't be asked"};
}

asio::awaitable<void> answerWithout(Exchange& exchange, const OriginReply& reply) {
  if (reply.isTrouble()) {
    exchange.setCacheStatus("diskcached; fwd=miss");
    throw refusalFor(reply);
  }
  co_await passThrough(exchange, "fwd=miss");
}

// 0, or why the object must be answered otherwise: ESTALE, the store has got another version while its bytes
// were fetched; ENOTSUP, it gives the whole object only.
asio::awaitable<int> answerFound(Exchange& exchange, const Found& found) {
  try {
    Answer answer(exchange, found);
    co_await answer.run();
    co_return 0;
  } catch (const BytesMissing& missing) {
    if (missing.errNo == ENOTSUP)
      exchange.service.lookups.noteWithoutRanges(exchange.target().key, found.info->version,
                                                 *exchange.options);
    if (exchange.isAnswered()) throw ClientGone();  // the rest can't be sent, so the connection must end
    if (missing.errNo == ESTALE || missing.errNo == ENOTSUP) co_return missing.errNo;
    if (missing.errNo == EAGAIN) throw Overloaded();
    throw Refused(missing.errNo == ETIMEDOUT ? 504 : 502, "the store does not give the object");
  } catch (const Overloaded&) {
    if (exchange.isAnswered()) throw ClientGone();
    throw;
  }
}

}  // namespace

asio::awaitable<void> getObject(Exchange& exchange) {
  Service& service = exchange.service;
  for (unsigned versions = 0; versions < MOST_VERSIONS; ++versions) {
    exchange.client.setDeadline(ClientStream::Time::max());
    Found found = co_await service.lookups.find(exchange.target().key, exchange.options);
    exchange.client.touch();
    if (!found.info) co_return co_await answerWithout(exchange, found.reply);
    if (!found.info->mayStore) co_return co_await passThrough(exchange, "fwd=bypass");
    if (found.isStale) ++service.stats.stale;
    const int errNo = co_await answerFound(exchange, found);
    if (errNo == 0) co_return;
    if (errNo == ENOTSUP) co_return co_await passThrough(exchange, "fwd=bypass");
    if (!service.index.erase(exchange.target().key, *found.info))
      throw Refused(503, "what is staged can't be read just now");
  }
  throw Refused(503, "the object changes all the time");
}

}  // namespace diskcached
