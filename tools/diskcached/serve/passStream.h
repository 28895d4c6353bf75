// An answer of the store on its way to one client: a few pieces at most, then the store has to wait.
//
// One thread puts in, the coroutine of one client takes out.
#pragma once

#include <condition_variable>
#include <deque>
#include <string>

#include "origin/origin.h"
#include "serve/watched.h"

namespace diskcached {

class PassStream {
 public:
  // The store's side; false when the client's coroutine has ended. A piece waits while the client takes nothing.
  bool putHead(const OriginReply& reply);
  bool putBody(std::span<const std::byte> bytes);
  void end(OriginReply reply);

  // The client's side. The head, or a reply without a status.
  asio::awaitable<OriginReply> head();
  // The next piece; empty at the end.
  asio::awaitable<std::string> piece();
  // Whether the store broke off.
  bool isBroken() { return m_state.value().isBroken; }
  // Must come when the coroutine ends, however it does: the store's side may wait.
  void abandon();

 private:
  struct State {
    bool hasHead = false, hasPieces = false, isEnded = false, isBroken = false;
  };

  std::string takePiece();

  Watched<State> m_state;
  ObjectStore::KxCriticalSection m_lock;
  std::condition_variable_any m_taken;
  OriginReply m_head DC_GUARDED_BY(m_lock);
  std::deque<std::string> m_pieces DC_GUARDED_BY(m_lock);
  size_t m_bytes DC_GUARDED_BY(m_lock) = 0;
  bool m_isAbandoned DC_GUARDED_BY(m_lock) = false;
};

}  // namespace diskcached
