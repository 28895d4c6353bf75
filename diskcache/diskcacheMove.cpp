// Override copies: which copy of a segment counts, and moving between the prunable and the non-prunable
// directory.
#include <unistd.h>

#include <cerrno>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheOpen.h"
#include "diskcache/diskcachePaths.h"
#include "diskcache/diskcacheState.h"
#include "diskcache/segmentSteps.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

std::string DiskCache::getOverriddenSegment(const DiskCacheContext& ctx, const guid_t& guid) {
  return isUsableGuid(guid) ? m_state->places.pathInUse(ctx, guid) : std::string();
}

CZuError DiskCache::copyOverrideSegment(const DiskCacheContext& ctx, const guid_t& guid, bool move) {
  return copyOverride(*m_state, ctx, guid, move);
}

CZuError DiskCache::markDirty(const DiskCacheContext& ctx, const guid_t& guid, bool move) try {
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  m_state->space.delayWriteToSegment();
  DC_LOG(LogLevel::Segment, "cache: marking dirty [%s]", guid.c_str());
  if (const CZuError error = beginChange(*m_state, ctx, guid, RM_CODE_LOCATION); error.IsError())
    return error;

  AutoOpenSegment open(m_state->openTable, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  OpenSegmentInfo& segment = *open.getSegInfo();
  const KxCriticalSectionLock lock(&segment.lock);
  if (!ctx.useNonPrunableDir) return {};
  waitForInPlaceWriters(segment);
  const CZuError error = copyOverride(*m_state, ctx, guid, move);
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
  if (const CZuError error = beginChange(*m_state, ctx, guid, RM_CODE_LOCATION); error.IsError())
    return error;
  if (!ctx.useNonPrunableDir) return {};

  AutoOpenSegment open(m_state->openTable, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  OpenSegmentInfo& segment = *open.getSegInfo();
  const KxCriticalSectionLock lock(&segment.lock);
  waitForInPlaceWriters(segment);
  std::string source;
  if (const CZuError error =
          m_state->places.claimPath(source, guid, ctx.volume, ctx.nonprunableDir, RM_CODE_LOCATION);
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
    return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, countedResult(rc));
  if (const CZuError error = makeSegmentPath(target, ctx.dir, guid, RM_CODE_LOCATION); error.IsError())
    return m_state->space.askForRoom(error);
  if (doesFileExist(target)) {
    DC_LOG(LogLevel::Segment, "removing [%s]", guid.c_str());
    // Whatever comes of it; the space counters stay as they are.
    if (unlink(target.c_str()) == 0) m_state->space.addFiles(-1);
  }
  return m_state->space.askForRoom(
      m_state->places.moveSegment(ctx, guid, ctx.nonprunableDir, source, target, RM_CODE_LOCATION));
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

CZuError DiskCache::setSparseFileAttribute(const DiskCacheContext& /*ctx*/, const guid_t& /*guid*/) {
  return {};
}

}  // namespace ObjectStore
