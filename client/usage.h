// How often and in which order objects are asked for: what admission and prefetching go by.
//
// Tables of a fixed size, written without locks: two objects that share a place count for each other, so a count
// may be too high and a sequence be missed. Any thread may call anything.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>

#include "client/blockName.h"

namespace ObjectStore {

// Counts uses within a window, and up to half a window longer.
class UseCounter {
 public:
  explicit UseCounter(std::chrono::seconds window) : m_half(window / 2) {}

  unsigned countUse(const ObjectId& object) {
    turn();
    const size_t at = object.low % PLACES;
    const unsigned newest = m_newest.load(std::memory_order_relaxed);
    const unsigned now = m_counts[newest][at].fetch_add(1, std::memory_order_relaxed) + 1U;
    return now + m_counts[newest ^ 1][at].load(std::memory_order_relaxed);
  }

 private:
  static constexpr size_t PLACES = 1 << 16;
  using Clock = std::chrono::steady_clock;

  // After half a window the older half is forgotten.
  void turn() {
    Clock::rep since = m_since.load(std::memory_order_relaxed);
    const Clock::rep now = Clock::now().time_since_epoch().count();
    const Clock::rep half = std::chrono::duration_cast<Clock::duration>(m_half).count();
    if (now - since < half || !m_since.compare_exchange_strong(since, now)) return;
    const unsigned oldest = m_newest.load(std::memory_order_relaxed) ^ 1;
    const bool bothAreOld = now - since >= 2 * half;
    for (auto& count : m_counts[oldest]) count.store(0, std::memory_order_relaxed);
    m_newest.store(oldest, std::memory_order_relaxed);
    if (bothAreOld) {
      for (auto& count : m_counts[oldest ^ 1]) count.store(0, std::memory_order_relaxed);
    }
  }

  const std::chrono::seconds m_half;
  std::atomic<Clock::rep> m_since{Clock::now().time_since_epoch().count()};
  std::atomic<unsigned> m_newest{0};
  std::array<std::array<std::atomic<uint16_t>, PLACES>, 2> m_counts{};
};

// Tells a read that begins where the last one of the same object ended.
class SequenceFinder {
 public:
  bool isNext(const ObjectId& object, uint64_t from, uint64_t to) {
    std::atomic<uint64_t>& end = m_ends[object.low % m_ends.size()];
    return end.exchange(mark(object, to), std::memory_order_relaxed) == mark(object, from);
  }

 private:
  static uint64_t mark(const ObjectId& object, uint64_t offset) {
    return object.high ^ (offset * 0x9e3779b97f4a7c15U);
  }
  std::array<std::atomic<uint64_t>, 1024> m_ends{};
};

}  // namespace ObjectStore
