#include "diskcache/slotTable.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace ObjectStore {
namespace {

// At this load a search of a known hash looks at three slots on average.
constexpr size_t fullest(size_t capacity) { return capacity / 5 * 4; }
constexpr size_t emptiest(size_t capacity) { return capacity / 6; }
// A table that has doubled is full again after more than its old size of insertions: long done by then.
constexpr size_t MOVED_AT_ONCE = 32;

}  // namespace

SlotTable::Slots::Slots(size_t slots)
    : pages(slots * sizeof(Slot)),
      capacity(slots),
      shift(32U - static_cast<unsigned>(std::countr_zero(slots))) {}

size_t SlotTable::Slots::indexOf(uint32_t hash, uint32_t position) const noexcept {
  size_t index = home(hash);
  while (at(index).positionPlusOne != position + 1) index = next(index);
  return index;
}

void SlotTable::Slots::insert(Slot slot) noexcept {
  size_t distanceOfSlot = 0;
  for (size_t index = home(slot.hash);; index = next(index), ++distanceOfSlot) {
    if (at(index).isFree()) {
      at(index) = slot;
      ++used;
      return;
    }
    const size_t distanceOfOther = distance(index);
    if (distanceOfOther >= distanceOfSlot) continue;
    std::swap(at(index), slot);
    distanceOfSlot = distanceOfOther;
  }
}

void SlotTable::Slots::erase(size_t index) noexcept {
  for (size_t following = next(index); !at(following).isFree() && distance(following) != 0;
       following = next(following)) {
    at(index) = at(following);
    index = following;
  }
  at(index) = {};
  --used;
}

template <typename Visit>
void SlotTable::forEach(Visit&& visit) const noexcept {
  for (const Slots* slots : {&m_current, &m_old}) {
    for (size_t index = 0; index < slots->capacity; ++index) {
      if (slots->pages.holds(index * sizeof(Slot)) && !slots->at(index).isFree()) visit(*slots, index);
    }
  }
}

void SlotTable::reserve() {
  if (size() < fullest(m_current.capacity)) return;
  while (isMoving()) moveSome();  // only a table that shrank and grows again at once is still at it
  startMove(Slots(std::max(m_current.capacity * 2, LEAST_CAPACITY)));
}

void SlotTable::insert(uint32_t hash, uint32_t position) noexcept {
  moveSome();
  slotsOf(hash).insert({hash, position + 1});
}

void SlotTable::erase(uint32_t hash, uint32_t position) noexcept {
  moveSome();
  Slots& slots = slotsOf(hash);
  slots.erase(slots.indexOf(hash, position));
  if (isMoving() || m_current.capacity == LEAST_CAPACITY || size() >= emptiest(m_current.capacity)) return;
  try {
    startMove(Slots(m_current.capacity / 2));
  } catch (const std::bad_alloc&) {  // no memory to save memory with
  }
}

void SlotTable::replace(uint32_t hash, uint32_t position, uint32_t newPosition) noexcept {
  Slots& slots = slotsOf(hash);
  slots.at(slots.indexOf(hash, position)).positionPlusOne = newPosition + 1;
}

void SlotTable::startMove(Slots&& to) noexcept {
  m_old = std::exchange(m_current, std::move(to));
  if (m_old.used == 0) return endMove();
  m_moveStart = 0;
  while (!m_old.at(m_moveStart).isFree()) ++m_moveStart;
  m_movedCount = 0;
}

// Ends at a free slot, so that what is left can be searched as before.
void SlotTable::moveSome() noexcept {
  if (!isMoving()) return;
  for (size_t moved = 0; m_old.used != 0; ++moved, ++m_movedCount) {
    Slot& slot = m_old.at((m_moveStart + m_movedCount) & (m_old.capacity - 1));
    if (slot.isFree()) {
      if (moved >= MOVED_AT_ONCE) break;
      continue;
    }
    m_current.insert(std::exchange(slot, {}));
    --m_old.used;
  }
  if (m_old.used == 0) return endMove();
  // Those before m_moveStart are moved last, and it lies near the front: few runs are longer than a line.
  if (m_moveStart * sizeof(Slot) > PageRun::LARGE_PAGE / 2) return;
  m_old.pages.dropUpTo(std::min(m_moveStart + m_movedCount, m_old.capacity) * sizeof(Slot));
}

void SlotTable::endMove() noexcept {
  m_old = {};
  m_movedCount = 0;
}

size_t SlotTable::longestSearch() const noexcept {
  size_t longest = 0;
  forEach([&](const Slots& slots, size_t index) { longest = std::max(longest, slots.distance(index) + 1); });
  return longest;
}

bool SlotTable::CheckInvariants() const noexcept {
  size_t count = 0;
  bool isSound = true;
  forEach([&](const Slots& slots, size_t index) {
    const Slot slot = slots.at(index);
    ++count;
    isSound = isSound && &slots == &slotsOf(slot.hash) &&
              find(slot.hash, [&](uint32_t position) { return position == slot.position(); }) != NONE;
  });
  return isSound && count == size();
}

}  // namespace ObjectStore
