// Segments in order of last use: an entry of one cache line each, found by identifier. Internal, not
// thread-safe; DiskcacheLRU has the rules and the lock.
//
// Entries lie in blocks, one behind the other, and name each other and are named by position. Nothing is
// moved when the table grows. When more positions are free than taken, each removal moves entries from the
// end into free ones, so that blocks at the end go back: a position is good until the next removal.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "diskcache/countedNames.h"
#include "diskcache/diskcacheTypes.h"
#include "diskcache/pageRun.h"
#include "diskcache/slotTable.h"

namespace ObjectStore {

class RecencyTable {
 public:
  using Position = uint32_t;
  static constexpr Position NONE = SlotTable::NONE;

  // An identifier with its hash, which is worked out once for an operation, before any lock is taken.
  struct Key {
    std::string_view guid;
    uint32_t hash;
  };

  RecencyTable() noexcept = default;
  ~RecencyTable();
  RecencyTable(const RecencyTable&) = delete;
  RecencyTable& operator=(const RecencyTable&) = delete;
  void swap(RecencyTable& other) noexcept;

  Position find(const Key& key) const noexcept {
    return m_slots.find(key.hash, [this, &key](Position position) { return isAt(position, key.guid); });
  }
  // Makes an entry the newest, at the latest when somebody looks at the order: see m_touched.
  void moveToFront(Position position) noexcept;
  void erase(Position position) noexcept;

  // Gets the memory for an entry before anything else is changed. Throws std::bad_alloc; nothing that can be
  // seen has changed then.
  void reserve(std::string_view guid, std::string_view dir);
  // Enters what was reserved as the newest. REQUIRES: reserve() of that identifier, and no insertion or swap
  // since; the identifier is not in the table.
  void pushFront(const Key& key, VolIndex volume) noexcept;
  // Whether what reserve() got is still there.
  bool isReserved() const { return m_reservedDir != NO_DIR; }
  // Gives back what reserve() got when the entry is not to come.
  void dropReserve() noexcept;

  size_t size() const noexcept { return m_end - m_freeCount; }
  bool empty() const noexcept { return size() == 0; }
  Position newest() noexcept {  // NONE when there is none
    settle();
    return m_newest;
  }
  Position oldest() noexcept {
    settle();
    return empty() ? NONE : entry(m_newest).newer;
  }
  Position older(Position position) const noexcept {
    return entry(position).older;
  }  // the newest of the oldest

  std::string_view guid(Position position) const noexcept { return entry(position).guid(); }
  VolIndex volume(Position position) const noexcept { return entry(position).volume; }
  const std::string& dir(Position position) const noexcept { return m_dirs.name(entry(position).dir); }

  size_t slots() const noexcept { return m_slots.size(); }  // as many as entries
  size_t dirs() const noexcept { return m_dirs.size(); }
  size_t longestSearch() const noexcept { return m_slots.longestSearch(); }
  // Memory got from the system beside the heap.
  size_t mappedBytes() const noexcept { return m_blocks.size() * BLOCK_BYTES + m_slots.mappedBytes(); }
  // Whether order, slots, free positions and counts agree.
  bool CheckInvariants() const;

 private:
  static constexpr size_t IN_PLACE = 45;
  static constexpr uint8_t ELSEWHERE = 0xff;
  static constexpr uint8_t FREE = 0xfe;

  struct Text {
    char* data;
    size_t size;
  };
  struct alignas(64) Entry {
    Position newer;  // in a ring: of the newest, the oldest
    Position older;
    uint32_t hash;
    CountedNames::Number dir;
    VolIndex volume;
    uint8_t size;         // of the identifier; or ELSEWHERE or FREE
    char text[IN_PLACE];  // the identifier, or a Text

    Text elsewhere() const noexcept {
      Text where;
      __builtin_memcpy(&where, text, sizeof where);
      return where;
    }
    std::string_view guid() const noexcept {
      if (size <= IN_PLACE) return {text, size};
      return {elsewhere().data, elsewhere().size};
    }
  };
  static_assert(sizeof(Entry) == 64);

  static constexpr size_t BLOCK_BYTES = PageRun::LARGE_PAGE;
  static constexpr size_t BLOCK_ENTRIES = BLOCK_BYTES / sizeof(Entry);
  // The highest position plus one stays below NONE.
  static constexpr size_t MOST_BLOCKS = NONE / BLOCK_ENTRIES;

  // The branch is easier to foresee than a pointer is to load, and a small list has but the first block.
  Entry& entry(Position position) const noexcept {
    return position < BLOCK_ENTRIES
               ? m_first[position]
               : m_blocks[position / BLOCK_ENTRIES].as<Entry>()[position % BLOCK_ENTRIES];
  }
  // Whoever finds an entry is about to move it: its neighbours are on their way while it is compared.
  bool isAt(Position position, std::string_view guid) const noexcept {
    const Entry& candidate = entry(position);
    __builtin_prefetch(&entry(candidate.newer), 1);
    __builtin_prefetch(&entry(candidate.older), 1);
    return candidate.guid() == guid;
  }

  void reserveText(std::string_view guid);
  void reserveDir(std::string_view dir);
  void reservePosition();
  void setText(Entry& to, std::string_view guid) noexcept;
  void settle() noexcept;
  void settleOne() noexcept;
  void linkFront(Position position) noexcept;
  void unlink(const Entry& gone) noexcept;
  Position takeFree() noexcept;
  void giveFree(Position position) noexcept;
  void unlinkFree(Position position) noexcept;
  void closeGaps() noexcept;
  void relocate(Position from, Position to) noexcept;
  bool checkRing() const;
  bool checkFree() const;

  std::vector<PageRun> m_blocks;
  Entry* m_first = nullptr;  // the first block
  SlotTable m_slots;
  CountedNames m_dirs;
  Position m_newest = NONE;
  // The entries touched last that are not moved yet, the oldest first: a ring in which both counts only rise. Each is
  // moved a few touches later, when its neighbours have come from memory, so that no touch waits for them.
  static constexpr unsigned MOST_TOUCHED = 8;
  std::array<Position, MOST_TOUCHED> m_touched{};
  unsigned m_touchedCount = 0;
  unsigned m_settledCount = 0;
  Position m_end = 0;      // positions from here on have never been used or have gone back
  Position m_free = NONE;  // the first of those free before m_end, linked by older and newer
  size_t m_freeCount = 0;
  size_t m_elsewhere = 0;  // identifiers that are not in place

  static constexpr CountedNames::Number NO_DIR = ~CountedNames::Number{0};
  CountedNames::Number m_reservedDir = NO_DIR;
  std::unique_ptr<char[]> m_reservedText;
};

}  // namespace ObjectStore
