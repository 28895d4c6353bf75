#include "diskcache/diskcachePruner.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <optional>
#include <utility>

#include "diskcache/diskcachePaths.h"
#include "support/config.h"
#include "support/directory.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr const char* TIMEOUT_KEY = "DiskCachePrunerTimeout";  // minutes
constexpr unsigned long DEFAULT_TIMEOUT = 5;
constexpr unsigned long MAX_TIMEOUT = 7200;  // five days

int readTimeout(unsigned long& minutes) {
  minutes = getRegistryValue<unsigned long>(TIMEOUT_KEY, DEFAULT_TIMEOUT, 0,
                                            std::numeric_limits<unsigned long>::max());
  minutes = minutes == 0 ? DEFAULT_TIMEOUT : std::min(minutes, MAX_TIMEOUT);
  return 0;
}

// Every order is as likely: each item changes places with one of those up to itself.
template <typename T>
void shuffle(std::vector<T>& items) {
  for (size_t i = 1; i < items.size(); ++i) {
    std::swap(items[i], items[static_cast<size_t>(std::rand()) % (i + 1)]);
  }
}

}  // namespace

int DiskCachePruner::init() {
  m_startTime = std::time(nullptr);
  m_stop = false;
  if (m_thread.createThread(threadEntry, this)) return 0;
  DC_LOG(LogLevel::Error, "Error: Can't create pruner thread: %s", m_thread.getLastError().c_str());
  return EINVAL;
}

void DiskCachePruner::shutdown() {
  if (!m_thread.threadInProgress()) return;
  m_stop = true;
  m_space.wakePruner();
  m_thread.joinThread(KXThread::WAIT_FOREVER, nullptr);
}

void* DiskCachePruner::threadEntry(void* pruner) {
  static_cast<DiskCachePruner*>(pruner)->run(RM_CODE_LOCATION);
  return nullptr;
}

void DiskCachePruner::run(const RMCodeLocation& where) {
  DC_LOG_AT(where, LogLevel::Info, "cache: entering pruner thread");
  while (!m_stop) {
    unsigned long minutes = DEFAULT_TIMEOUT;
    guarded(where, [&] { return readTimeout(minutes); });
    DC_LOG_AT(where, LogLevel::NoSpace, "Pruner Thread will wakeup in [%lu] minutes", minutes);
    m_space.waitForWakeup(minutes * 60000);
    if (m_stop) break;
    // Where memory runs out the next wake-up tries again.
    guarded(where, [&] { return makeRoom(where); });
  }
  DC_LOG_AT(where, LogLevel::Info, "cache: exiting pruner thread");
}

int DiskCachePruner::makeRoom(const RMCodeLocation& where) {
  if (const int rc = m_volumes.refreshCacheUtilizationData(); rc != 0) {
    DC_LOG_AT(where, LogLevel::Error, "Error %d getting current cache utilization", rc);
  }
  if (!m_space.isOverHighWatermark()) return 0;
  PrunerError result = PrunerError::GoOn;
  while (result == PrunerError::GoOn) {
    result = deletePrunableSegments();
    if (result == PrunerError::Exhausted) DC_LOG_AT(where, LogLevel::Segment, "no more pruning candidates");
    if (result == PrunerError::Done) DC_LOG_AT(where, LogLevel::Segment, "pruning success");
  }
  return 0;
}

PrunerError DiskCachePruner::deletePrunableSegments() {
  DC_LOG(LogLevel::Segment, "deleting prunable segments");
  std::vector<VolIndex> volumes;
  for (const auto& [index, dir] : m_volumes.directories()) volumes.push_back(index);
  shuffle(volumes);
  for (const VolIndex volume : volumes) {
    if (deletePrunableSegsInVol(volume) == PrunerError::Done) return PrunerError::Done;
  }
  return PrunerError::Exhausted;
}

PrunerError DiskCachePruner::deletePrunableSegsInVol(VolIndex volume) {
  DC_LOG(LogLevel::Segment, "pruning in vol %d", volume);
  const std::optional<std::string> root = m_volumes.findDirectory(volume);
  if (!root) {
    DC_LOG(LogLevel::Error, "Error: can't find volume %d", volume);
    return PrunerError::BranchFailed;
  }
  if (root->empty()) return PrunerError::Exhausted;  // below it lies the process's working directory
  auto contexts = m_contexts.callbacks();
  shuffle(contexts);
  for (const auto& [dir, callback] : contexts) {
    if (deletePrunableSegsInDir(join(*root, dir, '/'), dir, callback) == PrunerError::Done)
      return PrunerError::Done;
  }
  return PrunerError::Exhausted;
}

// What stays the same all the way down one registered directory.
struct DiskCachePruner::Walk {
  const std::string& dir;
  const PrunerCallback& callback;
  RMCodeLocation where;
};

