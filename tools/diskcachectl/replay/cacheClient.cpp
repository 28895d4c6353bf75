#include "replay/cacheClient.h"

#include <fmt/core.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <system_error>

#include "common/failure.h"
#include "replay/cacheSession.h"
#include "support/config.h"

namespace diskcachectl {

using namespace ObjectStore;
namespace fs = std::filesystem;

namespace {

constexpr const char* CONTEXT_DIR = "replay";
// The pruner removes directories that it finds empty, also one that was just made for a new segment.
constexpr int CREATE_ATTEMPTS = 10;

// Names of the directories on top of the volumes.
std::set<std::string> topDirectories(const std::vector<std::string>& volumes) {
  std::set<std::string> names;
  for (const std::string& volume : volumes) {
    std::error_code error;
    fs::directory_iterator entry(volume, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
      names.insert(entry->path().filename());
    }
  }
  return names;
}

}  // namespace

CacheClient::CacheClient(const CacheSettings& settings)
    : m_volumeDirs(settings.volumes), m_cache(PersistentVolumes::Yes) {
  for (const std::string& dir : m_volumeDirs) {
    std::error_code error;  // the cache's own would not name the directory
    if (!fs::create_directories(dir, error) && error) {
      throw Failure(ExitStatus::Error, fmt::format("{}: {}", dir, error.message()));
    }
  }
  m_isInherited = topDirectories(m_volumeDirs).contains(CONTEXT_DIR);
  const CZuError error = m_cache.init(settings.root, m_volumeDirs, NEVER, NEVER, NEVER, settings.maxEntries,
                                      VolumeMove::CALLBACK, settings.mode);
  if (error.IsError()) fail(settings.root, error);

  // The volume file may know further volumes, of which this run uses none.
  std::vector<Volume> volumes;
  m_cache.getVolumeStats(volumes);
  for (const Volume& volume : volumes) {
    if (volume.allow) m_volumes.push_back(volume.index);
  }
  if (m_volumes.empty()) throw Failure(ExitStatus::Error, settings.root + ": the cache has no volume");
  if (settings.budget) setWatermarks(*settings.budget);
  registerContexts(settings.mode == PruningMode::Lru);
}

// The start-up scan enters every segment under the name of the first directory on its volume, whichever that
// is, so in mode lru the client answers for all of them.
void CacheClient::registerContexts(bool isLru) {
  std::set<std::string> dirs = {CONTEXT_DIR};
  if (isLru) dirs.merge(topDirectories(m_volumeDirs));
  for (const std::string& dir : dirs) {
    DiskCacheContext context;
    context.dir = dir;
    context.prunerCallback = [this](const std::string&, const std::string&, const std::string& id) {
      return giveUp(id);
    };
    const CZuError error = m_cache.registerContext(context);
    if (error.IsError()) fail(dir, error);
  }
}

void CacheClient::setWatermarks(uint64_t budget) {
  const uint64_t used = std::stoull(status().at("DC.UsedCache"));
  const auto set = [used](const char* name, uint64_t bytes) {
    ConfigStore::set(CONFIG_SECTION, name, std::to_string(used + bytes));
  };
  set("DiskCacheLowWMBytes", budget / 10 * 7 + budget % 10 * 7 / 10);
  set("DiskCacheHighWMBytes", budget / 10 * 9 + budget % 10 * 9 / 10);
  set("DiskCacheAlarmWMBytes", budget);
}

DiskCacheContext CacheClient::contextOn(VolIndex volume) const {
  DiskCacheContext context;
  context.dir = CONTEXT_DIR;
  context.volume = volume;
  context.registered = true;
  return context;
}

// What is known of a segment; volumes that were not empty at the start are searched for one never seen.
SegmentMap::Known CacheClient::locate(const std::string& id) {
  const SegmentMap::Known known = m_segments.find(id);
  if (known || !m_isInherited) return known;
  for (const VolIndex volume : m_volumes) {
    if (m_cache.doesSegmentExist(contextOn(volume), id)) return m_segments.adopt(id, volume);
  }
  return known;
}

CacheClient::Answer CacheClient::read(const std::string& id, uint32_t size,
                                      std::vector<unsigned char>& buffer) {
  const SegmentMap::Known known = locate(id);
  if (known && known->isClaimed()) return {Found::InWork, known};

  // Room for one byte more tells a longer object from one of this size.
  if (buffer.size() <= size) buffer.resize(size_t{size} + 1);
  std::vector<Section> sections(1);
  Section& section = sections.front();
  section.data = buffer.data();
  section.bufferSize = uint64_t{size} + 1;
  const CZuError error = m_cache.readSections(contextOn(known ? known->volume : m_volumes.front()), id,
                                              sections, known.has_value());
  if (!error.IsError() && section.len == size) return {Found::Hit, known};
  if (RMErrorUtil::IsErrNo(error, ENOENT)) return {Found::Nothing, known};
  // What was read may be half of what another thread is writing.
  if (m_segments.find(id) != known) return {Found::InWork, known};
  if (!error.IsError()) return {Found::OtherSize, known};
  switch (RMErrorUtil::GetErrNo(error)) {
    case 0:
    case EINVAL:
    case EIO: return {Found::Damage, known};
    case ENOSPC: return {Found::InWork, known};  // the recency list could not give up its last entry
    default: fail(id, error);
  }
}

CacheClient::Stored CacheClient::write(const std::string& id, const SegmentMap::Known& known,
                                       std::vector<unsigned char>& bytes) {
  if (!m_segments.claim(id, known)) return Stored::InWork;
  if (known) {
    const CZuError error = remove(id, known->volume);
    if (error.IsError()) fail(id, error);
  }
  VolIndex volume = 0;
  const Stored stored = create(id, bytes, volume);
  if (stored == Stored::Yes) {
    if (m_segments.settle(id, volume)) return stored;
    const CZuError error = remove(id, volume);
    if (error.IsError()) fail(id, error);
    ++m_pruned;
  }
  m_segments.forget(id);
  return stored;
}

CacheClient::Stored CacheClient::create(const std::string& id, std::vector<unsigned char>& bytes,
                                        VolIndex& volume) {
  std::vector<Section> sections(1);
  Section& section = sections.front();
  section.len = section.bufferSize = bytes.size();
  section.data = bytes.data();
  DiskCacheContext context = contextOn(0);
  CZuError error;
  for (int attempt = 0; attempt < CREATE_ATTEMPTS; ++attempt) {
    error = m_cache.createSegment(context, id, sections, false, false, false);
    if (!RMErrorUtil::IsErrNo(error, ENOENT)) break;
  }
  volume = context.volume;
  if (!error.IsError()) return Stored::Yes;
  // Another process shares the volumes.
  if (RMErrorUtil::IsErrNo(error, EEXIST)) return Stored::InWork;
  if (!RMErrorUtil::IsErrNo(error, ENOSPC)) fail(id, error);
  if (volume != 0) {
    const CZuError leftover = remove(id, volume);
    if (leftover.IsError()) fail(id, leftover);
  }
  return Stored::NoRoom;
}

CZuError CacheClient::remove(const std::string& id, VolIndex volume) {
  return m_cache.deleteSegment(contextOn(volume), id, false, false, Recycle::No);
}

// Called back by the cache. A segment that is being written goes as soon as that is done; one that is nowhere
// only leaves the recency list.
bool CacheClient::giveUp(const std::string& id) {
  SegmentMap::Known known = locate(id);
  while (known && !m_segments.claim(id, known)) {
    if (m_segments.doom(id)) return true;
    known = m_segments.find(id);
  }
  if (!known) return true;
  const bool isGone = !remove(id, known->volume).IsError();
  if (isGone) {
    m_segments.forget(id);
    ++m_pruned;
  } else {
    m_segments.settle(id, known->volume);
  }
  return isGone;
}

void CacheClient::startMove(const std::string& destination) {
  std::vector<Volume> volumes;
  m_cache.getVolumeStats(volumes);
  for (const Volume& volume : volumes) {
    if (volume.index == m_volumes.front()) m_move.emplace(m_cache, volume, destination);
  }
  m_move->start();
}

void CacheClient::finishMove() { m_move->finish(); }

std::map<std::string, std::string> CacheClient::status() {
  std::map<std::string, std::string> values;
  m_cache.getStatus(values);
  return values;
}

std::map<std::string, std::string> CacheClient::counters() {
  std::map<std::string, std::string> values;
  m_cache.getCounters(values);
  return values;
}

std::string CacheClient::pathOf(const std::string& id) {
  const SegmentMap::Known known = m_segments.find(id);
  return m_cache.guid2path(id, known ? known->volume : m_volumes.front(), CONTEXT_DIR);
}

}  // namespace diskcachectl
