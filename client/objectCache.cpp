// The life of an ObjectCache, and its operations' way to those who do the work.
#include "client/objectCache.h"

#include <sys/resource.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <new>
#include <shared_mutex>

#include "client/cacheState.h"
#include "client/readOperation.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr size_t MOST_HOT_BLOCKS = 4096;
constexpr uint64_t LEAST_MAX_BLOCKS = 5;  // the engine takes no less

size_t defaultHotBlocks() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  return std::min<size_t>(limit.rlim_cur / 4, MOST_HOT_BLOCKS);
}

// One spelling for one directory, so that it is known again.
std::string absoluteDir(const std::string& dir) {
  std::string path = std::filesystem::absolute(dir).lexically_normal();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

CZuError checkOptions(const ObjectCacheOptions& options) {
  const char* wrong = nullptr;
  if (options.root.empty()) wrong = "root";
  if (options.volumes.empty() || std::count(options.volumes.begin(), options.volumes.end(), "") > 0)
    wrong = "volumes";
  if (!std::has_single_bit(options.blockSize) || options.blockSize < MIN_BLOCK_SIZE ||
      options.blockSize > MAX_BLOCK_SIZE)
    wrong = "blockSize";
  if (options.maxBlocks > 0 && options.maxBlocks < LEAST_MAX_BLOCKS) wrong = "maxBlocks";
  if (options.maxHotBytes > 0 && options.maxHotBytes < HotTable::LEAST_BYTES) wrong = "maxHotBytes";
  return wrong ? RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, EINVAL, "ObjectCacheOptions::%s makes no sense",
                                         wrong)
               : CZuError();
}

}  // namespace

struct ObjectCache::State {
  ObjectCacheOptions options;
  Metrics metrics;
  VolumeMarkers markers;
  size_t absentVolumes = 0;
  std::unique_ptr<OpenCache> cache;
  std::shared_mutex moving;  // held alone while a volume is moved, shared while something is staged

  CZuError open();
};

ObjectCache::ObjectCache(ObjectCacheOptions options) : m_state(std::make_unique<State>()) {
  m_state->options = std::move(options);
}
ObjectCache::~ObjectCache() { close(); }

CZuError ObjectCache::State::open() {
  if (const CZuError error = checkOptions(options); error.IsError()) return error;
  options.root = absoluteDir(options.root);
  if (options.hotBlocks == 0) options.hotBlocks = defaultHotBlocks();
  if (const CZuError error = markers.open(options.root); error.IsError()) return error;
  std::vector<std::string> present;
  for (std::string& volume : options.volumes) {
    volume = absoluteDir(volume);
    bool isPresent = false;
    if (const CZuError error = markers.claim(volume, options.replaceVolumes, isPresent); error.IsError())
      return error;
    if (isPresent) present.push_back(volume);
  }
  absentVolumes = options.volumes.size() - present.size();
  cache = std::make_unique<OpenCache>(options, metrics, markers);
  return cache->start(present);
}

CZuError ObjectCache::open() {
  if (m_state->cache) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, EALREADY, "the cache is open");
  CZuError error;
  try {
    error = m_state->open();
  } catch (const std::bad_alloc&) {
    error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  } catch (const std::exception& exception) {
    error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, EIO, "%s", exception.what());
  }
  if (error.IsError()) close();
  return error;
}

void ObjectCache::close() {
  m_state->cache.reset();
  m_state->markers.close();
}

ReadResult ObjectCache::read(std::string_view key, std::string_view version, uint64_t offset,
                             std::span<std::byte> out, Origin origin, const ReadOptions& options) try {
  if (!m_state->cache) return {.error = keyError(RM_CODE_LOCATION, EBADF, key, "the cache is not open")};
  ReadOperation operation(*m_state->cache, key, version, options);
  if (!Metrics::isSampled()) return operation.read(offset, out, origin);
  const Stopwatch watch;
  ReadResult result = operation.read(offset, out, origin);
  if (result.misses + result.joined == 0) m_state->metrics.hits.add(watch.elapsed());
  return result;
} catch (const std::bad_alloc&) {
  return {.error = keyError(RM_CODE_LOCATION, ENOMEM, key, "can't be read")};
}

ReadResult ObjectCache::describe(std::string_view key, std::string_view version) try {
  if (!m_state->cache) return {.error = keyError(RM_CODE_LOCATION, EBADF, key, "the cache is not open")};
  const ReadOptions options;
  return ReadOperation(*m_state->cache, key, version, options).describe();
} catch (const std::bad_alloc&) {
  return {.error = keyError(RM_CODE_LOCATION, ENOMEM, key, "can't be described")};
}

PinnedBlock ObjectCache::pin(std::string_view key, std::string_view version, uint64_t offset,
                             uint64_t length) try {
  if (!m_state->cache) return {.error = keyError(RM_CODE_LOCATION, EBADF, key, "the cache is not open")};
  const ReadOptions options;
  return ReadOperation(*m_state->cache, key, version, options).pin(offset, length);
} catch (const std::bad_alloc&) {
  return {.error = keyError(RM_CODE_LOCATION, ENOMEM, key, "can't be pinned")};
}

