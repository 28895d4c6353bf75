// Putting bytes into the cache: createSegment, writeSections, replaceSegment.
#include <cerrno>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcacheOpen.h"
#include "diskcache/diskcachePaths.h"
#include "diskcache/diskcachePruner.h"
#include "diskcache/segmentFile.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr mode_t SEGMENT_MODE = 0600;

// A full cache is an expected state, not an error line.
int levelOf(const CZuError& error) {
  return RMErrorUtil::IsErrNo(error, ENOSPC) ? LogLevel::NoSpace : LogLevel::Error;
}

}  // namespace

CZuError DiskCache::touchSegment(const DiskCacheContext& ctx, const guid_t& guid,
                                 const RMCodeLocation& where) {
  CZuError error = m_lru->addToLru(guid, ctx.volume, ctx.dir);
  if (error.IsError()) error = pushAndLog(error, where, "Error: can't add [%s] to LRU", guid.c_str());
  return error;
}

CZuError DiskCache::beginChange(const DiskCacheContext& ctx, const guid_t& guid,
                                const RMCodeLocation& where) {
  if (ctx.useNonPrunableDir && ctx.nonprunableDir.empty()) {
    return failAt(where, LogLevel::Error, EINVAL, "Error: nonprunableDir not set");
  }
  return touchSegment(ctx, guid, where);
}

