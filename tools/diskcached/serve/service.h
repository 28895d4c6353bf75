// What all connections share.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "client/objectCache.h"
#include "life/accessLog.h"
#include "object/objectIndex.h"
#include "options/options.h"
#include "origin/origin.h"
#include "serve/blockFetches.h"
#include "serve/keyLocks.h"
#include "serve/keyTurns.h"
#include "serve/lookups.h"
#include "serve/memoryBudget.h"
#include "serve/pinnedLately.h"
#include "serve/stats.h"
#include "serve/workerPool.h"

namespace diskcached {

class Service {
 public:
  Service(std::shared_ptr<const Options> options, ObjectStore::ObjectCache& cache,
          std::optional<Credentials> credentials);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  std::shared_ptr<const Options> options() const { return std::atomic_load(&m_options); }
  // What a running server can change. Throws BadOptions, and has changed nothing then.
  void change(std::shared_ptr<const Options> options, std::optional<Credentials> credentials);
  bool isStopping() const { return m_isStopping; }
  void stop() { m_isStopping = true; }
  // When no coroutine waits for them any more, and the store has been stopped.
  void stopWorkers();

  // Forgets an object that may have changed, unless it is staged; a look at the store that is under way counts no
  // more.
  void forget(const std::string& key);
  uint64_t memoryUsed() const { return memory.used() + uploadMemory.used(); }

 private:
  std::shared_ptr<const Options> m_options;
  std::atomic<bool> m_isStopping{false};

 public:
  Stats stats;
  ObjectStore::ObjectCache& cache;
  Origin origin;
  ObjectIndex index;
  KeyLocks keyLocks;
  KeyTurns keyTurns;
  MemoryBudget memory;
  MemoryBudget uploadMemory;  // a part that slow uploads may take up without an answer going without
  PinnedLately pinnedLately;
  AccessLog accessLog;
  WorkerPool disks;     // for calls that wait for a disk,
  WorkerPool fetchers;  // for the store,
  WorkerPool changers;  // for the store that is to change something,
  WorkerPool passers;   // and for the store and a client
  Lookups lookups;
  BlockFetches fetches;
};

}  // namespace diskcached