void ObjectCache::drop(std::string_view key, std::string_view version, uint64_t objectSize) {
  if (!m_state->cache) return;
  OpenCache& cache = *m_state->cache;
  const ObjectId object = objectIdOf(key, version);
  const uint64_t blockSize = cache.options.blockSize;
  for (uint64_t number = 0; number == 0 || number * blockSize < objectSize; ++number) {
    const BlockId id{object, static_cast<uint32_t>(number)};
    const auto flight = cache.flights.take(id);  // one on its way from the origin is dropped when it has come
    cache.store.drop(id);
  }
}

CZuError ObjectCache::stage(std::string_view key, std::string_view version, std::span<const std::byte> bytes,
                            const Metadata& metadata) try {
  if (!m_state->cache) return keyError(RM_CODE_LOCATION, EBADF, key, "the cache is not open");
  const std::shared_lock staging(m_state->moving, std::try_to_lock);
  if (!staging) return keyError(RM_CODE_LOCATION, EBUSY, key, "can't be staged while a volume is moved");
  return m_state->cache->writeBack.stage(key, version, bytes, metadata);
} catch (const std::bad_alloc&) {
  return keyError(RM_CODE_LOCATION, ENOMEM, key, "can't be staged");
}

CZuError ObjectCache::discardStaged(std::string_view key, std::string_view version) try {
  if (!m_state->cache) return keyError(RM_CODE_LOCATION, EBADF, key, "the cache is not open");
  return m_state->cache->writeBack.discard(key, version);
} catch (const std::bad_alloc&) {
  return keyError(RM_CODE_LOCATION, ENOMEM, key, "can't be given up");
}

std::vector<std::shared_ptr<const StagedObject>> ObjectCache::stagedObjects(
    std::optional<std::string_view> key) {
  if (!m_state->cache) return {};
  return m_state->cache->writeBack.list(key);
}

CZuError ObjectCache::flush(Upload upload, unsigned parallel) try {
  if (!m_state->cache) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, EBADF, "the cache is not open");
  return m_state->cache->writeBack.flush(std::move(upload), parallel);
} catch (const std::bad_alloc&) {
  return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
}

StagedStatus ObjectCache::staged() {
  return m_state->cache ? m_state->cache->writeBack.status() : StagedStatus();
}

bool ObjectCache::drained(std::chrono::steady_clock::time_point deadline) {
  return !m_state->cache || m_state->cache->writeBack.drained(deadline);
}

void ObjectCache::setMaxBytes(uint64_t bytes) {
  if (m_state->cache) m_state->cache->room.setBound(bytes);
}

CZuError ObjectCache::moveVolume(const std::string& volume, const std::string& destination) try {
  if (!m_state->cache) return keyError(RM_CODE_LOCATION, EBADF, volume, "the cache is not open");
  const std::unique_lock alone(m_state->moving, std::try_to_lock);
  if (!alone || m_state->cache->store.isAnythingStaged())
    return keyError(RM_CODE_LOCATION, EBUSY, volume, "something is staged, or another volume is moved");
  if (volume.empty() || destination.empty())
    return keyError(RM_CODE_LOCATION, EINVAL, volume, "needs a destination");
  auto& volumes = m_state->options.volumes;
  const std::string from = absoluteDir(volume), to = absoluteDir(destination);
  const auto moved = std::find(volumes.begin(), volumes.end(), from);
  std::string movedTo = to;  // while that may fail
  const CZuError error = m_state->cache->mover.run(from, to);
  if (!error.IsError() && moved != volumes.end()) moved->swap(movedTo);
  return error;
} catch (const std::exception&) {
  return keyError(RM_CODE_LOCATION, ENOMEM, volume, "can't be moved");
}

ObjectCacheMetrics ObjectCache::metrics() {
  ObjectCacheMetrics metrics;
  m_state->metrics.fill(metrics);
  metrics.absentVolumes = m_state->absentVolumes;
  if (!m_state->cache) return metrics;
  OpenCache& cache = *m_state->cache;
  metrics.usedBytes = cache.account.used();
  metrics.peakBytes = std::max(cache.account.peak(), metrics.usedBytes);
  const StagedStatus staged = cache.writeBack.status();
  metrics.stagedNow = staged.objects;
  metrics.stagedBytes = staged.bytes;
  metrics.hotBlocks = cache.hot.size();
  metrics.hotBytes = cache.hot.bytes();
  cache.engine->getStatus(metrics.engine);
  cache.engine->getCounters(metrics.engineCounters);
  return metrics;
}

void ObjectCache::renderMetrics(std::string& out) {
  renderPrometheus(metrics(), out);
  if (m_state->cache) m_state->cache->engine->renderMetrics(out);
}

}  // namespace ObjectStore
