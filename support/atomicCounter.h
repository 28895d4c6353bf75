// Fields that any thread may read or change without a lock.
#pragma once

#include <atomic>
#include <cstdint>

namespace ObjectStore {

// Every operation is one relaxed atomic step: totals never lose an update, and nothing else is ordered by
// them. Subtracting more than was added wraps modulo 2^64.
class KxAtomicU64_t {
 public:
  KxAtomicU64_t() noexcept = default;
  KxAtomicU64_t(int64_t value) noexcept : m_value(static_cast<uint64_t>(value)) {}
  KxAtomicU64_t(const KxAtomicU64_t& other) noexcept : m_value(other.value()) {}

  KxAtomicU64_t& operator=(const KxAtomicU64_t& other) noexcept {
    m_value.store(other.value(), std::memory_order_relaxed);
    return *this;
  }

  uint64_t value() const noexcept { return m_value.load(std::memory_order_relaxed); }

  uint64_t operator++(int) noexcept { return m_value.fetch_add(1, std::memory_order_relaxed); }
  uint64_t operator--(int) noexcept { return m_value.fetch_sub(1, std::memory_order_relaxed); }

  void operator+=(int64_t delta) noexcept {
    m_value.fetch_add(static_cast<uint64_t>(delta), std::memory_order_relaxed);
  }
  void operator-=(int64_t delta) noexcept {
    m_value.fetch_sub(static_cast<uint64_t>(delta), std::memory_order_relaxed);
  }
  void operator-=(const KxAtomicU64_t& other) noexcept {
    m_value.fetch_sub(other.value(), std::memory_order_relaxed);
  }

 private:
  std::atomic<uint64_t> m_value{0};
};

// A flag or setting: one thread's value reaches the others in time, and nothing else is ordered by it.
template <typename T>
class RelaxedAtomic {
 public:
  RelaxedAtomic(T value) noexcept : m_value(value) {}
  RelaxedAtomic& operator=(T value) noexcept {
    m_value.store(value, std::memory_order_relaxed);
    return *this;
  }
  operator T() const noexcept { return m_value.load(std::memory_order_relaxed); }

 private:
  std::atomic<T> m_value;
};

}  // namespace ObjectStore