PrunerError DiskCachePruner::deletePrunableSegsInDir(const std::string& path, const std::string& dir,
                                                     const PrunerCallback& callback) {
  Directory entries(path);
  return pruneEntries(entries, path, DiskCacheContexts::relativeDir(dir), {dir, callback, RM_CODE_LOCATION});
}

PrunerError DiskCachePruner::pruneEntries(Directory& entries, const std::string& path,
                                          const std::string& inVolume, const Walk& walk) {
  if (m_contexts.isNonPrunable(inVolume)) return PrunerError::GoOn;
  DC_LOG_AT(walk.where, LogLevel::Segment, "pruning in [%s] [%s]", path.c_str(), walk.dir.c_str());
  if (entries.error() != 0) {
    DC_LOG_AT(walk.where, LogLevel::Segment, "can't open directory %s (%d)", path.c_str(), entries.error());
    return PrunerError::GoOn;
  }
  std::string full = join(path, "", '/');
  const size_t front = full.size();
  std::string name;  // outlives the turn, so that its memory serves every entry
  while (entries.next()) {
    name = entries.name();
    full.resize(front);
    full += name;
    struct stat status {};
    if (const int error = entries.status(status); error != 0) {
      DC_LOG_AT(walk.where, LogLevel::Error, "Error: can't stat %s (%d)", full.c_str(), error);
      return PrunerError::BranchFailed;
    }
    PrunerError result = PrunerError::GoOn;
    if (S_ISDIR(status.st_mode)) {
      Directory below(entries, entries.name());
      result = pruneEntries(below, full, join(inVolume, name, '/'), walk);
    } else {
      result = pruneSegment(full, name, walk.dir, walk.callback);
    }
    if (result == PrunerError::Done || result == PrunerError::Exhausted || m_stop) return result;
  }
  entries.close();
  if (rmdir(path.c_str()) == 0)
    DC_LOG_AT(walk.where, LogLevel::Segment, "removed directory [%s]", path.c_str());
  return PrunerError::GoOn;
}

// Open as a segment, or the unfinished file of one that is: taking that would make a replacement fail.
bool DiskCachePruner::isInUse(const guid_t& name, const RMCodeLocation& where) {
  if (m_openTable.isSegmentOpened(name, where)) return true;
  for (const std::string_view suffix : {REPLACEMENT_SUFFIX, RMFile::COPY_SUFFIX}) {
    if (name.ends_with(suffix) &&
        m_openTable.isSegmentOpened(name.substr(0, name.size() - suffix.size()), where))
      return true;
  }
  return false;
}

PrunerError DiskCachePruner::pruneSegment(const std::string& path, const std::string& guid,
                                          const std::string& dir, const PrunerCallback& callback) {
  DC_LOG(LogLevel::Segment, "pruning [%s] [%s] [%s]", path.c_str(), guid.c_str(), dir.c_str());
  if (m_stop) return PrunerError::Done;
  if (!m_space.isOverLowWatermark()) {
    DC_LOG(LogLevel::Segment, "reached low watermark");
    return PrunerError::Done;
  }
  if (isInUse(guid, RM_CODE_LOCATION)) {
    DC_LOG(LogLevel::Segment, "File is opened. cannot prune [%s]", path.c_str());
    return PrunerError::GoOn;
  }
  if (m_lru.isInLru(guid, false)) {
    DC_LOG(LogLevel::Segment, "File is in LRU. cannot prune [%s]", path.c_str());
    return PrunerError::GoOn;
  }
  DC_LOG(LogLevel::Segment, "pruning [%s] [%s]", guid.c_str(), path.c_str());
  try {
    if (callback) callback(dir, path, guid);  // its answer does not matter: the watermark tells
  } catch (...) {
    DC_LOG(LogLevel::Error, "Error: pruning callback of [%s] threw", dir.c_str());
  }
  m_space.stats().numPruned++;  // also without a callback
  return PrunerError::GoOn;
}

int getDirList(std::vector<std::string>& out, const std::string& dir) {
  Directory entries(dir);
  if (entries.error() != 0) {
    DC_LOG(LogLevel::Error, "Error: can't open directory %s (%d)", dir.c_str(), entries.error());
    return entries.error();
  }
  while (entries.next()) {
    const std::string name = entries.name();
    if (name == "noprune") continue;
    struct stat status {};
    if (const int error = entries.status(status); error != 0) {
      DC_LOG(LogLevel::Error, "Error: can't stat %s (%d)", join(dir, name, '/').c_str(), error);
      return error;
    }
    if (S_ISDIR(status.st_mode)) out.push_back(name);
  }
  return 0;
}

void dumpList(const std::list<std::string>& list) {
  for (const std::string& text : list) std::cout << text << std::endl;
}

}  // namespace ObjectStore
