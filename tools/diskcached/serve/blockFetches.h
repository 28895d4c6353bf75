// Blocks on their way from the store (or from a disk, into memory): one for all clients who want it.
//
// Any thread may call anything.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "client/objectCache.h"
#include "object/objectInfo.h"
#include "origin/origin.h"
#include "serve/memoryBudget.h"
#include "serve/watched.h"
#include "serve/workerPool.h"

namespace diskcached {

// A block that comes, byte by byte.
class BlockFetch {
 public:
  struct Progress {
    uint64_t arrived = 0;
    bool isDone = false;  // and kept on disk, if that went well
    bool isFromOrigin = false;
    int errNo = 0;
  };

  BlockFetch(uint64_t size, std::unique_ptr<MemoryBudget::Share> share)
      : m_size(size), m_share(std::move(share)), m_bytes(std::make_unique_for_overwrite<std::byte[]>(size)) {}

  uint64_t size() const { return m_size; }
  // The first `arrived` bytes may be read.
  const std::byte* bytes() const { return m_bytes.get(); }
  // When more than so many bytes are there, or an end has come.
  asio::awaitable<Progress> moreThan(uint64_t bytes);
  Progress progress() { return m_progress.value(); }

 private:
  friend class BlockFetches;
  void append(std::span<const std::byte> bytes);
  void finish(int errNo, bool isFromOrigin = false);

  const uint64_t m_size;
  const std::unique_ptr<MemoryBudget::Share> m_share;
  const std::unique_ptr<std::byte[]> m_bytes;
  uint64_t m_arrived = 0;  // the fetching thread's
  Watched<Progress> m_progress;
};

class BlockFetches {
 public:
  BlockFetches(ObjectStore::ObjectCache& cache, Origin& origin, WorkerPool& workers, MemoryBudget& memory,
               uint32_t blockSize)
      : m_cache(cache), m_origin(origin), m_workers(workers), m_memory(memory), m_blockSize(blockSize) {}

  struct Taken {
    std::shared_ptr<BlockFetch> fetch;
    bool isMine = false;  // it began with this call
  };
  // The block's fetch, begun if there is none. Throws Overloaded.
  Taken take(const std::string& key, const ObjectInfoPointer& info, uint64_t number);
  uint32_t blockSize() const { return m_blockSize; }

 private:
  void forget(const std::string& name);
  void fill(BlockFetch& fetch, const std::string& key, const ObjectInfo& info, uint64_t from);

  ObjectStore::ObjectCache& m_cache;
  Origin& m_origin;
  WorkerPool& m_workers;
  MemoryBudget& m_memory;
  const uint32_t m_blockSize;
  ObjectStore::KxCriticalSection m_lock;
  std::unordered_map<std::string, std::shared_ptr<BlockFetch>> m_fetches DC_GUARDED_BY(m_lock);
};

}  // namespace diskcached
