#include "serve/blockFetches.h"

#include <cerrno>
#include <cstring>

#include "origin/objectFetch.h"
#include "support/log.h"

namespace diskcached {

using ObjectStore::KxCriticalSectionLock;
using ObjectStore::OriginAnswer;
using ObjectStore::OriginRequest;
using ObjectStore::RMErrorUtil;

namespace {

constexpr uint64_t WAKE_EVERY = 64 << 10;

std::string nameOf(const std::string& key, const ObjectInfo& info, uint64_t number) {
  return std::to_string(number) + '\n' + info.version + '\n' + key;
}

}  // namespace

asio::awaitable<BlockFetch::Progress> BlockFetch::moreThan(uint64_t bytes) {
  co_return co_await m_progress.when(
      [bytes](const Progress& now) { return now.isDone || now.arrived > bytes; });
}

void BlockFetch::append(std::span<const std::byte> bytes) {
  std::memcpy(m_bytes.get() + m_arrived, bytes.data(), bytes.size());
  m_arrived += bytes.size();
  m_progress.change([this](Progress& now) {
    now.isFromOrigin = true;
    if (m_arrived < m_size && m_arrived - now.arrived < WAKE_EVERY) return false;
    now.arrived = m_arrived;
    return true;
  });
}

void BlockFetch::finish(int errNo, bool isFromOrigin) {
  m_progress.change([&](Progress& now) {
    now.arrived = m_arrived;
    now.isDone = true;
    now.isFromOrigin = now.isFromOrigin || isFromOrigin;
    now.errNo = errNo;
    return true;
  });
}

BlockFetches::Taken BlockFetches::take(const std::string& key, const ObjectInfoPointer& info,
                                       uint64_t number) {
  const std::string name = nameOf(key, *info, number);
  std::shared_ptr<BlockFetch> fetch;
  std::function<void()> work;
  {
    const KxCriticalSectionLock lock(&m_lock);
    if (const auto found = m_fetches.find(name); found != m_fetches.end()) return {found->second, false};
    const uint64_t size = ObjectStore::payloadSizeOf(info->size, m_blockSize, number);
    auto share = m_memory.take(2 * size);  // the cache has a copy of its own
    if (!share) throw Overloaded();
    fetch = std::make_shared<BlockFetch>(size, std::move(share));
    work = [this, fetch, key, info, number, name] {  // made before anybody can wait for it
      try {
        fill(*fetch, key, *info, number * m_blockSize);
      } catch (const std::exception&) {
        fetch->finish(ENOMEM);
      }
      forget(name);
    };
    m_fetches.emplace(name, fetch);
  }
  if (!m_workers.post(std::move(work))) {
    forget(name);
    fetch->finish(EAGAIN);
    throw Overloaded();
  }
  return {fetch, true};
}

void BlockFetches::forget(const std::string& name) {
  const KxCriticalSectionLock lock(&m_lock);
  m_fetches.erase(name);
}

// A block of the store's is handed on as it comes; one that is on disk is read.
void BlockFetches::fill(BlockFetch& fetch, const std::string& key, const ObjectInfo& info, uint64_t from) {
  int errNo = 0;
  bool isHandedOn = true;
  const auto origin = [&](OriginRequest& request) -> OriginAnswer {
    if (info.isStaged)  // the store has another object, if any; or it was replaced meanwhile, or uploaded
      return {.error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ESTALE, "what was staged is not to be had")};
    const auto to = request.to.first(std::min<uint64_t>(request.to.size(), info.size - request.from));
    const FetchOutcome outcome =
        fetchPart(m_origin, key, info, request.from, to, [&](std::span<const std::byte> bytes) {
          const uint64_t room = fetch.m_size - fetch.m_arrived;
          if (isHandedOn && room > 0) fetch.append(bytes.first(std::min<uint64_t>(bytes.size(), room)));
        });
    if (outcome.errNo == 0) return {.error = {}, .objectSize = info.size, .metadata = info.headers};
    return {.error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, outcome.errNo, "%s", outcome.error.c_str())};
  };
  ObjectStore::ReadResult result = m_cache.read(key, info.version, from, {}, origin);
  if (result && fetch.m_arrived == 0) {
    // One that turns out to be damaged comes whole: until then the cache writes to its place.
    isHandedOn = false;
    result = m_cache.read(key, info.version, from, {fetch.m_bytes.get(), fetch.m_size}, origin);
    if (result) fetch.m_arrived = result.bytes;
  }
  if (fetch.m_arrived < fetch.m_size) {
    errNo = result ? ESTALE : std::max(RMErrorUtil::GetErrNo(result.error), 1);
    DC_LOG(ObjectStore::LogLevel::Notice, "[%s] can't be served: %s", key.c_str(),
           result.error.AsString().c_str());
  }
  fetch.finish(errNo, result.misses > 0);
}

}  // namespace diskcached
