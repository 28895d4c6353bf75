#include "curve/stackDistance.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace diskcachectl {

namespace {

constexpr size_t FIRST_TABLE = size_t{1} << 16;
constexpr size_t FIRST_PLACES = size_t{1} << 18;
constexpr uint32_t NO_SLOT = ~uint32_t{0};

}  // namespace

StackDistance::StackDistance() : m_table(FIRST_TABLE), m_tree(FIRST_PLACES + 1) {}

Distance StackDistance::request(Id id, uint32_t size, bool keepsSize) {
  if (m_next + size_t{1} == m_tree.size()) renumber();
  if (m_objects * 10 >= m_table.size() * 7) growTable();
  Slot& slot = find(id);
  Distance distance;
  if (slot.size == 0) {
    slot = {id, size, 0};
    ++m_objects;
  } else {
    if (keepsSize) size = slot.size;
    const Node older = upTo(slot.last);  // the object itself included
    distance.isKnown = slot.size == size;
    distance.entries = m_objects - older.count + 1;
    distance.bytes = m_bytes - older.bytes + slot.size;
    add(slot.last, ~uint64_t{slot.size} + 1, ~uint32_t{0});  // both wrap around: taken off
    m_bytes -= slot.size;
  }
  slot.size = size;
  slot.last = m_next++;
  add(slot.last, size, 1);
  m_bytes += size;
  return distance;
}

StackDistance::Slot& StackDistance::find(Id id) {
  const size_t mask = m_table.size() - 1;
  size_t at = id.low & mask;
  while (m_table[at].size != 0 && m_table[at].id != id) at = (at + 1) & mask;
  return m_table[at];
}

void StackDistance::growTable() {
  std::vector<Slot> old(m_table.size() * 2);
  old.swap(m_table);
  for (const Slot& slot : old) {
    if (slot.size != 0) find(slot.id) = slot;
  }
}

void StackDistance::renumber() {
  if (m_table.size() > NO_SLOT) throw std::length_error("too many different objects; use --sample");
  std::vector<uint32_t> slotAt(m_next, NO_SLOT);
  for (size_t i = 0; i < m_table.size(); ++i) {
    if (m_table[i].size != 0) slotAt[m_table[i].last] = static_cast<uint32_t>(i);
  }
  const size_t places = m_tree.size() - 1;
  std::vector<Node>().swap(m_tree);  // before a larger one is taken
  m_tree.resize((m_objects * 2 > places ? places * 2 : places) + 1);
  m_next = 0;
  for (const uint32_t i : slotAt) {
    if (i == NO_SLOT) continue;
    m_table[i].last = m_next++;
    m_tree[m_next] = {m_table[i].size, 1};
  }
  // Each node hands its sum to the next one above it.
  for (size_t at = 1; at < m_tree.size(); ++at) {
    const size_t above = at + (at & (~at + 1));
    if (above >= m_tree.size()) continue;
    m_tree[above].bytes += m_tree[at].bytes;
    m_tree[above].count += m_tree[at].count;
  }
}

void StackDistance::add(uint32_t place, uint64_t bytes, uint32_t count) {
  for (size_t at = size_t{place} + 1; at < m_tree.size(); at += at & (~at + 1)) {
    m_tree[at].bytes += bytes;
    m_tree[at].count += count;
  }
}

StackDistance::Node StackDistance::upTo(uint32_t place) const {
  Node sum;
  for (size_t at = size_t{place} + 1; at > 0; at &= at - 1) {
    sum.bytes += m_tree[at].bytes;
    sum.count += m_tree[at].count;
  }
  return sum;
}

}  // namespace diskcachectl
