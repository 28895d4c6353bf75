// Which blocks were pinned a moment ago, so that another pin of them will hardly wait for a disk.
//
// Any thread may call anything. A guess: blocks that share a place forget each other.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <string_view>

namespace diskcached {

class PinnedLately {
 public:
  static uint64_t nameOf(std::string_view key, std::string_view version, uint64_t number) {
    const std::hash<std::string_view> hash;
    return (hash(key) ^ (hash(version) * 31) ^ (number * 0x9e3779b97f4a7c15U)) | 1U;
  }
  bool contains(uint64_t name) const { return place(name).load(std::memory_order_relaxed) == name; }
  void insert(uint64_t name) { place(name).store(name, std::memory_order_relaxed); }
  void erase(uint64_t name) {
    if (contains(name)) place(name).store(0, std::memory_order_relaxed);
  }

 private:
  // As many as the cache keeps open at most.
  static constexpr size_t PLACES = 4096;

  std::atomic<uint64_t>& place(uint64_t name) { return m_names[(name >> 20U) % PLACES]; }
  const std::atomic<uint64_t>& place(uint64_t name) const { return m_names[(name >> 20U) % PLACES]; }

  std::array<std::atomic<uint64_t>, PLACES> m_names{};
};

}  // namespace diskcached
