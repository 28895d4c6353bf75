// Finds positions by hash: an open-addressed table of 8-byte slots. Internal, not thread-safe.
//
// Slots lie in order of their homes (the upper bits of the hash), each as close behind its home as those
// before it let it, so a search ends early and a removal closes the gap: nothing is left behind that later
// searches would have to pass. A table that gets too full or too empty is replaced bit by bit: each change
// moves some slots, whole runs of them, from the old table to the new one, and a hash is in exactly one of
// the two: in the new one when the move has passed its home.
#pragma once

#include <cstddef>
#include <cstdint>

#include "diskcache/pageRun.h"

namespace ObjectStore {

class SlotTable {
 public:
  static constexpr uint32_t NONE = ~uint32_t{0};  // no position

  // The position of that hash for which matches(position) is true, or NONE.
  template <typename Matches>
  uint32_t find(uint32_t hash, Matches&& matches) const noexcept {
    const Slots& slots = slotsOf(hash);
    if (slots.capacity == 0) return NONE;
    size_t distance = 0;
    for (size_t at = slots.home(hash);; at = slots.next(at), ++distance) {
      const Slot slot = slots.at(at);
      if (slot.isFree()) return NONE;
      if (slot.hash == hash && matches(slot.position())) return slot.position();
      if (slots.distance(at) < distance) return NONE;
    }
  }

  // Makes sure that one more insertion needs no memory. Throws std::bad_alloc.
  void reserve();
  // REQUIRES: reserve() since the last insertion; the position is not in the table.
  void insert(uint32_t hash, uint32_t position) noexcept;
  // REQUIRES: the position is in the table under that hash.
  void erase(uint32_t hash, uint32_t position) noexcept;
  void replace(uint32_t hash, uint32_t position, uint32_t newPosition) noexcept;

  size_t size() const noexcept { return m_current.used + m_old.used; }
  size_t mappedBytes() const noexcept { return m_current.pages.bytes() + m_old.pages.bytes(); }
  // The most slots that a search looks at.
  size_t longestSearch() const noexcept;
  // Whether each slot is where a search finds it.
  bool CheckInvariants() const noexcept;

 private:
  // A position is kept plus one, so that fresh pages are free slots.
  struct Slot {
    uint32_t hash = 0;
    uint32_t positionPlusOne = 0;
    bool isFree() const noexcept { return positionPlusOne == 0; }
    uint32_t position() const noexcept { return positionPlusOne - 1; }
  };
  struct Slots {
    PageRun pages;
    size_t capacity = 0;  // a power of two, or 0
    size_t used = 0;
    unsigned shift = 0;  // of a hash, to its home

    Slots() noexcept = default;
    explicit Slots(size_t slots);
    Slot& at(size_t index) const noexcept { return pages.as<Slot>()[index]; }
    size_t home(uint32_t hash) const noexcept { return static_cast<uint64_t>(hash) >> shift; }
    size_t next(size_t index) const noexcept { return (index + 1) & (capacity - 1); }
    size_t distance(size_t index) const noexcept { return (index - home(at(index).hash)) & (capacity - 1); }
    size_t indexOf(uint32_t hash, uint32_t position) const noexcept;
    void insert(Slot slot) noexcept;
    void erase(size_t index) noexcept;
  };

  static constexpr size_t LEAST_CAPACITY = PageRun::PAGE / sizeof(Slot);

  template <typename Visit>
  void forEach(Visit&& visit) const noexcept;
  bool isMoving() const noexcept { return m_old.capacity != 0; }
  bool isMoved(uint32_t hash) const noexcept {
    return ((m_old.home(hash) - m_moveStart) & (m_old.capacity - 1)) < m_movedCount;
  }
  const Slots& slotsOf(uint32_t hash) const noexcept {
    return isMoving() && !isMoved(hash) ? m_old : m_current;
  }
  Slots& slotsOf(uint32_t hash) noexcept { return isMoving() && !isMoved(hash) ? m_old : m_current; }
  void startMove(Slots&& to) noexcept;
  void moveSome() noexcept;
  void endMove() noexcept;

  Slots m_current;
  // What has not been moved to m_current yet; of capacity 0 when nothing is to be moved.
  Slots m_old;
  size_t m_moveStart = 0;   // a slot behind a free one
  size_t m_movedCount = 0;  // slots of m_old from there on, all of them free now
};

}  // namespace ObjectStore
