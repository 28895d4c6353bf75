// Objects that are staged on disk and not uploaded yet, and the workers that upload them.
//
// Any thread may call anything but adopt() and stop(). No lock is held over work on files or an upload. An
// object's first block is staged last and made prunable or discarded first: with it the object is staged, without
// it not.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>
#include <vector>

#include "client/blockStore.h"
#include "client/flights.h"
#include "client/objectCache.h"

namespace ObjectStore {

class WriteBack {
 public:
  WriteBack(BlockStore& store, Flights& flights, Metrics& metrics, const ObjectCacheOptions& options)
      : m_store(store), m_flights(flights), m_metrics(metrics), m_options(options) {}
  ~WriteBack() { stop(); }
  WriteBack(const WriteBack&) = delete;
  WriteBack& operator=(const WriteBack&) = delete;

  CZuError stage(std::string_view key, std::string_view version, std::span<const std::byte> bytes,
                 const Metadata& metadata);
  CZuError discard(std::string_view key, std::string_view version);
  std::vector<std::shared_ptr<const StagedObject>> list(std::optional<std::string_view> key);
  CZuError flush(Upload upload, unsigned parallel);
  StagedStatus status();
  bool drained(std::chrono::steady_clock::time_point deadline);
  // Ends the workers, each after its upload.
  void stop();

  // An object found at the start, whose blocks the store has adopted, by the trailer of any of them.
  void adopt(const BlockTrailer& trailer);

 private:
  using Clock = std::chrono::steady_clock;
  using Age = std::chrono::system_clock::time_point;
  class Object;
  class Claim;
  using ObjectPointer = std::shared_ptr<Object>;
  using Objects = std::unordered_multimap<std::string_view, ObjectPointer>;

  ObjectPointer find(std::string_view key, std::string_view version);
  bool isStaged(const Object& object);  // once nobody has a claim
  Objects::iterator positionLocked(const Object& object) DC_REQUIRES(m_lock);
  // Makes this thread the only one that makes it prunable or discards it, until unclaim(); false when it is
  // staged no more. A Claim calls both.
  bool claim(Object& object);
  void unclaim(Object& object, bool isStagedStill);
  std::vector<std::unique_ptr<Flights::Flight>> takeBlocks(const Object& object);
  // What of a staged object is damaged gets its bytes again. 0 or why not; ENOENT when it is staged no more.
  int restore(Object& object, std::span<const std::byte> bytes);
  // 0 or why not; `stored` are the blocks that were not there before.
  int storeBlocks(const Object& object, std::span<const std::byte> bytes, std::vector<BlockId>& stored);
  int storeBlock(const BlockContent& content, std::vector<BlockId>& stored);
  void takeBack(const std::vector<BlockId>& stored);
  CZuError discard(Object& object);  // with all its blocks taken
  int discardBlocks(const Object& object);
  void enter(const ObjectPointer& object, Clock::time_point due);
  // By when they are to be tried: at first when they were staged, and before all others those found at the start.
  using Queue = std::multimap<std::pair<Clock::time_point, Age>, ObjectPointer>;
  // The next object that is due, waited for unless in a single pass; none when there is none, or at the end.
  Queue::node_type take(bool isSinglePass, Clock::time_point passBegan);
  // One turn of an object; it is due again when that fails, in whatever way.
  CZuError takeTurn(Queue::node_type&& object, const Upload& upload);
  CZuError uploadOne(Object& object, const Upload& upload);
  CZuError makePrunable(Object& object);
  void tryLater(Queue::node_type&& object);
  void work(const Upload& upload);
  int release(const Object& object);

  BlockStore& m_store;
  Flights& m_flights;
  Metrics& m_metrics;
  const ObjectCacheOptions& m_options;

  KxCriticalSection m_lock;
  std::condition_variable_any m_changed;
  Objects m_objects DC_GUARDED_BY(m_lock);  // by their keys
  // Those that no worker has. Those discarded stay until they are due.
  Queue m_due DC_GUARDED_BY(m_lock);
  std::multiset<Age> m_ages DC_GUARDED_BY(m_lock);
  uint64_t m_bytes DC_GUARDED_BY(m_lock) = 0;
  bool m_stop DC_GUARDED_BY(m_lock) = false;
  std::vector<std::thread> m_workers DC_GUARDED_BY(m_lock);
};

}  // namespace ObjectStore
