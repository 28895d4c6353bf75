#include "serve/objectBody.h"

#include <boost/asio/steady_timer.hpp>
#include <cerrno>

namespace diskcached {

namespace {

constexpr uint64_t MOST_AT_ONCE = 256 << 10;
constexpr std::chrono::milliseconds TURN(20);

}  // namespace

void ObjectBody::begin(uint64_t number) {
  if (m_ahead && number == m_number + 1) {
    m_fetch = std::move(m_ahead);
  } else {
    const BlockFetches::Taken taken = m_service.fetches.take(m_key, m_info, number);
    m_fetch = taken.fetch;
    m_isMine = taken.isMine;
  }
  m_ahead.reset();
  m_number = number;
}

// The next block comes while this one goes; never more than these two are held.
void ObjectBody::beginAhead() {
  const uint64_t next = m_number + 1;
  if (m_ahead || next * m_service.fetches.blockSize() >= m_end) return;
  try {
    m_ahead = m_service.fetches.take(m_key, m_info, next).fetch;
  } catch (const Overloaded&) {  // later, then
  }
}

asio::awaitable<Piece> ObjectBody::next(uint64_t offset) {
  const uint64_t blockSize = m_service.fetches.blockSize();
  const uint64_t number = offset / blockSize, from = offset % blockSize;
  if (!m_fetch || m_number != number) begin(number);
  m_client.setDeadline(ClientStream::Time::max());
  const BlockFetch::Progress now = co_await m_fetch->moreThan(from);
  m_client.touch();
  if (now.arrived <= from) throw BytesMissing(now.errNo);
  if (!m_hasBegun) {
    m_hasBegun = true;
    if (now.isFromOrigin) m_source = m_isMine ? Source::Store : Source::OtherClient;
  }
  beginAhead();
  const uint64_t size = std::min({now.arrived - from, m_end - offset, MOST_AT_ONCE});
  co_return Piece{m_fetch, {m_fetch->bytes() + from, static_cast<size_t>(size)}};
}

asio::awaitable<Piece> ObjectBody::nextPatiently(uint64_t offset) {
  const auto givenUp = std::chrono::steady_clock::now() + m_service.options()->idleTimeout;
  for (;;) {
    try {
      co_return co_await next(offset);
    } catch (const Overloaded&) {
      if (std::chrono::steady_clock::now() > givenUp) throw;
    }
    asio::steady_timer turn(m_client.socket().get_executor(), TURN);
    co_await turn.async_wait(asio::use_awaitable);
  }
}

}  // namespace diskcached
