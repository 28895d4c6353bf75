// One read of an object: block by block from the table, from disk, from another thread's flight, or from the
// origin. Used by one thread.
#pragma once

#include "client/cacheState.h"

namespace ObjectStore {

class ReadOperation {
 public:
  ReadOperation(OpenCache& cache, std::string_view key, std::string_view version, const ReadOptions& options)
      : m_cache(cache),
        m_key(key),
        m_version(version),
        m_object(objectIdOf(key, version)),
        m_options(options) {}

  ReadResult read(uint64_t offset, std::span<std::byte> out, const Origin& origin);
  // Only what the first block's trailer says.
  ReadResult describe();
  PinnedBlock pin(uint64_t offset, uint64_t length);

 private:
  enum class Step { Done, Miss, Failed };

  BlockId blockOf(uint64_t number) const { return {m_object, static_cast<uint32_t>(number)}; }
  uint64_t blockSize() const { return m_cache.options.blockSize; }
  Step readSome(uint64_t offset, std::span<std::byte> out, const Origin& origin);
  // Finds a block and has `use(found, read)` work with it, after the first `read` bytes of `front` were filled with
  // the front of its payload. A use that misses has found its bytes wrong.
  template <typename Use>
  Step fromCache(const BlockId& id, std::span<std::byte> front, bool mayDrop, Use&& use);
  template <typename Use>
  Step fromHotTable(const BlockId& id, Use&& use);
  template <typename Use>
  Step fromDisk(const BlockId& id, std::span<std::byte> front, bool mayDrop, Use&& use);
  Step readFromCache(const BlockId& id, uint64_t from, std::span<std::byte> out, bool mayDrop);
  Step fromBlock(const HotTable::Found& found, uint64_t from, std::span<std::byte> out, size_t read);
  BytesAre readAndKeep(const HotTable::Block& block, uint64_t from, std::span<std::byte> out);
  Step useBytes(OpenBlock& block, BytesAre bytes, size_t size);
  Step learnFrom(const OpenBlock& block);
  Step fromFlight(const Landing& landing, uint64_t offset, std::span<std::byte> out);
  void dropBroken(const BlockId& id, Count reason);
  bool isExpired(const OpenBlock& block) const;
  Step learn(uint64_t objectSize, const std::shared_ptr<const Metadata>& metadata);
  Step fail(const RMCodeLocation& where, int errNo, const char* what);

  OpenCache& m_cache;
  const std::string_view m_key;
  const std::string_view m_version;
  const ObjectId m_object;
  const ReadOptions& m_options;
  bool m_isSequential = false;
  bool m_mayStore = true;  // not over a file that cannot be looked at
  bool m_knowsSize = false;
  std::optional<Stopwatch> m_missed;  // since the first miss
  size_t m_got = 0;                   // bytes of the last step
  bool m_isFromMemory = false;        // whether the last hit of the table was
  ReadResult m_result;

  friend class OriginFetch;
};

}  // namespace ObjectStore
