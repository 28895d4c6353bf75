// The blocks that are being fetched or written, each by one thread, and what those who want one wait for.
//
// Any thread may call anything; the lock is a leaf. Whoever starts a flight is its only one who changes the block
// on disk, and ends it; he waits for no other flight meanwhile, unless he takes blocks of one object in order.
#pragma once

#include <condition_variable>
#include <future>
#include <memory>
#include <unordered_map>

#include "client/blockName.h"
#include "client/blockTrailer.h"
#include "support/error.h"
#include "support/lock.h"

namespace ObjectStore {

// How a fetch ended: with an error, with the block's bytes, or so that the disk is to be asked again.
struct Landed {
  CZuError error{};
  bool isOnDisk = false;
  std::shared_ptr<const std::byte[]> buffer{};  // keeps `payload` alive
  std::span<const std::byte> payload{};
  uint64_t objectSize = 0;
  std::shared_ptr<const Metadata> metadata{};
};
using Landing = std::shared_future<std::shared_ptr<const Landed>>;

class Flights {
 public:
  // A flight of this thread's, to be ended by its destruction; who still waits then is to look at the disk.
  class Flight {
   public:
    Flight(Flights& flights, const BlockId& block) : m_flights(&flights), m_block(block) {}
    Flight(const Flight&) = delete;
    Flight& operator=(const Flight&) = delete;
    ~Flight() {
      if (m_flights) m_flights->end(*this);
    }

    const BlockId& block() const { return m_block; }
    bool hasLanded() const { return m_landed; }
    // Gives the result to all who wait, and to those who still come until the flight ends.
    void land(std::shared_ptr<const Landed> landed) {
      m_landed = true;
      m_promise.set_value(std::move(landed));
    }

   private:
    friend class Flights;
    Flights* m_flights;
    const BlockId m_block;
    std::promise<std::shared_ptr<const Landed>> m_promise;
    bool m_landed = false;
  };

  struct Joined {
    std::unique_ptr<Flight> mine;  // or else
    Landing landing;
  };
  // Starts the block's flight, or gives what to wait for.
  Joined join(const BlockId& block);
  // Starts it if nobody has; null otherwise.
  std::unique_ptr<Flight> tryStart(const BlockId& block);
  // Starts it when whoever has it has ended.
  std::unique_ptr<Flight> take(const BlockId& block);

 private:
  std::unique_ptr<Flight> startLocked(const BlockId& block) DC_REQUIRES(m_lock);
  void end(Flight& flight);

  KxCriticalSection m_lock;
  std::condition_variable_any m_ended;
  std::unordered_map<BlockId, Landing, HashOfBlock> m_flights DC_GUARDED_BY(m_lock);
};

}  // namespace ObjectStore
