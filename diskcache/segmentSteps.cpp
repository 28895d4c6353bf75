#include "diskcache/segmentSteps.h"

#include <cerrno>

#include "diskcache/diskcachePaths.h"
#include "diskcache/engineSteps.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

CZuError beginChange(DiskCacheState& engine, const DiskCacheContext& ctx, const guid_t& guid,
                     const RMCodeLocation& where) {
  if (ctx.useNonPrunableDir && ctx.nonprunableDir.empty()) {
    return failAt(where, LogLevel::Error, EINVAL, "Error: nonprunableDir not set");
  }
  return engine.lru.touchSegment(guid, ctx.volume, ctx.dir, where);
}

CZuError copyOverride(DiskCacheState& engine, const DiskCacheContext& ctx, const guid_t& guid,
                      bool move) try {
  const RMCodeLocation where = DC_STEP(copyOverrideSegment);
  if (const CZuError error = checkGuid(guid, where); error.IsError()) return error;
  DC_LOG_AT(where, LogLevel::Segment, "copying [%s] from [%s] to [%s] move=%d", guid.c_str(), ctx.dir.c_str(),
            ctx.nonprunableDir.c_str(), move);
  if (!ctx.useNonPrunableDir) {
    DC_LOG_AT(where, LogLevel::Segment, "useNonPrunableDir is false for [%s]", guid.c_str());
    return {};
  }
  std::string source;
  if (const CZuError error = engine.places.claimPath(source, guid, ctx.volume, ctx.dir, where);
      error.IsError())
    return error;
  if (!doesFileExist(source)) {
    DC_LOG_AT(where, LogLevel::Segment, "src segment doesn't exist [%s]", guid.c_str());
    return {};
  }
  std::string target;
  if (const int rc = engine.migrator.claim(target, guid, ctx.volume, ctx.nonprunableDir); rc != 0)
    return RMErrorUtil::ErrorErrNo(where, countedResult(rc));
  if (const CZuError error = makeSegmentPath(target, ctx.nonprunableDir, guid, where); error.IsError())
    return engine.space.askForRoom(error);
  const int rc = findFile(target);
  if (rc == 0) {
    DC_LOG_AT(where, LogLevel::Segment, "override file already exists [%s]", guid.c_str());
    return {};
  }
  if (rc != ENOENT) return cannotLookAt(target, rc, where);
  if (move)
    return engine.space.askForRoom(engine.places.moveSegment(ctx, guid, ctx.dir, source, target, where));

  if (const CZuError error = RMFile::KXCopyFile(source, target, 0); error.IsError()) {
    return engine.space.askForRoom(pushAndLog(error, where, "Error: Can't copy file [%s] from [%s] to [%s]",
                                              guid.c_str(), source.c_str(), target.c_str()));
  }
  engine.space.addFiles(1);
  long long size = 0;
  if (const CZuError error = RMFile::KXGetFileSize(target, size); error.IsError()) {
    return pushAndLog(error, where, "Error: can't get file size for [%s]: [%s]", target.c_str(),
                      error.AsString().c_str());
  }
  engine.space.addUsed(size);  // the length, where deletion subtracts allocated bytes: both are meant
  return {};
} catch (...) {
  return failWithException(DC_STEP(copyOverrideSegment));
}

bool copiesFirst(const DiskCacheContext& ctx, ForceDiskLoc force) {
  return ctx.useNonPrunableDir && force != ForceDiskLoc::Prunable &&
         (ctx.moveOnWrite || force == ForceDiskLoc::NonPrunable);
}

CZuError resolveForWrite(DiskCacheState& engine, std::string& path, const DiskCacheContext& ctx,
                         const guid_t& guid, ForceDiskLoc force, const RMCodeLocation& where) {
  const std::string* dir = &ctx.dir;
  if (copiesFirst(ctx, force)) {
    if (const CZuError error = copyOverride(engine, ctx, guid, false); error.IsError()) {
      return pushAndLog(error, where, "Error: can't copy override");
    }
    dir = &ctx.nonprunableDir;
  } else if (ctx.useNonPrunableDir && force != ForceDiskLoc::Prunable) {
    if (engine.places.isCopyThere(path, guid, ctx.volume, ctx.nonprunableDir)) dir = &ctx.nonprunableDir;
  }
  return engine.places.claimPath(path, guid, ctx.volume, *dir, where);
}

CZuError cannotLookAt(const std::string& path, int error, const RMCodeLocation& where) {
  return failAt(where, LogLevel::Error, error, "Error: can't look at [%s] (%d)", path.c_str(), error);
}

}  // namespace ObjectStore
