// The registered directories: who decides on their segments, which directories pruning leaves alone, and the
// callbacks that are running.
//
// Internal. Any thread may call the operations. The lock is a leaf and is never held while a callback runs,
// so a callback may come back here.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "diskcache/diskcacheTypes.h"
#include "diskcache/lockOrder.h"
#include "support/error.h"
#include "support/lock.h"
#include "support/threadAnnotations.h"

namespace ObjectStore {

class DiskCacheContexts {
 public:
  // Adds a reference to ctx.dir and returns how many there are. The first one's callback stays.
  uint32_t add(const DiskCacheContext& ctx);
  // Takes a reference to ctx.dir away and sets `left` to how many remain; false when there was none.
  bool remove(const DiskCacheContext& ctx, uint32_t& left);
  // Returns once every callback of a directory that runs now has ended, or at once when one of them runs on
  // the calling thread.
  void waitForCallbacks(const std::string& dir);

  // A copy of a directory's callback; ENOENT when it is not registered.
  CZuError find(const std::string& dir, PrunerCallback& out);
  // Asks the callback of a directory whether a segment may go. ENOENT when there is none to ask; what the
  // callback throws goes on to the caller.
  CZuError ask(bool& givenUp, const std::string& dir, const std::string& path, const guid_t& guid);
  // Every registered directory with a callback that asks as above, so that it does nothing once the directory
  // is no longer registered; an empty one where the client gave none.
  std::vector<std::pair<std::string, PrunerCallback>> callbacks();

  // Whether a directory of a volume is, or lies in, one that a registration names as its nonprunableDir.
  // `dir` is as relativeDir() gives it.
  bool isNonPrunable(std::string_view dir);
  // One spelling for each directory below a volume: without doubled separators, ".", ".." and slashes around.
  static std::string relativeDir(const std::string& dir);

 private:
  struct Registration {
    PrunerCallback callback;
    uint32_t refCount = 0;
    std::vector<std::string> nonPrunableDirs;  // one a reference that named one, as relativeDir() gives it
  };
  // A callback that is running; lives on the stack of who called it.
  struct Call {
    const std::string& dir;
    uint64_t number;
    std::thread::id thread;
  };
  class RunningCall;

  CZuError findLocked(const std::string& dir, PrunerCallback& out, const RMCodeLocation& where)
      DC_REQUIRES(m_lock);
  bool isRunning(const std::string& dir, uint64_t before) DC_REQUIRES(m_lock);

  KxCriticalSection m_lock DC_ACQUIRED_AFTER(lockOrder::leaves);
  std::map<std::string, Registration> m_registrations DC_GUARDED_BY(m_lock);
  std::vector<const Call*> m_calls DC_GUARDED_BY(m_lock);
  uint64_t m_nextCall DC_GUARDED_BY(m_lock) = 0;
  std::condition_variable_any m_callEnded;
};

}  // namespace ObjectStore
