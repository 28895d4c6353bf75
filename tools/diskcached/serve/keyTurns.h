// Changes of one key at the store one after the other, so that the last one here is the last one there.
//
// Any thread may call anything. Whoever waits for his turn keeps no others waiting than those of his key.
#pragma once

#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <unordered_map>

#include "serve/suspend.h"
#include "support/lock.h"

namespace diskcached {

class KeyTurns {
 public:
  // Lasts while it lives.
  class Turn {
   public:
    Turn(KeyTurns& owner, std::string key) : m_owner(owner), m_key(std::move(key)) {}
    ~Turn() {
      if (m_isEntered) m_owner.end(m_key);
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    friend class KeyTurns;
    KeyTurns& m_owner;
    const std::string m_key;
    bool m_isEntered = false;
  };

  // When all who asked for the key before have had theirs.
  asio::awaitable<std::unique_ptr<Turn>> take(std::string key) {
    auto turn = std::make_unique<Turn>(*this, std::move(key));
    const auto start = [&](std::function<void()> resume) { enter(*turn, std::move(resume)); };
    co_await suspend(start);
    co_return turn;
  }
  // The same in a thread that may wait.
  std::unique_ptr<Turn> wait(const std::string& key) {
    auto turn = std::make_unique<Turn>(*this, key);
    const auto mine = std::make_shared<std::promise<void>>();
    enter(*turn, [mine] { mine->set_value(); });
    mine->get_future().wait();
    return turn;
  }

 private:
  void enter(Turn& turn, std::function<void()> onTurn) {
    {
      const ObjectStore::KxCriticalSectionLock lock(&m_lock);
      const auto [place, isFirst] = m_waiting.try_emplace(turn.m_key);
      if (!isFirst) {
        place->second.push_back(std::move(onTurn));
        turn.m_isEntered = true;
        return;
      }
      turn.m_isEntered = true;  // before it may be over
    }
    onTurn();
  }
  void end(const std::string& key) {
    std::function<void()> next;
    {
      const ObjectStore::KxCriticalSectionLock lock(&m_lock);
      const auto place = m_waiting.find(key);
      if (place->second.empty()) {
        m_waiting.erase(place);
        return;
      }
      next = std::move(place->second.front());
      place->second.pop_front();
    }
    next();
  }

  ObjectStore::KxCriticalSection m_lock;
  // Behind the one who has the turn of a key.
  std::unordered_map<std::string, std::deque<std::function<void()>>> m_waiting DC_GUARDED_BY(m_lock);
};

}  // namespace diskcached
