// Changing a segment file's length, forcing it to disk, and removing it.
#include <sys/stat.h>

#include <cerrno>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheOpen.h"
#include "diskcache/diskcachePaths.h"
#include "diskcache/diskcacheState.h"
#include "diskcache/diskcacheVolume.h"
#include "diskcache/engineSteps.h"
#include "diskcache/segmentFile.h"
#include "diskcache/segmentSteps.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// How often a segment is looked for again that was there in between: nobody keeps moving it for so long.
constexpr int MAX_LOOKS = 16;

// Writes a record's front and cuts or extends the file behind its payload; what is refused is left as it was.
CZuError cutAt(DiskCacheState& engine, int fd, const std::string& path, uint64_t off,
               const SectionDesc& wanted, const RMCodeLocation& where) {
  constexpr const char* operation = "truncateSection";
  const auto cannotCut = [&](int error) {
    return failAt(where, LogLevel::Error, error, "Error: can't truncate [%s] (%d)", path.c_str(), error);
  };
  const uint64_t end = offsetSum(offsetSum(off, SECTION_DESC_SIZE), wanted.len);
  if (!isFileOffset(end)) return cannotCut(EINVAL);
  SectionDesc old;
  const bool known = readAt(operation, fd, &old, sizeof(old), off).moved(sizeof(old));
  const auto putBack = [&] {
    if (known) writeAt(operation, fd, &old, sizeof(old), off);
  };
  const Transfer front = writeAt(operation, fd, &wanted, sizeof(wanted), off);
  if (!front.moved(sizeof(wanted))) {
    putBack();
    engine.space.countRefusal(front.error);
    return failAt(where, LogLevel::Error, front.error, "Error: can't write to [%s] (%d)", path.c_str(),
                  front.error);
  }
  const auto cut =
      timedCall(operation, PERF_DISK_WRITE, [&] { return ftruncate(fd, static_cast<off_t>(end)); });
  if (cut.value == 0) return {};
  putBack();
  return cannotCut(cut.error);
}

CZuError truncateFile(DiskCacheState& engine, SegmentFile& file, const std::string& path, VolIndex volume,
                      const SectionDesc& wanted, const RMCodeLocation& where) {
  SegmentHeader header;
  if (const CZuError error = readSegmentHeader(header, file.fd()); error.IsError()) {
    DC_LOG_AT(where, LogLevel::Error, "Error: invalid segment header for [%s]", path.c_str());
    return error;
  }
  bool found = false;
  uint64_t off = SEGMENT_HEADER_SIZE;
  if (const CZuError error = findSection(&found, &off, wanted.type, header); error.IsError()) {
    DC_LOG_AT(where, LogLevel::Error, "Error: can't find section [%s]", path.c_str());
    return error;
  }
  if (found) {
    int lastType = -1;
    uint64_t lastOffset = 0;
    (void)findLastSection(&lastType, &lastOffset, header);  // one that cannot be found is not the wanted one
    if (wanted.type != lastType) {
      file.leaveOpen();  // meant
      return failAt(where, LogLevel::Error, EEXIST, "Error: %d is not last section in [%s]", wanted.type,
                    path.c_str());
    }
  } else if (wanted.len == 0) {
    DC_LOG_AT(where, LogLevel::Segment, "empty section");
    return {};
  } else {
    // Appending nothing always fails, and the work below then goes on at offset 0, over the header's first
    // bytes. Clients know not to ask for this; what it does is kept.
    DC_LOG_AT(where, LogLevel::Segment, "section %d.%d not found in [%s]. Appending.", wanted.type,
              wanted.subType, path.c_str());
    Section empty;
    empty.type = wanted.type;
    if (const CZuError error = engine.records.appendSection(file.fd(), volume, empty); error.IsError()) {
      const int level = RMErrorUtil::IsErrNo(error, ENOSPC) ? LogLevel::NoSpace : LogLevel::Error;
      DC_LOG_AT(where, level, "Error: can't append section to [%s]", path.c_str());
    }
  }
  return cutAt(engine, file.fd(), path, off, wanted, where);
}

}  // namespace

