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
    m_isWhole = !m_isMine && m_fetch->progress().arrived == m_fetch->size();
  }
  m_ahead.reset();
  m_number = number;
  m_isRefused = false;
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

// A block that is missing is hardly followed by one that is not, and the fetch finds that too. One whose
// fetch has ended is sent from disk: however slow the client is, he holds no memory then.
bool ObjectBody::isLikelyOnDisk(uint64_t number) {
  if (!m_fetch || m_number != number) return !m_hasMissed;
  const BlockFetch::Progress now = m_fetch->progress();
  return now.isDone && now.errNo == 0 && !m_isRefused;
}

asio::awaitable<Piece> ObjectBody::fromDisk(uint64_t number, uint64_t offset) {
  const uint64_t name = PinnedLately::nameOf(m_key, m_info->version, number);
  const auto pin = [&] { return m_service.cache.pin(m_key, m_info->version, offset, m_end - offset); };
  ObjectStore::PinnedBlock block;
  if (m_service.pinnedLately.contains(name)) {
    block = pin();
  } else {
    block = co_await m_service.disks.run(pin);
  }
  if (!block || block.length == 0 || block.objectSize != m_info->size) {
    m_service.pinnedLately.erase(name);
    co_return Piece();
  }
  m_service.pinnedLately.insert(name);
  co_return Piece{std::move(block.hold), nullptr, block.fd, block.fileOffset, block.length};
}

asio::awaitable<Piece> ObjectBody::fromFetch(uint64_t number, uint64_t offset) {
  const uint64_t from = offset % m_service.fetches.blockSize();
  if (!m_fetch || m_number != number) begin(number);
  m_client.setDeadline(ClientStream::Time::max());
  const BlockFetch::Progress now = co_await m_fetch->moreThan(from);
  m_client.touch();
  if (now.arrived <= from) throw BytesMissing(now.errNo);
  if (!m_hasBegun && now.isFromOrigin && !m_isWhole)
    m_source = m_isMine ? Source::Store : Source::OtherClient;
  m_hasMissed = now.isFromOrigin;
  beginAhead();
  const uint64_t size = std::min({now.arrived - from, m_end - offset, MOST_AT_ONCE});
  co_return Piece{m_fetch, m_fetch->bytes() + from, -1, 0, size};
}

asio::awaitable<Piece> ObjectBody::next(uint64_t offset) {
  const uint64_t number = offset / m_service.fetches.blockSize();
  if (m_ahead && number == m_number + 1) begin(number);
  Piece piece;
  if (isLikelyOnDisk(number)) {
    piece = co_await fromDisk(number, offset);
    const bool isFetched = m_fetch && m_number == number;
    if (isFetched) m_isRefused = piece.size == 0;
    if (piece.size > 0) m_fetch.reset();
  }
  if (piece.size == 0) piece = co_await fromFetch(number, offset);
  m_hasBegun = true;
  co_return piece;
}

asio::awaitable<Piece> ObjectBody::nextPatiently(uint64_t offset) {
  const auto givenUp = std::chrono::steady_clock::now() + m_service.options()->idleTimeout;
  for (;;) {
    try {
      co_return co_await next(offset);
    } catch (const Overloaded&) {
      if (m_client.isCutOff() || std::chrono::steady_clock::now() > givenUp) throw;
    }
    asio::steady_timer turn(m_client.socket().get_executor(), TURN);
    co_await turn.async_wait(asio::use_awaitable);
  }
}

}  // namespace diskcached
