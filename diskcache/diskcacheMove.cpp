// Override copies: which copy of a segment counts, and moving between the prunable and the non-prunable
// directory.
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheOpen.h"
#include "diskcache/diskcachePaths.h"
#include "diskcache/diskcacheState.h"
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

// Neither there nor absent: to go on could replace a copy or lose one, to do nothing would pass for success.
CZuError cannotLookAt(const std::string& path, int error, const RMCodeLocation& where) {
  return failAt(where, LogLevel::Error, error, "Error: can't look at [%s] (%d)", path.c_str(), error);
}

}  // namespace

std::string DiskCache::getOverriddenSegment(const DiskCacheContext& ctx, const guid_t& guid) {
  return isUsableGuid(guid) ? pathInUse(ctx, guid) : std::string();
}

// Only the flag is asked, not whether nonprunableDir is empty: this is meant.
std::string DiskCache::pathInUse(const DiskCacheContext& ctx, const guid_t& guid) {
  if (ctx.useNonPrunableDir) {
    std::string path;
    if (isCopyThere(path, guid, ctx.volume, ctx.nonprunableDir)) return path;
  }
  return segmentPath(guid, ctx.volume, ctx.dir);
}

CZuError DiskCache::copyOverrideSegment(const DiskCacheContext& ctx, const guid_t& guid, bool move) try {
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "copying [%s] from [%s] to [%s] move=%d", guid.c_str(), ctx.dir.c_str(),
         ctx.nonprunableDir.c_str(), move);
  if (!ctx.useNonPrunableDir) {
    DC_LOG(LogLevel::Segment, "useNonPrunableDir is false for [%s]", guid.c_str());
    return {};
  }
  std::string source;
  if (const CZuError error = claimPath(source, guid, ctx.volume, ctx.dir, RM_CODE_LOCATION); error.IsError())
    return error;
  if (!doesFileExist(source)) {
    DC_LOG(LogLevel::Segment, "src segment doesn't exist [%s]", guid.c_str());
    return {};
  }
  std::string target;
  if (const int rc = m_state->migrator.claim(target, guid, ctx.volume, ctx.nonprunableDir); rc != 0)
    return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, rc);
  if (const CZuError error = makeSegmentPath(target, ctx.nonprunableDir, guid, RM_CODE_LOCATION);
      error.IsError())
    return m_state->space.askForRoom(error);
  const int rc = findFile(target);
  if (rc == 0) {
    DC_LOG(LogLevel::Segment, "override file already exists [%s]", guid.c_str());
    return {};
  }
  if (rc != ENOENT) return cannotLookAt(target, rc, RM_CODE_LOCATION);
  if (move)
    return m_state->space.askForRoom(moveSegment(ctx, guid, ctx.dir, source, target, RM_CODE_LOCATION));

  if (const CZuError error = RMFile::KXCopyFile(source, target, 0); error.IsError()) {
    return m_state->space.askForRoom(pushAndLog(error, RM_CODE_LOCATION,
                                                "Error: Can't copy file [%s] from [%s] to [%s]", guid.c_str(),
                                                source.c_str(), target.c_str()));
  }
  long long size = 0;
  if (const CZuError error = RMFile::KXGetFileSize(target, size); error.IsError()) {
    return pushAndLog(error, RM_CODE_LOCATION, "Error: can't get file size for [%s]: [%s]", target.c_str(),
                      error.AsString().c_str());
  }
  m_state->space.addUsed(size);  // the length, where deletion subtracts allocated bytes: both are meant
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

// `dir` is the directory that the segment leaves. A migration may have put the two on different file systems.
// The move is announced to the readers, who take no lock and look into one place after the other.
CZuError DiskCache::moveSegment(const DiskCacheContext& ctx, const guid_t& guid, const std::string& dir,
                                const std::string& source, const std::string& target,
                                const RMCodeLocation& where) {
  const AnnouncedMove announced(m_movesBegun, m_movesDone);
  if (const int rc = m_state->migrator.dropSourceCopy(guid, ctx.volume, dir); rc != 0)
    return RMErrorUtil::ErrorErrNo(where, rc);
  const int rc = m_state->migrator.move(source, target);
  if (rc == 0) return {};
  return failAt(where, LogLevel::Error, rc, "Error: can't rename [%s] to [%s]", source.c_str(),
                target.c_str());
}

CZuError DiskCache::markDirty(const DiskCacheContext& ctx, const guid_t& guid, bool move) try {
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  m_state->space.delayWriteToSegment();
  DC_LOG(LogLevel::Segment, "cache: marking dirty [%s]", guid.c_str());
  if (const CZuError error = beginChange(ctx, guid, RM_CODE_LOCATION); error.IsError()) return error;

  AutoOpenSegment open(m_state->openTable, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  OpenSegmentInfo& segment = *open.getSegInfo();
  const KxCriticalSectionLock lock(&segment.lock);
  if (!ctx.useNonPrunableDir) return {};
  waitForInPlaceWriters(segment);
  const CZuError error = copyOverrideSegment(ctx, guid, move);
  if (!error.IsError()) return {};
  return pushAndLog(error, RM_CODE_LOCATION, "Error: can't copy override");
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

CZuError DiskCache::moveToPrunable(const DiskCacheContext& ctx, const guid_t& guid) try {
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  m_state->space.delayWriteToSegment();
  DC_LOG(LogLevel::Segment, "moving [%s] from [%s] to [%s]", guid.c_str(), ctx.nonprunableDir.c_str(),
         ctx.dir.c_str());
  if (const CZuError error = beginChange(ctx, guid, RM_CODE_LOCATION); error.IsError()) return error;
  if (!ctx.useNonPrunableDir) return {};

  AutoOpenSegment open(m_state->openTable, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  OpenSegmentInfo& segment = *open.getSegInfo();
  const KxCriticalSectionLock lock(&segment.lock);
  waitForInPlaceWriters(segment);
  std::string source;
  if (const CZuError error = claimPath(source, guid, ctx.volume, ctx.nonprunableDir, RM_CODE_LOCATION);
      error.IsError())
    return error;
  const int found = findFile(source);
  if (found == ENOENT) {
    DC_LOG(LogLevel::Segment, "src segment doesn't exist [%s]", guid.c_str());
    return {};
  }
  if (found != 0) return cannotLookAt(source, found, RM_CODE_LOCATION);  // before the older copy is removed
  std::string target;
  if (const int rc = m_state->migrator.claimWhole(target, guid, ctx.volume, ctx.dir); rc != 0)
    return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, rc);
  if (const CZuError error = makeSegmentPath(target, ctx.dir, guid, RM_CODE_LOCATION); error.IsError())
    return m_state->space.askForRoom(error);
  if (doesFileExist(target)) {
    DC_LOG(LogLevel::Segment, "removing [%s]", guid.c_str());
    unlink(target.c_str());  // whatever comes of it; the space counters stay as they are
  }
  return m_state->space.askForRoom(
      moveSegment(ctx, guid, ctx.nonprunableDir, source, target, RM_CODE_LOCATION));
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

CZuError DiskCache::setSparseFileAttribute(const DiskCacheContext& /*ctx*/, const guid_t& /*guid*/) {
  return {};
}

}  // namespace ObjectStore
