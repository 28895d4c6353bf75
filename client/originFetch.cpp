#include "client/originFetch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/log.h"

namespace ObjectStore {

class OriginFetch::Request final : public OriginRequest {
 public:
  Request(OriginFetch& fetch, uint64_t start, std::span<std::byte> buffer)
      : OriginRequest(start, buffer), m_fetch(fetch) {}
  virtual ~Request() = default;
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;
  void arrived(uint64_t bytes, uint64_t objectSize, const Metadata& metadata) override {
    if (!m_fetch.m_metadata) {
      m_fetch.m_metadata = std::make_shared<const Metadata>(metadata);
      m_fetch.m_arrivedSize = objectSize;
    }
    if (objectSize == m_fetch.m_arrivedSize) m_fetch.land(std::min<uint64_t>(bytes, to.size()), objectSize);
  }

 private:
  OriginFetch& m_fetch;
};

OriginFetch::OriginFetch(ReadOperation& read, const Origin& origin, std::unique_ptr<Flights::Flight> first)
    : m_read(read),
      m_cache(read.m_cache),
      m_origin(origin),
      m_start(first->block().number * read.blockSize()) {
  m_flights.push_back(std::move(first));
}

ReadOperation::Step OriginFetch::run(uint64_t offset, std::span<std::byte> out) {
  takeMissingNeighbours(offset, out.size());
  const OriginAnswer answer = ask();
  if (answer.error.IsError()) {
    m_cache.metrics.add(Count::originErrors);
    m_read.m_result.error = answer.error;
    m_read.m_result.error.Push(RM_CODE_LOCATION, "[%.*s] can't be fetched",
                               static_cast<int>(m_read.m_key.size()), m_read.m_key.data());
    landError(m_read.m_result.error);
    return ReadOperation::Step::Failed;
  }
  const uint64_t size = answer.objectSize;
  if (m_metadata && size != m_arrivedSize) {
    m_read.fail(RM_CODE_LOCATION, ESTALE, "the origin tells two sizes");
    landError(m_read.m_result.error);
    return ReadOperation::Step::Failed;
  }
  if (!m_metadata) m_metadata = std::make_shared<const Metadata>(answer.metadata);
  if (m_read.learn(size, m_metadata) == ReadOperation::Step::Failed) {
    landError(m_read.m_result.error);
    return ReadOperation::Step::Failed;
  }
  land(m_bufferSize, size);
  const uint64_t there = size <= m_start ? 0 : std::min<uint64_t>(m_bufferSize, size - m_start);
  const uint64_t skip = offset - m_start;
  m_read.m_got = there <= skip ? 0 : std::min<uint64_t>(out.size(), there - skip);
  if (m_read.m_got > 0) std::memcpy(out.data(), m_buffer.get() + skip, m_read.m_got);
  m_cache.metrics.add(Count::originBytes, there);
  store(size);
  return ReadOperation::Step::Done;
}

// The blocks behind the first one that are wanted and that nobody has or fetches.
void OriginFetch::takeMissingNeighbours(uint64_t offset, size_t bytes) {
  const uint64_t blockSize = m_read.blockSize();
  const uint64_t first = offset / blockSize;
  const uint64_t most = std::max<uint64_t>(m_cache.options.maxFetch / blockSize, 1);
  uint64_t wanted = bytes == 0 ? 1 : (offset + bytes - 1) / blockSize - first + 1;
  const uint64_t prefetched = m_read.m_isSequential ? m_cache.options.prefetchBlocks : 0;
  uint64_t end = std::min(first + std::min(wanted + prefetched, most), uint64_t{1} << 32);
  if (m_read.m_knowsSize) end = std::min(end, (m_read.m_result.objectSize + blockSize - 1) / blockSize);
  for (uint64_t number = first + 1; number < end; ++number) {
    const BlockId id = m_read.blockOf(number);
    if (m_cache.store.isKnown(id)) break;
    auto flight = m_cache.flights.tryStart(id);
    if (!flight || m_cache.store.isKnown(id)) break;  // which may just have come
    m_flights.push_back(std::move(flight));
  }
  m_wanted = std::min<uint64_t>(wanted, m_flights.size());
  m_bufferSize = m_flights.size() * blockSize;
  if (m_read.m_knowsSize) {
    const uint64_t size = m_read.m_result.objectSize;
    m_bufferSize = size <= m_start ? 0 : std::min<uint64_t>(m_bufferSize, size - m_start);
  }
  m_buffer = std::make_shared_for_overwrite<std::byte[]>(m_bufferSize);
}

OriginAnswer OriginFetch::ask() {
  m_read.m_result.misses += static_cast<uint32_t>(m_wanted);
  m_cache.metrics.add(Count::misses, m_wanted);
  m_cache.metrics.add(Count::originRequests);
  Request request(*this, m_start, {m_buffer.get(), m_bufferSize});
  try {
    return m_origin(request);
  } catch (...) {
    return {.error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, EIO, "the origin's function threw")};
  }
}

std::span<const std::byte> OriginFetch::payloadOf(size_t index, uint64_t objectSize) const {
  const uint64_t size = payloadSizeOf(objectSize, m_read.blockSize(), m_flights[index]->block().number);
  return {m_buffer.get() + index * m_read.blockSize(), static_cast<size_t>(size)};
}

void OriginFetch::land(uint64_t bytes, uint64_t objectSize) {
  for (; m_landed < m_flights.size(); ++m_landed) {
    const auto payload = payloadOf(m_landed, objectSize);
    if (m_landed * m_read.blockSize() + payload.size() > bytes) return;
    m_flights[m_landed]->land(
        std::make_shared<const Landed>(Landed{{}, false, m_buffer, payload, objectSize, m_metadata}));
  }
}

void OriginFetch::landError(const CZuError& error) {
  for (; m_landed < m_flights.size(); ++m_landed) {
    m_flights[m_landed]->land(std::make_shared<const Landed>(Landed{.error = error}));
  }
}

// Each flight ends when its block is on disk: who comes later finds it there.
void OriginFetch::store(uint64_t objectSize) {
  const bool isStored = m_read.m_mayStore && isAdmitted(objectSize);
  for (size_t i = 0; i < m_flights.size(); ++i) {
    const BlockId id = m_flights[i]->block();
    const auto payload = payloadOf(i, objectSize);
    const bool isBehindEnd = payload.empty() && id.number > 0;
    if (i >= m_wanted && !isBehindEnd) m_cache.metrics.add(Count::prefetchedBlocks);
    if (isStored && !isBehindEnd) {
      const int rc =
          m_cache.store.store({id, m_read.m_key, m_read.m_version, objectSize, *m_metadata, payload},
                              BlockStore::Place::Prunable);
      if (rc != 0) {
        DC_LOG(LogLevel::NoSpace, "can't store block %u of [%.*s] (%d)", id.number,
               static_cast<int>(m_read.m_key.size()), m_read.m_key.data(), rc);
      }
    }
    m_flights[i].reset();
  }
}

bool OriginFetch::isAdmitted(uint64_t objectSize) {
  if (!m_cache.options.admit) return true;
  const unsigned uses = m_cache.uses.countUse(m_read.m_object);
  if (m_cache.options.admit({m_read.m_key, m_read.m_version, objectSize, uses})) return true;
  m_cache.metrics.add(Count::refusedAdmission, m_wanted);
  return false;
}

}  // namespace ObjectStore
