// Random changes of a segment, and what the cache must hold of it before, after and when one is cut short.
#pragma once

#include <cstdint>
#include <string>

#include "diskcache/diskcache.h"
#include "tests/support/engineFixture.h"

namespace ObjectStore {

constexpr uint16_t FULL = 3000;  // bytes of a payload; a truncated one has half of them

// One copy's payload: a letter, so many times; none at all without a letter.
struct Copy {
  uint16_t letter = 0, length = 0;
  bool operator==(const Copy&) const = default;
  // As EngineTest::get() shows it.
  std::string shown() const { return letter ? std::string(length, static_cast<char>(letter)) : "[ENOENT]"; }
};

// What the cache holds of one segment. Fits into an atomic without a lock, so that a process's death tears none.
struct alignas(8) Copies {
  Copy regular, override;
  const Copy& inUse() const { return override.letter ? override : regular; }
  Copy& inUse() { return override.letter ? override : regular; }
};

// One change of a segment with a context that has two places, or one: then `Copies::override` stays empty.
struct alignas(8) SegmentWork {
  enum Operation : uint32_t {
    CREATE,
    WRITE,
    WRITE_NON_PRUNABLE,
    WRITE_PRUNABLE,
    REPLACE,
    TRUNCATE,
    MARK_DIRTY,
    MOVE_DIRTY,
    TO_PRUNABLE,
    REMOVE,
    RECYCLE,
    NUM_OPERATIONS
  };
  Operation operation = CREATE;
  uint16_t letter = 'a';  // a new segment of an even letter is non-prunable

  template <typename Random>
  static SegmentWork any(Random& random) {
    return {static_cast<Operation>(random() % NUM_OPERATIONS), static_cast<uint16_t>('a' + random() % 26)};
  }

  bool isWrite() const { return operation >= WRITE && operation <= WRITE_PRUNABLE; }

  // What success leaves of these copies.
  Copies leaves(Copies now, bool twoPlaces = true) const {
    const Copy fresh{letter, FULL};
    const auto overwrite = [&](Copy& copy) {
      if (copy.letter) copy = fresh;
    };
    switch (operation) {
      case CREATE: (letter % 2 == 0 && twoPlaces ? now.override : now.regular) = fresh; break;
      case WRITE_NON_PRUNABLE:
        if (twoPlaces && !now.override.letter) now.override = now.regular;
        [[fallthrough]];
      case WRITE: overwrite(now.inUse()); break;
      case WRITE_PRUNABLE: overwrite(now.regular); break;
      case REPLACE: now.regular = fresh; break;
      case TRUNCATE: now.inUse().length = FULL / 2; break;
      case MARK_DIRTY:
      case MOVE_DIRTY:
        if (!twoPlaces || now.override.letter) break;
        now.override = now.regular;
        if (operation == MOVE_DIRTY) now.regular = {};
        break;
      case TO_PRUNABLE:
        if (now.override.letter) now = {now.override, {}};
        break;
      default: now = {};
    }
    return now;
  }

  // How it ends for these copies.
  std::string result(const Copies& now) const {
    if (operation == CREATE) return now.inUse().letter ? "EEXIST" : "success";
    const Copy& asked = operation == WRITE_PRUNABLE ? now.regular : now.inUse();
    return (isWrite() || operation == TRUNCATE) && !asked.letter ? "ENOENT" : "success";
  }

  CZuError perform(DiskCache& cache, DiskCacheContext own, const guid_t& guid) const {
    const std::string text(FULL, static_cast<char>(letter));
    const std::vector<Section> whole{section(0, text)};
    switch (operation) {
      case CREATE: return cache.createSegment(own, guid, whole, false, letter % 2 == 0, false);
      case WRITE:
      case WRITE_NON_PRUNABLE:
      case WRITE_PRUNABLE:
        return cache.writeSections(own, guid, whole, false, static_cast<ForceDiskLoc>(operation - WRITE));
      case REPLACE: return cache.replaceSegment(own, guid, whole);
      case TRUNCATE: return cache.truncateSection(own, guid, 0, 0, FULL / 2);
      case MARK_DIRTY:
      case MOVE_DIRTY: return cache.markDirty(own, guid, operation == MOVE_DIRTY);
      case TO_PRUNABLE: return cache.moveToPrunable(own, guid);
      default: return cache.deleteSegment(own, guid, false, false, static_cast<Recycle>(operation - REMOVE));
    }
  }

  // Whether readers may be shown this when it was cut short by the process's death or by a failure.
  bool mayShow(const std::string& text, const Copies& before, const Copies& after) const {
    const std::string was = before.inUse().shown(), is = after.inUse().shown();
    if (text == was || text == is) return true;
    switch (operation) {
      case CREATE:
        return text.empty() || text[0] == '[';  // the header points at a record that is not there yet
      // Each byte in place is the old one or the new one, and the length follows last.
      case WRITE:
      case WRITE_NON_PRUNABLE:
      case WRITE_PRUNABLE: {
        const size_t turn = text.find_first_not_of(is[0]);
        return text.size() == was.size() &&
               (turn == std::string::npos || text.substr(turn) == was.substr(turn));
      }
      // The two copies go one after the other, the one in use first.
      case REMOVE:
      case RECYCLE: return text == before.regular.shown();
      default: return false;
    }
  }
};

}  // namespace ObjectStore
