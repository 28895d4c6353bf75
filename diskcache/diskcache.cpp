// The life of an engine: construction, init, clearCache, destruction; and the entry points of its contexts,
// volumes and open segments.
#include "diskcache/diskcache.h"

#include <cerrno>
#include <optional>

#include "diskcache/diskcachePaths.h"
#include "diskcache/diskcacheScan.h"
#include "diskcache/diskcacheState.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr uint64_t MIN_LRU_ENTRIES = 5;

}  // namespace

DiskCache::DiskCache(PersistentVolumes persistent) : m_state(std::make_unique<DiskCacheState>(persistent)) {}

// Threads end while every member is still alive.
DiskCache::~DiskCache() {
  m_state->migrator.terminate();
  m_state->pruner.shutdown();
}

CZuError DiskCache::init(const std::string& rootDir, const std::vector<std::string>& volumeDirs, int highWM,
                         int lowWM, int alarmWM, uint64_t maxLruEntries, MigrationCB migrationCallback,
                         PruningMode mode) try {
  DC_LOG(LogLevel::Setup, "watermarks=[%d/%d/%d] maxLruEntries=[%lu]", highWM, lowWM, alarmWM, maxLruEntries);
  m_state->settings.rootDir = rootDir;
  m_state->settings.pruningMode = mode;
  m_state->space.setWatermarks(highWM, lowWM, alarmWM);

  if (const int rc = createDir(rootDir); rc != 0) {
    return DC_FAIL(LogLevel::Error, rc, "Error: Can't create [%s] (%d)", rootDir.c_str(), rc);
  }
  m_state->isRootShared = m_state->rootLock.take(rootDir) == EWOULDBLOCK;
  if (m_state->isRootShared) {
    DC_LOG(LogLevel::Error, "Error: another engine uses the root directory [%s]", rootDir.c_str());
  }
  if (const int rc = m_state->volumes.initVolumes(volumeDirs); rc != 0) {
    return DC_FAIL(LogLevel::Error, rc, "Error: Can't init volumes (%d)", rc);
  }
  if (mode == PruningMode::Random) {
    if (const int rc = m_state->pruner.init(); rc != 0) {
      return DC_FAIL(LogLevel::Error, rc, "Error: Can't init pruner (%d)", rc);
    }
  }
  if (maxLruEntries < MIN_LRU_ENTRIES) {
    DC_LOG(LogLevel::Setup, "maxLruEntries set too low, setting to 5");
    maxLruEntries = MIN_LRU_ENTRIES;
  }
  m_state->lru.init(maxLruEntries);
  if (mode == PruningMode::Lru) {
    uint64_t files = 0;
    if (const CZuError error = scanSegmentsIntoLru(m_state->lru, m_state->volumes, files); error.IsError()) {
      return pushAndLog(error, RM_CODE_LOCATION, "Error: Can't scan segments");
    }
    m_state->space.filesFound(files);
  }
  if (const int rc = m_state->migrator.init(migrationCallback); rc != 0) {
    DC_LOG(LogLevel::Error, "Error: Can't init migrator (%d)", rc);
    return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, rc);  // counted by the migrator
  }
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

