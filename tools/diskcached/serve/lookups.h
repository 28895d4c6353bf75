// What is known of an object: from memory while it is fresh, else from the store, asked once for all who want
// it.
//
// Any thread may call anything.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "client/objectCache.h"
#include "object/objectIndex.h"
#include "origin/origin.h"
#include "serve/stats.h"
#include "serve/watched.h"
#include "serve/workerPool.h"

namespace diskcached {

struct Found {
  ObjectInfoPointer info{};  // null: the store has none, or can't be asked
  OriginReply reply{};       // of the store, when it was asked
  bool isAsked = false;
  bool wasKnown = false;  // but no longer fresh
  bool isStale = false;   // served because the store is in trouble
};

class Lookups {
 public:
  Lookups(ObjectStore::ObjectCache& cache, ObjectIndex& index, Origin& origin, WorkerPool& workers,
          Stats& stats)
      : m_cache(cache), m_index(index), m_origin(origin), m_workers(workers), m_stats(stats) {}

  // Throws Overloaded.
  asio::awaitable<Found> find(std::string key, std::shared_ptr<const Options> options);
  // Remembers that the store gives this version as a whole only.
  void noteWithoutRanges(const std::string& key, const std::string& version, const Options& options);

 private:
  struct State {
    bool isDone = false;
    bool isOverloaded = false;
    std::shared_ptr<const Found> found{};
  };
  struct Look : Watched<State> {
    explicit Look(uint64_t itsTicket) : ticket(itsTicket) {}
    const uint64_t ticket;  // of the index when it began
  };
  using Pending = std::shared_ptr<Look>;

  // One that began after the last change of the key, so that nobody is told what was before it.
  Pending join(const std::string& key, const std::shared_ptr<const Options>& options);
  void end(const std::string& key, const Pending& pending, State state);
  Found ask(const std::string& key, uint64_t ticket, const Options& options);
  ObjectInfoPointer recall(const std::string& key, const ObjectInfo& remembered, const Options& options);
  Found troubled(const std::string& key, ObjectInfoPointer known, OriginReply reply, uint64_t ticket,
                 const Options& options);

  ObjectStore::ObjectCache& m_cache;
  ObjectIndex& m_index;
  Origin& m_origin;
  WorkerPool& m_workers;
  Stats& m_stats;
  ObjectStore::KxCriticalSection m_lock;
  std::unordered_map<std::string, Pending> m_pending DC_GUARDED_BY(m_lock);
};

}  // namespace diskcached
