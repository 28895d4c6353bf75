#include "serve/passStream.h"

namespace diskcached {

using ObjectStore::KxCriticalSectionLock;

namespace {

constexpr size_t MOST_BYTES = 1 << 20;

}  // namespace

bool PassStream::putHead(const OriginReply& reply) {
  {
    const KxCriticalSectionLock lock(&m_lock);
    if (m_isAbandoned) return false;
    m_head = reply;
  }
  m_state.change([](State& now) { return now.hasHead = true; });
  return true;
}

bool PassStream::putBody(std::span<const std::byte> bytes) {
  {
    const KxCriticalSectionLock lock(&m_lock);
    m_lock.waitWithoutAnyEntry(
        m_taken, [this]() DC_NO_THREAD_SAFETY_ANALYSIS { return m_isAbandoned || m_bytes < MOST_BYTES; });
    if (m_isAbandoned) return false;
    m_pieces.emplace_back(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    m_bytes += bytes.size();
  }
  m_state.change([](State& now) { return now.hasPieces = true; });
  return true;
}

void PassStream::end(OriginReply reply) {
  const bool isBroken = !reply.error.empty();
  {
    const KxCriticalSectionLock lock(&m_lock);
    if (!m_state.value().hasHead) m_head = std::move(reply);
  }
  m_state.change([isBroken](State& now) {
    now.isBroken = isBroken;
    return now.hasHead = now.isEnded = true;
  });
}

asio::awaitable<OriginReply> PassStream::head() {
  co_await m_state.when([](const State& now) { return now.hasHead; });
  const KxCriticalSectionLock lock(&m_lock);
  co_return m_head;
}

asio::awaitable<std::string> PassStream::piece() {
  for (;;) {
    const State now =
        co_await m_state.when([](const State& state) { return state.hasPieces || state.isEnded; });
    std::string piece = takePiece();
    if (!piece.empty() || now.isEnded) co_return piece;
  }
}

std::string PassStream::takePiece() {
  std::string piece;
  bool isLast = true;
  {
    const KxCriticalSectionLock lock(&m_lock);
    if (!m_pieces.empty()) {
      piece = std::move(m_pieces.front());
      m_pieces.pop_front();
      m_bytes -= piece.size();
    }
    isLast = m_pieces.empty();
    m_taken.notify_one();
    m_state.change([isLast](State& now) {
      now.hasPieces = !isLast;
      return false;
    });
  }
  return piece;
}

void PassStream::abandon() {
  const KxCriticalSectionLock lock(&m_lock);
  m_isAbandoned = true;
  m_taken.notify_all();
}

}  // namespace diskcached