CZuError DiskCache::clearCache() try {
  DC_LOG(LogLevel::Notice, "cache: clearing cache");
  // A copy that is being made must not bring back what is cleared.
  const DiskCacheMigrator::Pause pause(m_state->migrator);
  CZuError error = m_state->volumes.clearCache();
  if (error.IsError()) m_state->space.filesLost();
  return error;
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

CZuError DiskCache::registerContext(DiskCacheContext& ctx) try {
  DC_LOG(LogLevel::Setup, "registering context: [%s]", ctx.dir.c_str());
  const std::optional<VolIndex> volume = m_state->volumes.onlyVolume();  // first: it may run out of memory
  const auto refCount = static_cast<int>(m_state->contexts.add(ctx));
  if (refCount == 1) {
    DC_LOG(LogLevel::Setup, "ctxt [%s] refCount [%d]", ctx.dir.c_str(), refCount);
  } else {  // the first registration's callback stays: this is meant
    DC_LOG(LogLevel::Info, "Info: dir [%s] already registered. refCount [%d]", ctx.dir.c_str(), refCount);
  }
  if (volume) {
    ctx.volume = *volume;
    DC_LOG(LogLevel::Setup, "assigning volume %d", ctx.volume);
  }
  ctx.registered = true;
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

CZuError DiskCache::unregisterContext(DiskCacheContext& ctx) try {
  DC_LOG(LogLevel::Setup, "unregistering context: [%s]", ctx.dir.c_str());
  uint32_t left = 0;
  if (!m_state->contexts.remove(ctx, left)) {
    return DC_FAIL(LogLevel::Error, ENOENT, "Error: dir [%s] is not registered", ctx.dir.c_str());
  }
  DC_LOG(LogLevel::Setup, "ctxt [%s] refCount [%d]", ctx.dir.c_str(), static_cast<int>(left));
  ctx.registered = false;
  if (left == 0) m_state->contexts.waitForCallbacks(ctx.dir);
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

CZuError DiskCache::findPrunerCallback(const std::string& dir, PrunerCallback& out) try {
  return m_state->contexts.find(dir, out);
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

bool DiskCache::isRootShared() const { return m_state->isRootShared; }

int DiskCache::addVolume(const std::string& dir) { return countedResult(m_state->volumes.addVolume(dir)); }
int DiskCache::removeVolume(const std::string& dir) {
  return countedResult(m_state->volumes.removeVolume(dir));
}
int DiskCache::removeAllVolumes() { return m_state->volumes.removeAllVolumes(); }
int DiskCache::disableNewSegments(const std::string& dir) {
  return countedResult(m_state->volumes.disableNewSegments(dir));
}
int DiskCache::enableNewSegments(const std::string& dir) {
  return countedResult(m_state->volumes.enableNewSegments(dir));
}
void DiskCache::getVolumeStats(std::vector<Volume>& out) { m_state->volumes.getVolumeStats(out); }
int DiskCache::refreshCacheUtilizationData() {
  return countedResult(m_state->volumes.refreshCacheUtilizationData());
}

int DiskCache::migrate(VolIndex vol, const std::string& source, const std::string& destination) {
  return m_state->migrator.migrate(vol, source, destination);
}

unsigned DiskCache::openSegment(guid_t guid) {
  return m_state->openTable.openSegment(guid, RM_CODE_LOCATION);
}

void DiskCache::closeSegment(unsigned desc) { m_state->openTable.closeSegment(desc, RM_CODE_LOCATION); }

bool DiskCache::IsSegmentOpened(guid_t guid) {
  return m_state->openTable.isSegmentOpened(guid, RM_CODE_LOCATION);
}

CZuError DiskCache::openSegment(SegmentHandle& handle, guid_t guid) {
  return m_state->openTable.openSegment(handle, guid, RM_CODE_LOCATION);
}

void DiskCache::closeSegment(SegmentHandle handle) { m_state->openTable.closeSegment(handle); }

OpenSegmentInfo* DiskCache::segInfoFromHandle(const SegmentHandle& handle) { return handle->second; }

bool DiskCache::checkAccess(const DiskCacheContext& /*ctx*/, const guid_t& /*guid*/,
                            const unsigned int& /*mode*/, void* const& /*arg*/) {
  return true;
}

std::string DiskCache::guid2dir(const guid_t& guid) {
  std::string dir;
  appendGuidDir(dir, guid);
  return dir;
}

std::string DiskCache::guid2path(const guid_t& guid, VolIndex volume, const std::string& dir) {
  return m_state->migrator.guidToPath(guid, volume, dir);
}

}  // namespace ObjectStore
