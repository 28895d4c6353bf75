// What a client remembers of its segments: on which volume each one lies, and which are being worked on.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "diskcache/diskcacheTypes.h"

namespace diskcachectl {

// One thread at a time makes or deletes a segment: it claims the identifier first, and the others leave that
// segment alone meanwhile instead of waiting. The lock is held within an operation only, never while the
// cache works, since the cache calls the client back with a lock of its own held.
class SegmentMap {
 public:
  struct Entry {
    ObjectStore::VolIndex volume = 0;  // 0 while claimed
    uint64_t stamp = 0;                // differs each time an entry is changed
    bool isDoomed = false;             // to be deleted by the thread that has claimed it
    bool isClaimed() const { return volume == 0; }
    bool operator==(const Entry&) const = default;
  };
  using Known = std::optional<Entry>;

  Known find(const std::string& id) const;
  // Enters a segment found on a volume unless there is an entry; returns the entry.
  Entry adopt(const std::string& id, ObjectStore::VolIndex volume);
  // Succeeds unless the entry has changed since it was `known` or is claimed.
  bool claim(const std::string& id, const Known& known);
  // Leaves the deletion of a claimed segment to the claiming thread; false when it is not claimed.
  bool doom(const std::string& id);
  // Ends a claim: the segment lies on `volume`. False, and the claim stays, when it is doomed.
  bool settle(const std::string& id, ObjectStore::VolIndex volume);
  // Ends a claim: there is no such segment.
  void forget(const std::string& id);

 private:
  mutable std::mutex m_lock;
  std::unordered_map<std::string, Entry> m_entries;
  uint64_t m_lastStamp = 0;
};

}  // namespace diskcachectl
