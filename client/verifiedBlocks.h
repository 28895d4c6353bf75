// Blocks all of whose bytes were found right in this process: what Verify::Once goes by when a block is opened
// again.
//
// A table of a fixed size in which a newer block takes an older one's place. Any thread may call anything; there is
// no lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "client/openBlock.h"

namespace ObjectStore {

class VerifiedBlocks {
 public:
  // Without places it knows no block.
  explicit VerifiedBlocks(size_t places) : m_marks(places) {}

  void insert(const OpenBlock& block) {
    if (!m_marks.empty()) placeOf(block.id()).store(markOf(block), std::memory_order_relaxed);
  }
  bool contains(const OpenBlock& block) {
    return !m_marks.empty() && placeOf(block.id()).load(std::memory_order_relaxed) == markOf(block);
  }
  // For a block that is written anew: its new file was not read yet.
  void erase(const BlockId& block) {
    if (!m_marks.empty()) placeOf(block).store(0, std::memory_order_relaxed);
  }

 private:
  // Of a file, not of a block alone: whoever still reads an old one must not speak for the new one.
  static uint64_t markOf(const OpenBlock& block) {
    const uint64_t file = block.id().number + (block.trailer().madeAt << 32);
    return (block.id().object.low ^ file * 0x9e3779b97f4a7c15U) | 1;
  }
  std::atomic<uint64_t>& placeOf(const BlockId& block) {
    return m_marks[(block.object.high ^ block.number) % m_marks.size()];
  }

  std::vector<std::atomic<uint64_t>> m_marks;
};

}  // namespace ObjectStore
