#include "diskcache/segmentPlaces.h"

#include <optional>

#include "diskcache/diskcachePaths.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// Counts a move between two places of a segment, before and after it.
class AnnouncedMove {
 public:
  AnnouncedMove(std::atomic<uint64_t>& begun, std::atomic<uint64_t>& done) : m_done(done) { ++begun; }
  ~AnnouncedMove() { ++m_done; }
  AnnouncedMove(const AnnouncedMove&) = delete;
  AnnouncedMove& operator=(const AnnouncedMove&) = delete;

 private:
  std::atomic<uint64_t>& m_done;
};

}  // namespace

std::string SegmentPlaces::segmentPath(const guid_t& guid, VolIndex volume, const std::string& dir) {
  std::string path = m_migrator.rootFor(guid, volume, dir);
  if (!path.empty()) appendSegmentPath(path, dir, guid);
  return path;
}

// A copy that a migration has taken to the other side between two looks, and that went where it came from, seems to be
// on neither: then it is looked for again.
bool SegmentPlaces::isCopyThere(std::string& path, const guid_t& guid, VolIndex volume,
                                const std::string& dir) {
  constexpr int MAX_LOOKS = 16;
  for (int looks = 1;; ++looks) {
    const uint32_t generation = m_migrator.generation();
    std::optional<bool> seen;
    path = m_migrator.rootFor(guid, volume, dir, &seen);
    if (!path.empty()) appendSegmentPath(path, dir, guid);
    const bool isThere = seen ? *seen : doesFileExist(path);
    if (isThere || looks == MAX_LOOKS || m_migrator.generation() == generation) return isThere;
  }
}

// Only the flag is asked, not whether nonprunableDir is empty: this is meant.
std::string SegmentPlaces::pathInUse(const DiskCacheContext& ctx, const guid_t& guid) {
  if (ctx.useNonPrunableDir) {
    std::string path;
    if (isCopyThere(path, guid, ctx.volume, ctx.nonprunableDir)) return path;
  }
  return segmentPath(guid, ctx.volume, ctx.dir);
}

bool SegmentPlaces::isInEitherPlace(const DiskCacheContext& ctx, const guid_t& guid) {
  for (int round = 0; round < 2; ++round) {
    for (const std::string* dir : {&ctx.nonprunableDir, &ctx.dir}) {
      std::string path;
      if (isCopyThere(path, guid, ctx.volume, *dir)) return true;
    }
  }
  return false;
}

CZuError SegmentPlaces::claimPath(std::string& path, const guid_t& guid, VolIndex volume,
                                  const std::string& dir, const RMCodeLocation& where) {
  if (const int rc = m_migrator.claim(path, guid, volume, dir); rc != 0)
    return RMErrorUtil::ErrorErrNo(where, countedResult(rc));
  if (!path.empty()) appendSegmentPath(path, dir, guid);
  return {};
}

// The move is announced to the readers, who take no lock and look into one place after the other.
CZuError SegmentPlaces::moveSegment(const DiskCacheContext& ctx, const guid_t& guid, const std::string& dir,
                                    const std::string& source, const std::string& target,
                                    const RMCodeLocation& where) {
  const AnnouncedMove announced(m_movesBegun, m_movesDone);
  if (const int rc = m_migrator.dropSourceCopy(guid, ctx.volume, dir); rc != 0)
    return RMErrorUtil::ErrorErrNo(where, countedResult(rc));
  const int rc = m_migrator.move(source, target);
  if (rc == 0) return {};
  return failAt(where, LogLevel::Error, rc, "Error: can't rename [%s] to [%s]", source.c_str(),
                target.c_str());
}

}  // namespace ObjectStore
