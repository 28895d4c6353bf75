// A run of missing blocks on its way from the origin: to those who wait, then to disk. Used by one thread.
#pragma once

#include <memory>
#include <vector>

#include "client/readOperation.h"

namespace ObjectStore {

class OriginFetch {
 public:
  OriginFetch(ReadOperation& read, const Origin& origin, std::unique_ptr<Flights::Flight> first);
  OriginFetch(const OriginFetch&) = delete;
  OriginFetch& operator=(const OriginFetch&) = delete;

  // Reads into `out` from `offset`, which lies in the first block, as far as the run goes.
  ReadOperation::Step run(uint64_t offset, std::span<std::byte> out);

 private:
  class Request;

  void takeMissingNeighbours(uint64_t offset, size_t bytes);
  OriginAnswer ask();
  // Hands out what is whole when the first `bytes` of the run are there.
  void land(uint64_t bytes, uint64_t objectSize);
  void landError(const CZuError& error);
  std::span<const std::byte> payloadOf(size_t index, uint64_t objectSize) const;
  void store(uint64_t objectSize);
  bool isAdmitted(uint64_t objectSize);

  ReadOperation& m_read;
  OpenCache& m_cache;
  const Origin& m_origin;
  const uint64_t m_start;  // offset of the first block in the object
  std::vector<std::unique_ptr<Flights::Flight>> m_flights;
  size_t m_wanted = 1;  // blocks that were asked for; the others are prefetched
  std::shared_ptr<std::byte[]> m_buffer;
  size_t m_bufferSize = 0;
  std::shared_ptr<const Metadata> m_metadata;  // once the origin has told it
  uint64_t m_arrivedSize = 0;                  // as told by OriginRequest::arrived
  size_t m_landed = 0;
};

}  // namespace ObjectStore
