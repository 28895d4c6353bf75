// What blocks take on disk, by volume, and what is being written.
//
// Any thread may call anything; every figure is an atomic. A volume that is gone takes its share along.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

#include "diskcache/diskcacheTypes.h"

namespace ObjectStore {

class ByteAccount {
 public:
  void add(VolIndex volume, uint64_t bytes) { of(volume).fetch_add(bytes, std::memory_order_relaxed); }
  // Never below 0: a file may have shrunk or vanished by other hands.
  void subtract(VolIndex volume, uint64_t bytes) {
    std::atomic<uint64_t>& used = of(volume);
    uint64_t before = used.load(std::memory_order_relaxed);
    while (!used.compare_exchange_weak(before, before - std::min(before, bytes), std::memory_order_relaxed)) {
    }
  }
  void clear(VolIndex volume) { of(volume).store(0, std::memory_order_relaxed); }

  uint64_t used() const {
    uint64_t sum = 0;
    for (const auto& volume : m_used) sum += volume.load(std::memory_order_relaxed);
    return sum;
  }
  uint64_t usedAndPending() const { return used() + m_pending.load(std::memory_order_relaxed); }
  uint64_t peak() const { return m_peak.load(std::memory_order_relaxed); }
  void notePeak() {
    const uint64_t now = usedAndPending();
    uint64_t peak = m_peak.load(std::memory_order_relaxed);
    while (peak < now && !m_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
  }

  // Holds room for something that is being written.
  class Pending {
   public:
    Pending(ByteAccount& account, uint64_t bytes) : m_account(account), m_bytes(bytes) {
      m_account.m_pending.fetch_add(m_bytes, std::memory_order_relaxed);
    }
    ~Pending() { settle(); }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;
    void settle() {
      m_account.m_pending.fetch_sub(m_bytes, std::memory_order_relaxed);
      m_bytes = 0;
    }

   private:
    ByteAccount& m_account;
    uint64_t m_bytes;
  };

 private:
  static constexpr size_t VOLUMES = 256;  // more share their figures
  std::atomic<uint64_t>& of(VolIndex volume) { return m_used[volume % VOLUMES]; }

  std::array<std::atomic<uint64_t>, VOLUMES> m_used{};
  std::atomic<uint64_t> m_pending{0};
  std::atomic<uint64_t> m_peak{0};
};

}  // namespace ObjectStore
