#include "diskcache/recencyTable.h"

#include <cstring>
#include <map>
#include <new>
#include <utility>

namespace ObjectStore {
namespace {

constexpr int GAPS_CLOSED_AT_ONCE = 2;  // one more than a removal makes

}  // namespace

RecencyTable::~RecencyTable() {
  for (Position at = m_newest; m_elsewhere != 0; at = older(at)) {
    if (entry(at).size != ELSEWHERE) continue;
    delete[] entry(at).elsewhere().data;
    --m_elsewhere;
  }
}

void RecencyTable::swap(RecencyTable& other) noexcept {
  std::swap(m_blocks, other.m_blocks);
  std::swap(m_first, other.m_first);
  std::swap(m_slots, other.m_slots);
  std::swap(m_dirs, other.m_dirs);
  std::swap(m_newest, other.m_newest);
  std::swap(m_touched, other.m_touched);
  std::swap(m_touchedCount, other.m_touchedCount);
  std::swap(m_settledCount, other.m_settledCount);
  std::swap(m_end, other.m_end);
  std::swap(m_free, other.m_free);
  std::swap(m_freeCount, other.m_freeCount);
  std::swap(m_elsewhere, other.m_elsewhere);
  std::swap(m_reservedDir, other.m_reservedDir);
  std::swap(m_reservedText, other.m_reservedText);
}

// ---- The ring ------------------------------------------------------------------------------------------

void RecencyTable::moveToFront(Position position) noexcept {
  if (m_touchedCount - m_settledCount == MOST_TOUCHED) settleOne();
  m_touched[m_touchedCount++ % MOST_TOUCHED] = position;
}

void RecencyTable::settle() noexcept {
  while (m_settledCount != m_touchedCount) settleOne();
}

void RecencyTable::settleOne() noexcept {
  const Position position = m_touched[m_settledCount++ % MOST_TOUCHED];
  if (position == m_newest) return;
  const Entry& moved = entry(position);
  if (position != entry(m_newest).newer) {
    unlink(moved);
    linkFront(position);
  }
  m_newest = position;  // all there is to do for the oldest: the ring turns by one
}

void RecencyTable::linkFront(Position position) noexcept {
  Entry& linked = entry(position);
  if (m_newest == NONE) {
    linked.newer = linked.older = position;
  } else {
    Entry& newest = entry(m_newest);
    linked.newer = newest.newer;
    linked.older = m_newest;
    entry(newest.newer).older = position;
    newest.newer = position;
  }
  m_newest = position;
}

void RecencyTable::unlink(const Entry& gone) noexcept {
  entry(gone.newer).older = gone.older;
  entry(gone.older).newer = gone.newer;
}

// ---- Coming and going ----------------------------------------------------------------------------------

void RecencyTable::reserve(std::string_view guid, std::string_view dir) {
  reserveText(guid);
  reservePosition();
  m_slots.reserve();
  reserveDir(dir);
}

void RecencyTable::reserveText(std::string_view guid) {
  m_reservedText.reset(guid.size() > IN_PLACE ? new char[guid.size()] : nullptr);
}

void RecencyTable::reserveDir(std::string_view dir) {
  if (m_reservedDir != NO_DIR) m_dirs.release(std::exchange(m_reservedDir, NO_DIR));
  if (m_newest != NONE && this->dir(m_newest) == dir) {  // most often that of the entry before
    m_reservedDir = entry(m_newest).dir;
    m_dirs.holdAgain(m_reservedDir);
  } else {
    m_reservedDir = m_dirs.hold(dir);
  }
}

void RecencyTable::reservePosition() {
  if (m_free != NONE || m_end < m_blocks.size() * BLOCK_ENTRIES) return;
  if (m_blocks.size() == MOST_BLOCKS) throw std::bad_alloc();
  m_blocks.emplace_back(BLOCK_BYTES);
  m_first = m_blocks.front().as<Entry>();
}

void RecencyTable::dropReserve() noexcept {
  m_reservedText.reset();
  if (m_reservedDir != NO_DIR) m_dirs.release(std::exchange(m_reservedDir, NO_DIR));
}

void RecencyTable::pushFront(const Key& key, VolIndex volume) noexcept {
  settle();
  const Position position = takeFree();
  Entry& added = entry(position);
  added.hash = key.hash;
  added.dir = std::exchange(m_reservedDir, NO_DIR);
  added.volume = volume;
  setText(added, key.guid);
  linkFront(position);
  m_slots.insert(key.hash, position);
}

void RecencyTable::setText(Entry& to, std::string_view guid) noexcept {
  if (guid.size() <= IN_PLACE) {
    to.size = static_cast<uint8_t>(guid.size());
    memcpy(to.text, guid.data(), guid.size());
    return;
  }
  const Text where{m_reservedText.release(), guid.size()};
  memcpy(where.data, guid.data(), guid.size());
  to.size = ELSEWHERE;
  memcpy(to.text, &where, sizeof where);
  ++m_elsewhere;
}

void RecencyTable::erase(Position position) noexcept {
  settle();
  const Entry& gone = entry(position);
  m_slots.erase(gone.hash, position);
  unlink(gone);
  if (position == m_newest) m_newest = gone.older == position ? NONE : gone.older;
  m_dirs.release(gone.dir);
  if (gone.size == ELSEWHERE) {
    delete[] gone.elsewhere().data;
    --m_elsewhere;
  }
  giveFree(position);
  closeGaps();
}

// ---- Positions -----------------------------------------------------------------------------------------

RecencyTable::Position RecencyTable::takeFree() noexcept {
  if (m_free == NONE) return m_end++;
  const Position taken = m_free;
  unlinkFree(taken);
  return taken;
}

void RecencyTable::giveFree(Position position) noexcept {
  Entry& given = entry(position);
  given.size = FREE;
  given.newer = NONE;
  given.older = m_free;
  if (m_free != NONE) entry(m_free).newer = position;
  m_free = position;
  ++m_freeCount;
}

void RecencyTable::unlinkFree(Position position) noexcept {
  const Entry& taken = entry(position);
  (taken.newer == NONE ? m_free : entry(taken.newer).older) = taken.older;
  if (taken.older != NONE) entry(taken.older).newer = taken.newer;
  --m_freeCount;
}

// As long as more than half of the positions are free: the last one becomes free, then is none any more.
void RecencyTable::closeGaps() noexcept {
  for (int closed = 0; closed < GAPS_CLOSED_AT_ONCE && m_freeCount > size(); ++closed, --m_end) {
    const Position last = m_end - 1;
    if (entry(last).size == FREE) {
      unlinkFree(last);
    } else {
      relocate(last, takeFree());
    }
  }
  // Half a block more is kept, or a list whose length goes up and down by one would map and unmap.
  while (m_end + BLOCK_ENTRIES / 2 < (m_blocks.size() - 1) * BLOCK_ENTRIES) m_blocks.pop_back();
}

void RecencyTable::relocate(Position from, Position to) noexcept {
  Entry& moved = entry(to);
  moved = entry(from);
  m_slots.replace(moved.hash, from, to);
  if (moved.newer == from) {  // it is alone
    moved.newer = moved.older = to;
  } else {
    entry(moved.newer).older = to;
    entry(moved.older).newer = to;
  }
  if (m_newest == from) m_newest = to;
}

// ---- Invariants ----------------------------------------------------------------------------------------

bool RecencyTable::CheckInvariants() const {
  return m_slots.CheckInvariants() && checkRing() && checkFree() && size() == m_slots.size() &&
         m_end <= m_blocks.size() * BLOCK_ENTRIES;
}

// Each entry is known to both neighbours and found by its identifier, and directories are held by entries.
bool RecencyTable::checkRing() const {
  std::map<CountedNames::Number, uint64_t> holders;
  if (m_reservedDir != NO_DIR) ++holders[m_reservedDir];
  Position at = m_newest;
  for (size_t count = 0; count < size(); ++count, at = older(at)) {
    const Entry& seen = entry(at);
    ++holders[seen.dir];
    if (entry(seen.older).newer != at || find({seen.guid(), seen.hash}) != at) return false;
  }
  if (at != m_newest || holders.size() != m_dirs.size()) return false;
  for (const auto& [dir, number] : holders) {
    if (m_dirs.holders(dir) != number) return false;
  }
  return true;
}

bool RecencyTable::checkFree() const {
  size_t count = 0;
  for (Position at = m_free, before = NONE; at != NONE;
       before = std::exchange(at, entry(at).older), ++count) {
    if (entry(at).size != FREE || entry(at).newer != before || count >= m_freeCount) return false;
  }
  return count == m_freeCount;
}

}  // namespace ObjectStore
