// What blocks take on disk, by volume, and what is granted to those being written.
//
// Any thread may call anything; the lock is a leaf. A volume that is gone takes its share along.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>

#include "diskcache/diskcacheTypes.h"
#include "support/lock.h"

namespace ObjectStore {

class ByteAccount {
 public:
  static constexpr uint64_t NO_BOUND = std::numeric_limits<uint64_t>::max();

  // Bytes granted to one block until it is written or given up.
  class Grant {
   public:
    explicit Grant(ByteAccount& account) : m_account(account) {}
    ~Grant() { m_account.endGrant(m_bytes, 0, 0); }
    Grant(const Grant&) = delete;
    Grant& operator=(const Grant&) = delete;

    // False, with nothing granted, when all together would be more than `bound`.
    bool take(uint64_t bytes, uint64_t bound) {
      if (!m_account.tryGrant(bytes, bound)) return false;
      m_bytes = bytes;
      return true;
    }
    // The block is written and takes this much.
    void settle(VolIndex volume, uint64_t bytes) {
      m_account.endGrant(m_bytes, volume, bytes);
      m_bytes = 0;
    }

   private:
    ByteAccount& m_account;
    uint64_t m_bytes = 0;
  };

  void add(VolIndex volume, uint64_t bytes) { endGrant(0, volume, bytes); }
  // Never below 0: a file may have shrunk or vanished by other hands.
  void subtract(VolIndex volume, uint64_t bytes) {
    const KxCriticalSectionLock lock(&m_lock);
    uint64_t& used = m_used[volume];
    const uint64_t less = std::min(used, bytes);
    used -= less;
    m_total -= less;
  }
  void clear(VolIndex volume) { subtract(volume, NO_BOUND); }

  uint64_t used() {
    const KxCriticalSectionLock lock(&m_lock);
    return m_total;
  }
  // The most that was used and granted at one time.
  uint64_t peak() {
    const KxCriticalSectionLock lock(&m_lock);
    return m_peak;
  }

 private:
  bool tryGrant(uint64_t bytes, uint64_t bound) {
    const KxCriticalSectionLock lock(&m_lock);
    if (bytes > bound || m_total + m_granted > bound - bytes) return false;
    m_granted += bytes;
    m_peak = std::max(m_peak, m_total + m_granted);
    return true;
  }
  void endGrant(uint64_t granted, VolIndex volume, uint64_t bytes) {
    const KxCriticalSectionLock lock(&m_lock);
    m_granted -= granted;
    if (bytes == 0) return;
    m_used[volume] += bytes;
    m_total += bytes;
  }

  KxCriticalSection m_lock;
  std::map<VolIndex, uint64_t> m_used DC_GUARDED_BY(m_lock);
  uint64_t m_total DC_GUARDED_BY(m_lock) = 0;
  uint64_t m_granted DC_GUARDED_BY(m_lock) = 0;
  uint64_t m_peak DC_GUARDED_BY(m_lock) = 0;
};

}  // namespace ObjectStore