CZuError DiskCache::createSegment(DiskCacheContext& ctx, const guid_t& guid,
                                  const std::vector<Section>& sections, bool sync, bool nonPrune,
                                  bool /*spare*/) try {
  if (const CZuError error = checkNewGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  delayWriteToSegment();
  DC_LOG(LogLevel::Segment, "cache: creating segment [%s] secs=%lu sync=%d nonPrune=%d", guid.c_str(),
         sections.size(), sync, nonPrune);
  const VolIndex vol = getNextVolWithSpace();
  if (vol == 0) {
    m_stats.errOutOfSpace++;
    return DC_FAIL(LogLevel::NoSpace, ENOSPC, "Error: Can't find volume with free space");
  }
  ctx.volume = vol;
  if (const CZuError error = m_lru->addToLru(guid, vol, ctx.dir); error.IsError()) {
    return pushAndLog(error, RM_CODE_LOCATION, "Error: Can't insert into LRU: [%s]", guid.c_str());
  }

  const std::string* dir = &ctx.dir;
  const uint32_t generation = m_migrator->generation();
  std::string path = m_migrator->rootFor(guid, vol, *dir);
  size_t rootLength = path.size();
  if (const CZuError error = makeSegmentPath(path, *dir, guid, RM_CODE_LOCATION); error.IsError())
    return error;

  AutoOpenSegment open(*this, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  const KxCriticalSectionLock lock(&open.getSegInfo()->lock);
  if (generation != m_migrator->generation() || m_migrator->isMigrating(vol)) {
    // Under the lock the answer stays right.
    if (const int rc = m_migrator->claim(path, guid, vol, *dir); rc != 0)
      return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, rc);
    rootLength = path.size();
    if (const CZuError error = makeSegmentPath(path, *dir, guid, RM_CODE_LOCATION); error.IsError())
      return error;
  }
  if (doesFileExist(path))
    return DC_FAIL(LogLevel::Error, EEXIST, "Error: File already exists: [%s]", path.c_str());
  if (m_outOfSpace) return DC_FAIL(LogLevel::Segment, ENOSPC, "simulating out of space");

  if (nonPrune && ctx.useNonPrunableDir && !ctx.nonprunableDir.empty()) {
    dir = &ctx.nonprunableDir;
    if (const int rc = m_migrator->claim(path, guid, vol, *dir); rc != 0)
      return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, rc);
    rootLength = path.size();
    if (const CZuError error = makeSegmentPath(path, *dir, guid, RM_CODE_LOCATION); error.IsError())
      return error;
  }
  DC_LOG(LogLevel::Segment, "cache: assigning segment to vol %d [%s]", vol, path.c_str());

  constexpr int flags = O_WRONLY | O_CREAT | O_NOATIME;
  SegmentFile file(__func__);
  if (!file.open(path, flags, SEGMENT_MODE)) {
    // The pruner may have removed the directory while it was empty.
    path.resize(rootLength);
    if (const CZuError error = makeSegmentPath(path, *dir, guid, RM_CODE_LOCATION); error.IsError())
      return error;
    if (!file.open(path, flags, SEGMENT_MODE)) {
      return DC_FAIL(LogLevel::Error, file.error(), "Error: can't create file [%s] (%d)", path.c_str(),
                     file.error());
    }
  }
  if (const CZuError error = fillNewSegment(file.fd(), path, vol, sections, sync); error.IsError())
    return error;
  file.closeTimed();
  if (isOverHighWatermark()) m_pruner->wakeupPrunerThread();
  m_segmentsInCache++;
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

CZuError DiskCache::fillNewSegment(int fd, const std::string& path, VolIndex volume,
                                   const std::vector<Section>& sections, bool sync) {
  if (const CZuError error = writeSegmentHeader(fd); error.IsError()) {
    DC_LOG(LogLevel::Error, "Error: Can't write header for [%s]", path.c_str());
    return error;
  }
  for (const Section& section : sections) {
    if (const CZuError error = appendSection(fd, volume, section); error.IsError()) {
      const int level = levelOf(error);
      DC_LOG(level, "Error: can't append section to [%s]", path.c_str());
      return error;
    }
  }
  uint64_t allocated = 0;
  if (const int rc = getFileSize(nullptr, &allocated, fd); rc != 0) {
    return DC_FAIL(LogLevel::Error, rc, "Error: can't get file size [%s] (%d)", path.c_str(), rc);
  }
  m_totalCacheUsed += static_cast<int64_t>(allocated);
  DC_LOG(LogLevel::Accounting, "Trace: m_totalCacheUsed (%llu) ADD allocatedSize: [%llu]",
         static_cast<unsigned long long>(m_totalCacheUsed.value()),
         static_cast<unsigned long long>(allocated));
  return sync ? syncDescriptor(fd, path, RM_CODE_LOCATION) : CZuError();
}

CZuError DiskCache::syncDescriptor(int fd, const std::string& path, const RMCodeLocation& where) {
  const auto [rc, error] = timedCall(__func__, PERF_SYNC, [&] { return fsync(fd); });
  if (rc == 0) return {};
  return failAt(where, LogLevel::Error, error, "Error: can't fsync file [%s] (%d)", path.c_str(), error);
}

CZuError DiskCache::writeSections(const DiskCacheContext& ctx, const guid_t& guid,
                                  const std::vector<Section>& sections, bool sync, ForceDiskLoc force) try {
  const TimeFunction timer(__func__, PERF_DISK_WRITE_OP);
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  delayWriteToSegment();
  DC_LOG(LogLevel::Segment, "cache: writing segment [%s] vol=%d secs=%lu sync=%d moveOnWrite=%d, force=%d",
         guid.c_str(), ctx.volume, sections.size(), sync, ctx.moveOnWrite, static_cast<int>(force));
  if (const CZuError error = beginChange(ctx, guid, RM_CODE_LOCATION); error.IsError()) return error;

  AutoOpenSegment open(*this, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  OpenSegmentInfo& segment = *open.getSegInfo();
  const KxCriticalSectionLock lock(&segment.lock);
  // The path is resolved under the lock, so that a migration cannot move the file on.
  std::string path;
  if (const CZuError error = resolveForWrite(path, ctx, guid, force, segment, RM_CODE_LOCATION);
      error.IsError())
    return error;
  DC_LOG(LogLevel::Segment, "writing to [%s]", path.c_str());

  SegmentFile file(__func__);
  if (!file.open(path, O_RDWR | O_NOATIME)) {
    return DC_FAIL(LogLevel::Error, file.error(), "Error: can't open file [%s] (%d)", path.c_str(),
                   file.error());
  }
  if (const CZuError error = updateSegment(file.fd(), path, ctx.volume, sections, segment); error.IsError()) {
    return error;
  }
  if (sync) {
    if (const CZuError error = syncDescriptor(file.fd(), path, RM_CODE_LOCATION); error.IsError())
      return error;
  }
  file.closeTimed();
  if (isOverHighWatermark()) m_pruner->wakeupPrunerThread();
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

CZuError DiskCache::resolveForWrite(std::string& path, const DiskCacheContext& ctx, const guid_t& guid,
                                    ForceDiskLoc force, OpenSegmentInfo& segment,
                                    const RMCodeLocation& where) {
  const std::string* dir = &ctx.dir;
  if (ctx.useNonPrunableDir && force != ForceDiskLoc::Prunable) {
    if (ctx.moveOnWrite || force == ForceDiskLoc::NonPrunable) {
      waitForInPlaceWriters(segment);
      if (const CZuError error = copyOverrideSegment(ctx, guid, false); error.IsError()) {
        return pushAndLog(error, where, "Error: can't copy override");
      }
      dir = &ctx.nonprunableDir;
    } else if (doesFileExist(segmentPath(guid, ctx.volume, ctx.nonprunableDir))) {
      dir = &ctx.nonprunableDir;
    }
  }
  return claimPath(path, guid, ctx.volume, *dir, where);
}

// segmentPath of a segment that is going to be changed or made, under its lock.
CZuError DiskCache::claimPath(std::string& path, const guid_t& guid, VolIndex volume, const std::string& dir,
                              const RMCodeLocation& where) {
  if (const int rc = m_migrator->claim(path, guid, volume, dir); rc != 0)
    return RMErrorUtil::ErrorErrNo(where, rc);
  if (!path.empty()) appendSegmentPath(path, dir, guid);
  return {};
}

CZuError DiskCache::updateSegment(int fd, const std::string& path, VolIndex volume,
                                  const std::vector<Section>& sections, OpenSegmentInfo& segment) {
  uint64_t oldSize = 0;
  if (const int rc = getFileSize(nullptr, &oldSize, fd); rc != 0) {
    return DC_FAIL(LogLevel::Error, rc, "Error: can't get file size for [%s] (%d)", path.c_str(), rc);
  }
  // Read once: two sections of the same new type are both appended, and the later one counts.
  SegmentHeader header;
  if (const CZuError error = readSegmentHeader(header, fd); error.IsError()) {
    DC_LOG(LogLevel::Error, "Error: invalid segment header for [%s]", path.c_str());
    return error;
  }
  for (size_t i = 0; i < sections.size(); ++i) {
    bool found = false;
    uint64_t offset = 0;
    if (const CZuError error = findSection(&found, &offset, sections[i].type, header); error.IsError()) {
      DC_LOG(LogLevel::Error, "Error: can't search for section %zd in [%s]", static_cast<ssize_t>(i),
             path.c_str());
      return error;
    }
    CZuError error;
    if (found) {
      const InPlaceWriter counted(segment);
      error = modifySection(fd, sections[i], offset, segment.lock);
    } else {
      error = appendSection(fd, volume, sections[i]);
    }
    if (error.IsError()) {
      const int level = levelOf(error);
      DC_LOG(level, found ? "Error: can't modify section in [%s]" : "Error: can't append section to [%s]",
             path.c_str());
      return error;
    }
  }
  uint64_t newSize = 0;
  if (const int rc = getFileSize(nullptr, &newSize, fd); rc != 0) {
    return DC_FAIL(LogLevel::Error, rc, "Error: can't get file size [%s] (%d)", path.c_str(), rc);
  }
  m_totalCacheUsed += static_cast<int64_t>(newSize - oldSize);
  DC_LOG(LogLevel::Accounting, "Trace: m_totalCacheUsed (%llu) ADD newSize: [%llu] oldSize: [%llu]",
         static_cast<unsigned long long>(m_totalCacheUsed.value()), static_cast<unsigned long long>(newSize),
         static_cast<unsigned long long>(oldSize));
  return {};
}

CZuError DiskCache::replaceSegment(const DiskCacheContext& ctx, const guid_t& guid,
                                   const std::vector<Section>& sections) try {
  if (const CZuError error = checkNewGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "cache: writing segment %s vol=%d secs=%lu", guid.c_str(), ctx.volume,
         sections.size());
  if (const CZuError error = touchSegment(ctx, guid, RM_CODE_LOCATION); error.IsError()) return error;

  AutoOpenSegment open(*this, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  const KxCriticalSectionLock lock(&open.getSegInfo()->lock);
  std::string path;
  if (const int rc = m_migrator->claimWhole(path, guid, ctx.volume, ctx.dir); rc != 0)
    return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, rc);
  const bool known = !path.empty();  // below no root the file would land where the process happens to run
  appendSegmentPath(path, ctx.dir, guid);
  const std::string temporary = path + ".temp";

  // Not truncated: what an earlier failure left is written over from the start, and the new sections go
  // behind it. This is meant.
  SegmentFile file(__func__);
  if (!known || !file.open(temporary, O_RDWR | O_CREAT | O_NOATIME, SEGMENT_MODE)) {
    const int rc = known ? file.error() : ENOENT;
    return DC_FAIL(LogLevel::Error, rc, "Error: can't open file [%s] (%d)", path.c_str(), rc);
  }
  if (const CZuError error = writeSegmentHeader(file.fd()); error.IsError()) {
    DC_LOG(LogLevel::Error, "Error: can't write segment header for [%s]", path.c_str());
    return error;
  }
  for (const Section& section : sections) {
    if (const CZuError error = appendSection(file.fd(), ctx.volume, section); error.IsError()) {
      DC_LOG(LogLevel::Error, "Error: can't append section to %s", path.c_str());
      return error;
    }
  }
  file.closeTimed();
  const CZuError error = RMFile::KXMoveFileEx(temporary, path, RMFile::MOVE_REPLACE_EXISTING);
  if (!error.IsError()) return {};
  return pushAndLog(error, RM_CODE_LOCATION, "Can't rename [%s] to [%s]", temporary.c_str(), path.c_str());
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

}  // namespace ObjectStore
