// Key to what is known of the object, bounded: the one asked for least recently goes first,
// unless it is staged, since then nobody else knows of it. What is staged the cache tells at each start.
//
// Any thread may call anything; the lock is a leaf.
#pragma once

#include <array>
#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "object/indexLog.h"
#include "object/objectInfo.h"
#include "support/lock.h"

namespace diskcached {

class ObjectIndex {
 public:
  explicit ObjectIndex(size_t most) : m_most(most) {}

  ObjectInfoPointer find(std::string_view key);
  // What a look at the store told, unless the key was changed since `ticket` was taken: the look may be older
  // than the change. What is staged stays. Null: the store has it no more. Whether it was put.
  uint64_t ticket(std::string_view key);
  bool putFound(std::string_view key, ObjectInfoPointer info, uint64_t ticket);
  // What a client has changed; null forgets the key.
  void change(std::string_view key, ObjectInfoPointer info);
  // Takes out what may have changed; null when it is not known, or staged.
  ObjectInfoPointer forget(std::string_view key);
  // Forgets what was found unless another version is known by now; false when it is staged.
  bool erase(std::string_view key, const ObjectInfo& found);
  // Takes all out whose keys begin so.
  std::vector<std::pair<std::string, ObjectInfoPointer>> takePrefix(std::string_view prefix);
  size_t size();

  // Finds what a log tells and notes all changes in it from now on. To be called once, before anything else.
  void open(const std::string& logPath);
  // Notes durably what is in memory.
  void save();
  // Makes all that was noted durable; the lock is not held meanwhile.
  void sync();

 private:
  struct Entry {
    std::string key;
    ObjectInfoPointer info;
  };
  using Position = std::list<Entry>::iterator;

  void putLocked(std::string_view key, ObjectInfoPointer info) DC_REQUIRES(m_lock);
  void setLocked(std::string_view key, ObjectInfoPointer info) DC_REQUIRES(m_lock);
  void eraseLocked(std::string_view key) DC_REQUIRES(m_lock);
  void shrinkLocked() DC_REQUIRES(m_lock);
  void noteLocked(std::string_view key, const ObjectInfo* info) DC_REQUIRES(m_lock);
  void rewriteLocked() DC_REQUIRES(m_lock);
  uint64_t& changesOf(std::string_view key) DC_REQUIRES(m_lock);

  const size_t m_most;
  ObjectStore::KxCriticalSection m_lock;
  std::list<Entry> m_entries DC_GUARDED_BY(m_lock);  // the most recent first
  std::unordered_map<std::string_view, Position> m_positions DC_GUARDED_BY(m_lock);
  std::string m_logPath DC_GUARDED_BY(m_lock);
  IndexLog m_log DC_GUARDED_BY(m_lock);
  std::array<uint64_t, 1024> m_changes DC_GUARDED_BY(m_lock){};  // of all keys of one hash
};

}  // namespace diskcached
