// A bound on the bytes of bodies that are in memory at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace diskcached {

class MemoryBudget {
 public:
  explicit MemoryBudget(uint64_t most) : m_most(most) {}

  // Holds its bytes while it lives.
  class Share {
   public:
    Share(MemoryBudget& budget, uint64_t bytes) : m_budget(budget), m_bytes(bytes) {}
    ~Share() { m_budget.m_used -= m_bytes; }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

   private:
    MemoryBudget& m_budget;
    const uint64_t m_bytes;
  };
  // Null when so many are not to be had.
  std::unique_ptr<Share> take(uint64_t bytes) {
    for (uint64_t used = m_used; used + bytes <= m_most;) {
      if (m_used.compare_exchange_weak(used, used + bytes)) return std::make_unique<Share>(*this, bytes);
    }
    return nullptr;
  }
  uint64_t used() const { return m_used; }

 private:
  const uint64_t m_most;
  std::atomic<uint64_t> m_used{0};
};

}  // namespace diskcached
