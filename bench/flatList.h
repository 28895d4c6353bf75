// The leanest recency list there is: as bareList.h, but records lie in one array, linked by number, and are found
// by a table of numbers with a free slot behind each run. Its size is fixed when it is made; no lock, no
// client, no secret in its hash.
#pragma once

#include <bit>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

class FlatList {
 public:
  explicit FlatList(size_t most) : m_mask(std::bit_ceil(most * 3 / 2) - 1), m_slots(m_mask + 1) {
    m_records.reserve(most + 1);
    m_records.emplace_back();  // number 0 ends the ring
  }

  // Makes a segment the newest one; a full list forgets its oldest, whose record the new one gets.
  void touch(const std::string& guid, uint16_t volume, std::string_view dir) {
    const auto hash = static_cast<uint32_t>(std::hash<std::string_view>()(guid));
    size_t slot = hash & m_mask;
    for (; m_slots[slot].number != 0; slot = (slot + 1) & m_mask) {
      if (m_slots[slot].hash != hash || textOf(m_records[m_slots[slot].number]) != guid) continue;
      unlink(m_slots[slot].number);
      return linkFront(m_slots[slot].number);
    }
    uint32_t number = static_cast<uint32_t>(m_records.size());
    if (m_records.size() < m_records.capacity()) {
      m_records.emplace_back();
    } else {
      number = m_records[0].newer;
      unlink(number);
      forget(number);
      slot = hash & m_mask;
      while (m_slots[slot].number != 0) slot = (slot + 1) & m_mask;
    }
    m_slots[slot] = {hash, number};
    Record& record = m_records[number];
    record.hash = hash;
    record.volume = volume;
    record.dir = dir.data();
    record.size = static_cast<uint8_t>(guid.copy(record.text, sizeof record.text));
    linkFront(number);
  }

 private:
  struct Record {
    uint32_t newer, older;
    uint32_t hash;
    uint16_t volume;
    uint8_t size;
    const char* dir;
    char text[44];
  };
  struct Slot {
    uint32_t hash, number;
  };

  static std::string_view textOf(const Record& record) { return {record.text, record.size}; }
  void unlink(uint32_t number) {
    const Record& gone = m_records[number];
    m_records[gone.newer].older = gone.older;
    m_records[gone.older].newer = gone.newer;
  }
  void linkFront(uint32_t number) {
    Record& end = m_records[0];
    Record& added = m_records[number];
    added.newer = 0;
    added.older = end.older;
    m_records[end.older].newer = number;
    end.older = number;
  }
  void forget(uint32_t number) {
    size_t gap = m_records[number].hash & m_mask;
    while (m_slots[gap].number != number) gap = (gap + 1) & m_mask;
    for (size_t at = (gap + 1) & m_mask; m_slots[at].number != 0; at = (at + 1) & m_mask) {
      if (((at - m_slots[at].hash) & m_mask) < ((at - gap) & m_mask))
        continue;  // its home lies behind the gap
      m_slots[gap] = m_slots[at];
      gap = at;
    }
    m_slots[gap] = {};
  }

  size_t m_mask;
  std::vector<Slot> m_slots;
  std::vector<Record> m_records;
};

}  // namespace bench