CZuError DiskCache::truncateSection(const DiskCacheContext& ctx, guid_t guid, int32_t type, int32_t sub,
                                    uint64_t size) try {
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "cache: truncate segment [%s] vol=%d size=%lu", guid.c_str(), ctx.volume, size);
  if (const CZuError error = beginChange(*m_state, ctx, guid, RM_CODE_LOCATION); error.IsError())
    return error;

  AutoOpenSegment open(m_state->openTable, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  OpenSegmentInfo& segment = *open.getSegInfo();
  const KxCriticalSectionLock lock(&segment.lock);
  waitForInPlaceWriters(segment);  // one that goes on after the cut would record its old length
  std::string path;
  if (const CZuError error =
          resolveForWrite(*m_state, path, ctx, guid, ForceDiskLoc::Default, RM_CODE_LOCATION);
      error.IsError()) {
    return m_state->space.askForRoom(error);
  }
  SegmentFile file(__func__);
  if (!file.open(path, O_RDWR | O_NOATIME)) {
    return DC_FAIL(LogLevel::Error, file.error(), "Error: can't open file [%s] (%d)", path.c_str(),
                   file.error());
  }
  const CZuError error = truncateFile(*m_state, file, path, ctx.volume, {type, sub, size}, RM_CODE_LOCATION);
  if (error.IsError()) return m_state->space.askForRoom(error);
  file.closeTimed();
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

// Both failures are logged as tracing: a copy that is not there is an expected case.
CZuError syncFname(const std::string& path) {
  SegmentFile file(__func__);
  if (!file.open(path, O_RDWR)) {
    return DC_FAIL(LogLevel::Segment, file.error(), "can't open file [%s] (%d)", path.c_str(), file.error());
  }
  const auto synced = timedCall(__func__, PERF_SYNC, [&] { return fsync(file.fd()); });
  const int closeError = file.closeTimed();
  if (synced.value == 0) return {};
  const int error = closeError != 0 ? closeError : synced.error;  // as it stands after the close
  return DC_FAIL(LogLevel::Segment, error, "can't fsync file [%s] (%d)", path.c_str(), error);
}

CZuError DiskCache::syncSegment(const DiskCacheContext& ctx, const guid_t& guid) try {
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "cache: sync segment [%s] vol=%d", guid.c_str(), ctx.volume);
  if (const CZuError error = m_state->lru.touchSegment(guid, ctx.volume, ctx.dir, RM_CODE_LOCATION);
      error.IsError())
    return error;
  const CZuError regular = syncFname(m_state->places.segmentPath(guid, ctx.volume, ctx.dir));
  CZuError override;  // without a second place it counts as synced
  if (ctx.useNonPrunableDir)
    override = syncFname(m_state->places.segmentPath(guid, ctx.volume, ctx.nonprunableDir));

  if (!regular.IsError() && !override.IsError()) return {};
  if (!RMErrorUtil::IsErrNo(regular, ENOENT)) return regular;
  if (!RMErrorUtil::IsErrNo(override, ENOENT)) return override;
  return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOENT);
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

