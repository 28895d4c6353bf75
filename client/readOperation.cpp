#include "client/readOperation.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <new>

#include "client/originFetch.h"
#include "support/log.h"

namespace ObjectStore {

ReadResult ReadOperation::read(uint64_t offset, std::span<std::byte> out, const Origin& origin) {
  const uint64_t last = offset + out.size();
  if (last < offset || last / blockSize() > std::numeric_limits<uint32_t>::max()) {
    fail(RM_CODE_LOCATION, EINVAL, "no object is so large");
    return std::move(m_result);
  }
  if (m_cache.options.prefetchBlocks > 0) m_isSequential = m_cache.sequences.isNext(m_object, offset, last);
  do {
    const Step step = readSome(offset + m_result.bytes, out.subspan(m_result.bytes), origin);
    if (step == Step::Failed) break;
    m_result.bytes += m_got;
  } while (m_result.bytes < out.size() && offset + m_result.bytes < m_result.objectSize);
  if (m_missed) m_cache.metrics.misses.add(m_missed->elapsed());
  return std::move(m_result);
}

ReadResult ReadOperation::describe() {
  if (readFromCache(blockOf(0), 0, {}, false) != Step::Done) fail(RM_CODE_LOCATION, ENOENT, "not cached");
  return std::move(m_result);
}

// Damage is left to who reads and may drop it.
PinnedBlock ReadOperation::pin(uint64_t offset, uint64_t length) {
  PinnedBlock pinned;
  const uint64_t number = offset / blockSize(), from = offset % blockSize();
  if (number > std::numeric_limits<uint32_t>::max()) {
    fail(RM_CODE_LOCATION, EINVAL, "no object is so large");
  } else if (const Step step = fromCache(
                 blockOf(number), {}, false,
                 [&](const HotTable::Found& found, size_t) {
                   const HotTable::Block& block = found.block;
                   const uint64_t size = block->trailer().payloadSize;
                   pinned.length = from >= size ? 0 : std::min(length, size - from);
                   pinned.fd = block->fd();
                   pinned.fileOffset = block->offset() + from;
                   pinned.hold = block;
                   return useBytes(*block, block->check(from, pinned.length, m_cache.options.verify),
                                   pinned.length);
                 });
             step != Step::Done) {
    fail(RM_CODE_LOCATION, ENOENT, "not cached");
  }
  if (m_result.error.IsError()) return {.error = m_result.error};
  pinned.objectSize = m_result.objectSize;
  pinned.metadata = m_result.metadata;
  return pinned;
}

ReadOperation::Step ReadOperation::readSome(uint64_t offset, std::span<std::byte> out, const Origin& origin) {
  const BlockId id = blockOf(offset / blockSize());
  const uint64_t from = offset % blockSize();
  const auto ofBlock = out.first(std::min<uint64_t>(out.size(), blockSize() - from));
  for (;;) {
    if (const Step step = readFromCache(id, from, ofBlock, false); step != Step::Miss) return step;
    if (!m_missed) m_missed.emplace();
    Flights::Joined joined = m_cache.flights.join(id);
    if (!joined.mine) {
      if (const Step step = fromFlight(joined.landing, offset, ofBlock); step != Step::Miss) return step;
      continue;
    }
    // The block may have come between the look and the flight; what is there and not whole goes now.
    if (const Step step = readFromCache(id, from, ofBlock, true); step != Step::Miss) return step;
    return OriginFetch(*this, origin, std::move(joined.mine)).run(offset, out);
  }
}

ReadOperation::Step ReadOperation::readFromCache(const BlockId& id, uint64_t from, std::span<std::byte> out,
                                                 bool mayDrop) {
  const auto front = from == 0 ? out : std::span<std::byte>();
  return fromCache(id, front, mayDrop, [&](const HotTable::Found& found, size_t read) {
    return fromBlock(found, from, out, read);
  });
}

template <typename Use>
ReadOperation::Step ReadOperation::fromCache(const BlockId& id, std::span<std::byte> front, bool mayDrop,
                                             Use&& use) {
  const Step step = fromHotTable(id, use);
  return step != Step::Miss ? step : fromDisk(id, front, mayDrop, use);
}

template <typename Use>
ReadOperation::Step ReadOperation::fromHotTable(const BlockId& id, Use&& use) {
  const HotTable::Found found = m_cache.hot.find(id);
  if (!found.block || !found.block->isOf(m_key, m_version) || isExpired(*found.block)) return Step::Miss;
  m_isFromMemory = false;
  const Step step = use(found, 0);
  if (step == Step::Miss) {
    m_cache.hot.erase(id);  // and look at the file itself
    return step;
  }
  // One that the list does not know was given up while it was read, or is staged.
  if (!m_cache.engine->touch(found.block->name()) && !m_cache.store.isStaged(id)) m_cache.hot.erase(id);
  m_cache.metrics.add(m_isFromMemory ? Count::memoryHits : Count::hotHits);
  return step;
}

template <typename Use>
ReadOperation::Step ReadOperation::fromDisk(const BlockId& id, std::span<std::byte> front, bool mayDrop,
                                            Use&& use) {
  using Found = BlockStore::Found;
  const BlockStore::Lookup lookup = m_cache.store.open(id, m_key, m_version, front);
  switch (lookup.found) {
    case Found::Nothing: return Step::Miss;
    case Found::Trouble: m_mayStore = false; return Step::Miss;
    case Found::Unfinished:
      if (mayDrop) dropBroken(id, Count::leftovers);
      return Step::Miss;
    case Found::Broken:
      if (mayDrop) dropBroken(id, Count::damagedBlocks);
      return Step::Miss;
    case Found::Outdated:
      if (mayDrop) dropBroken(id, Count::expiredBlocks);
      return Step::Miss;
    case Found::Whole: break;
  }
  if (m_cache.options.verify == Verify::Once && m_cache.verified.contains(*lookup.block))
    lookup.block->setVerified();
  if (isExpired(*lookup.block)) {
    if (mayDrop) dropBroken(id, Count::expiredBlocks);
    return Step::Miss;
  }
  const Step step = use({lookup.block}, lookup.read);
  if (step == Step::Miss) {
    if (mayDrop) dropBroken(id, Count::damagedBlocks);
    return step;
  }
  m_cache.metrics.add(Count::coldHits);
  m_cache.hot.insert(id, lookup.block);
  // Given up between its opening and its entering the table: the table must not keep its space.
  if (!m_cache.engine->touch(lookup.block->name()) && !m_cache.store.isStaged(id)) m_cache.hot.erase(id);
  return step;
}

// The first `read` bytes of `out` are there already.
ReadOperation::Step ReadOperation::fromBlock(const HotTable::Found& found, uint64_t from,
                                             std::span<std::byte> out, size_t read) {
  OpenBlock& block = *found.block;
  const uint64_t payloadSize = block.trailer().payloadSize;
  m_got = from >= payloadSize ? 0 : std::min<uint64_t>(out.size(), payloadSize - from);
  out = out.first(m_got);
  if (found.copy) {
    m_isFromMemory = true;
    if (!out.empty()) std::memcpy(out.data(), found.copy.get() + from, out.size());
    m_cache.metrics.add(Count::memoryBytes, out.size());
    return learnFrom(block);
  }
  const BytesAre bytes = found.isCopyDue && !out.empty()
                             ? readAndKeep(found.block, from, out)
                             : block.read(from, out, m_cache.options.verify, read >= out.size());
  return useBytes(block, bytes, out.size());
}

// The whole payload, for the table to keep: checked now, whatever was found right before.
BytesAre ReadOperation::readAndKeep(const HotTable::Block& block, uint64_t from, std::span<std::byte> out) {
  const size_t size = block->trailer().payloadSize;
  const Verify chosen = m_cache.options.verify;
  HotTable::Copy copy;
  try {
    auto payload = std::make_shared_for_overwrite<std::byte[]>(size);
    const BytesAre bytes =
        block->read(0, {payload.get(), size}, chosen == Verify::Never ? chosen : Verify::Always);
    if (bytes != BytesAre::Right) {
      m_cache.verified.erase(block->id());
      return bytes;
    }
    copy = std::move(payload);
  } catch (const std::bad_alloc&) {
    return block->read(from, out, chosen);
  }
  std::memcpy(out.data(), copy.get() + from, out.size());
  m_cache.hot.keep(block, std::move(copy));
  return BytesAre::Right;
}

// What a look at a block's bytes has come to.
ReadOperation::Step ReadOperation::useBytes(OpenBlock& block, BytesAre bytes, size_t size) {
  if (bytes == BytesAre::Unreadable) m_cache.metrics.add(Count::diskErrors);
  if (bytes != BytesAre::Right) return Step::Miss;
  if (m_cache.options.verify == Verify::Once && block.isNewlyVerified()) m_cache.verified.insert(block);
  m_cache.metrics.add(Count::diskBytes, size);
  return learnFrom(block);
}

ReadOperation::Step ReadOperation::learnFrom(const OpenBlock& block) {
  ++m_result.hits;
  return learn(block.trailer().objectSize, block.metadata());
}

ReadOperation::Step ReadOperation::fromFlight(const Landing& landing, uint64_t offset,
                                              std::span<std::byte> out) {
  using Time = std::chrono::steady_clock::time_point;
  if (m_options.deadline == Time::max()) {
    landing.wait();
  } else if (landing.wait_until(m_options.deadline) != std::future_status::ready) {
    return fail(RM_CODE_LOCATION, ETIMEDOUT, "another thread is still fetching");
  }
  const std::shared_ptr<const Landed>& landed = landing.get();
  if (landed->isOnDisk) return Step::Miss;
  m_cache.metrics.add(Count::joined);
  ++m_result.joined;
  if (landed->error.IsError()) {
    m_result.error = landed->error;
    return Step::Failed;
  }
  const uint64_t from = offset % blockSize();
  m_got = from >= landed->payload.size() ? 0 : std::min<uint64_t>(out.size(), landed->payload.size() - from);
  if (m_got > 0) std::memcpy(out.data(), landed->payload.data() + from, m_got);
  return learn(landed->objectSize, landed->metadata);
}

void ReadOperation::dropBroken(const BlockId& id, Count reason) {
  if (m_cache.store.isStaged(id)) {  // the only copy there is: it stays for whoever can save it
    m_mayStore = false;
    return;
  }
  m_cache.metrics.add(reason);
  if (reason == Count::damagedBlocks) {
    ++m_result.damaged;
    DC_LOG(LogLevel::Error, "Error: block %u of [%.*s] is damaged and dropped", id.number,
           static_cast<int>(m_key.size()), m_key.data());
  }
  m_cache.store.drop(id);
}

bool ReadOperation::isExpired(const OpenBlock& block) const {
  const auto maxAge = m_cache.options.maxAge.count();
  if (maxAge == 0) return false;
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return now.tv_sec - static_cast<int64_t>(block.trailer().madeAt) > maxAge;
}

ReadOperation::Step ReadOperation::learn(uint64_t objectSize,
                                         const std::shared_ptr<const Metadata>& metadata) {
  if (m_knowsSize && objectSize != m_result.objectSize) {
    return fail(RM_CODE_LOCATION, ESTALE, "its size changed under one version");
  }
  m_knowsSize = true;
  m_result.objectSize = objectSize;
  m_result.metadata = metadata;
  return Step::Done;
}

ReadOperation::Step ReadOperation::fail(const RMCodeLocation& where, int errNo, const char* what) {
  m_result.error = keyError(where, errNo, m_key, what);
  return Step::Failed;
}

}  // namespace ObjectStore