namespace {

CZuError deleteSegmentInternal(DiskCacheState& engine, const std::string& path) {
  const RMCodeLocation where = DC_STEP(deleteSegmentInternal);
  DC_LOG_AT(where, LogLevel::Segment, "cache: deleting [%s]", path.c_str());
  struct stat status {};
  const auto asked = timedCall(__func__, PERF_FSTAT, [&] { return stat(path.c_str(), &status); });
  if (asked.value != 0) {
    return failAt(where, LogLevel::Error, asked.error, "Error: can't stat [%s] (%d)", path.c_str(),
                  asked.error);
  }
  errno = 0;
  if (unlink(path.c_str()) != 0) {
    const int error = errno;
    return failAt(where, LogLevel::Error, error, "Error: can't unlink file [%s] (%d)", path.c_str(), error);
  }
  const auto allocated = static_cast<int64_t>(status.st_blocks) << 9;
  engine.space.addUsed(-allocated);
  DC_LOG_AT(where, LogLevel::Accounting, "Trace: m_totalCacheUsed (%llu) subtract: s.st_blocks_x_512 [%llu]",
            static_cast<unsigned long long>(engine.space.used()), static_cast<unsigned long long>(allocated));
  engine.space.segmentGone();
  return {};
}

CZuError recycleFile(DiskCacheState& engine, const std::string& path, const std::string& recycleDir,
                     const guid_t& guid, const RMCodeLocation& where) {
  const std::string target = join(recycleDir, guid, '/');
  int rc = engine.migrator.move(path, target);
  // A migration may have left the directory behind.
  if (rc == ENOENT && createDir(recycleDir) == 0) rc = engine.migrator.move(path, target);
  if (rc == 0) engine.space.addFiles(-1);
  return rc == 0 ? CZuError() : RMErrorUtil::ErrorErrNo(where, countedResult(rc));
}

// A copy that is not there is success. Where a migration begins or ends meanwhile, it is looked for again.
CZuError removeCopy(DiskCacheState& engine, const DiskCacheContext& ctx, const guid_t& guid,
                    const std::string& dir, Recycle recycle, bool mayMove, const RMCodeLocation& where) {
  bool isRemoved = false;
  for (int look = 0; look < MAX_LOOKS; ++look) {
    const uint32_t generation = engine.migrator.generation();
    const DiskCacheMigrator::Removal removal(engine.migrator, guid, ctx.volume, dir);
    const std::string& path = removal.path();
    if (removal.isFound()) {
      if (const int rc = removal.removeOriginal(); rc != 0)
        return failAt(where, LogLevel::Error, rc, "Error: can't unlink file [%s] (%d)", path.c_str(), rc);
      if (isRemoved) {
        unlink(path.c_str());  // another copy of what was taken off the account already
      } else {
        const CZuError error = recycle == Recycle::Yes
                                   ? recycleFile(engine, path, removal.recycleDir(guid), guid, where)
                                   : deleteSegmentInternal(engine, path);
        const bool hasMoved = mayMove && RMErrorUtil::IsErrNo(error, ENOENT) && !doesFileExist(path);
        if (error.IsError() && !hasMoved) return error;
        isRemoved = !error.IsError();
      }
    }
    if (generation == engine.migrator.generation()) break;
  }
  return {};
}

}  // namespace

CZuError DiskCache::deleteSegment(const DiskCacheContext& ctx, const guid_t& guid, bool nonPrun, bool prun,
                                  Recycle recycle) try {
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "cache: deleting segment [%s] vol=%d nonPrun=%d prun=%d recycle=%d", guid.c_str(),
         ctx.volume, nonPrun, prun, recycle == Recycle::Yes ? 1 : 0);
  if (ctx.useNonPrunableDir && ctx.nonprunableDir.empty()) {
    return DC_FAIL(LogLevel::Error, EINVAL, "Error: nonprunableDir not set");
  }
  // No lock is taken, so that a segment may be deleted at any time. One with two places may be moved from
  // the one to the other meanwhile: then it is looked for again.
  const bool mayMove = ctx.useNonPrunableDir && !nonPrun && !prun;
  for (int look = 1;; ++look) {
    if (ctx.useNonPrunableDir && !prun) {
      const CZuError error =
          removeCopy(*m_state, ctx, guid, ctx.nonprunableDir, recycle, mayMove, RM_CODE_LOCATION);
      if (error.IsError())
        return pushAndLog(error, RM_CODE_LOCATION, "Error: Can't delete [%s]", guid.c_str());
    }
    if (nonPrun) return {};
    const CZuError error = removeCopy(*m_state, ctx, guid, ctx.dir, recycle, mayMove, RM_CODE_LOCATION);
    if (error.IsError() || !mayMove || look == MAX_LOOKS || !m_state->places.isInEitherPlace(ctx, guid))
      return error;
  }
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

}  // namespace ObjectStore
