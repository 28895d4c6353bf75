// Putting bytes into the cache: createSegment, writeSections, replaceSegment.
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheOpen.h"
#include "diskcache/diskcachePaths.h"
#include "diskcache/diskcacheState.h"
#include "diskcache/segmentFile.h"
#include "diskcache/segmentSteps.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr mode_t SEGMENT_MODE = 0600;

// A full cache is an expected state, not an error line.
int levelOf(const CZuError& error) {
  return RMErrorUtil::IsErrNo(error, ENOSPC) ? LogLevel::NoSpace : LogLevel::Error;
}

CZuError alreadyThere(const std::string& path, const RMCodeLocation& where) {
  return failAt(where, LogLevel::Error, EEXIST, "Error: File already exists: [%s]", path.c_str());
}

bool hasSecondPlace(const DiskCacheContext& ctx) {
  return ctx.useNonPrunableDir && !ctx.nonprunableDir.empty();
}

// Whether one of the sections is not there yet. A type that none can have is refused in its turn.
bool appendsAny(const std::vector<Section>& sections, const SegmentHeader& header) {
  const auto& offsets = header.sectionOffset;
  return std::any_of(sections.begin(), sections.end(), [&](const Section& section) {
    const auto type = static_cast<size_t>(section.type);  // far out of range when negative
    return type < offsets.size() && offsets[type] == 0;
  });
}

// Where a segment is about to be made.
struct NewSegment {
  const guid_t& guid;
  VolIndex volume;
  const std::string* dir;  // below the root
  std::string path;        // begins with the root
  size_t rootLength = path.size();

  // Makes the directory that the segment goes to, and completes the path.
  CZuError make(const RMCodeLocation& where) {
    path.resize(rootLength);
    return makeSegmentPath(path, *dir, guid, where);
  }
};

CZuError openNewFile(SegmentFile& file, NewSegment& place, const RMCodeLocation& where) {
  constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOATIME;
  if (file.open(place.path, flags, SEGMENT_MODE)) return {};
  if (file.error() != EEXIST) {
    // The pruner may have removed the directory while it was empty.
    if (const CZuError error = place.make(where); error.IsError()) return error;
    if (file.open(place.path, flags, SEGMENT_MODE)) return {};
  }
  const char* const path = place.path.c_str();
  if (file.error() == EEXIST) return alreadyThere(place.path, where);  // and was not seen: a dangling link
  return failAt(where, LogLevel::Error, file.error(), "Error: can't create file [%s] (%d)", path,
                file.error());
}

CZuError syncDescriptor(const char* operation, int fd, const std::string& path, const RMCodeLocation& where) {
  const auto [rc, error] = timedCall(operation, PERF_SYNC, [&] { return fsync(fd); });
  if (rc == 0) return {};
  return failAt(where, LogLevel::Error, error, "Error: can't fsync file [%s] (%d)", path.c_str(), error);
}

CZuError claimPlace(DiskCacheState& engine, NewSegment& place, const RMCodeLocation& where) {
  if (const int rc = engine.migrator.claim(place.path, place.guid, place.volume, *place.dir); rc != 0)
    return RMErrorUtil::ErrorErrNo(where, countedResult(rc));
  place.rootLength = place.path.size();
  return place.make(where);
}

// A segment is in neither of its places, whichever it is to be made in: an override copy would hide it, or
// it the copy's older bytes.
CZuError checkAbsent(DiskCacheState& engine, const DiskCacheContext& ctx, const guid_t& guid,
                     const std::string& path, const RMCodeLocation& where) {
  if (doesFileExist(path)) return alreadyThere(path, where);
  if (!hasSecondPlace(ctx)) return {};
  std::string other;
  const bool isThere = engine.places.isCopyThere(other, guid, ctx.volume, ctx.nonprunableDir);
  return isThere ? alreadyThere(other, where) : CZuError();
}

CZuError fillNewSegment(DiskCacheState& engine, int fd, const std::string& path, VolIndex volume,
                        const std::vector<Section>& sections, bool sync, const RMCodeLocation& where) {
  if (const CZuError error = engine.records.writeSegmentHeader(fd); error.IsError()) {
    DC_LOG_AT(where, LogLevel::Error, "Error: Can't write header for [%s]", path.c_str());
    return error;
  }
  for (const Section& section : sections) {
    if (const CZuError error = engine.records.appendSection(fd, volume, section); error.IsError()) {
      const int level = levelOf(error);
      DC_LOG_AT(where, level, "Error: can't append section to [%s]", path.c_str());
      return error;
    }
  }
  uint64_t allocated = 0;
  if (const int rc = getFileSize(nullptr, &allocated, fd); rc != 0) {
    return failAt(where, LogLevel::Error, rc, "Error: can't get file size [%s] (%d)", path.c_str(), rc);
  }
  engine.space.addUsed(static_cast<int64_t>(allocated));
  DC_LOG_AT(where, LogLevel::Accounting, "Trace: m_totalCacheUsed (%llu) ADD allocatedSize: [%llu]",
            static_cast<unsigned long long>(engine.space.used()), static_cast<unsigned long long>(allocated));
  return sync ? syncDescriptor("createSegment", fd, path, where) : CZuError();
}

CZuError makeSegment(DiskCacheState& engine, DiskCacheContext& ctx, const guid_t& guid,
                     const std::vector<Section>& sections, bool sync, bool nonPrune,
                     const RMCodeLocation& where) {
  const VolIndex vol = engine.volumes.getNextVolWithSpace();
  if (vol == 0) {
    return failAt(where, LogLevel::NoSpace, engine.space.countRefusal(ENOSPC),
                  "Error: Can't find volume with free space");
  }
  ctx.volume = vol;
  if (const CZuError error = engine.lru.addToLru(guid, vol, ctx.dir); error.IsError()) {
    return pushAndLog(error, where, "Error: Can't insert into LRU: [%s]", guid.c_str());
  }

  const uint32_t generation = engine.migrator.generation();
  NewSegment place{guid, vol, &ctx.dir, engine.migrator.rootFor(guid, vol, ctx.dir)};
  const CZuError made = place.make(where);

  AutoOpenSegment open(engine.openTable, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(where, ENOMEM);
  const KxCriticalSectionLock lock(&open.getSegInfo()->lock);
  if (generation != engine.migrator.generation() || engine.migrator.isMigrating(vol)) {
    // Under the lock the answer stays right, and where the volume was it may have been removed.
    if (const CZuError error = claimPlace(engine, place, where); error.IsError()) return error;
  } else if (made.IsError()) {
    return made;
  }
  if (const CZuError error = checkAbsent(engine, ctx, guid, place.path, where); error.IsError()) return error;
  if (engine.space.isOutOfSpace()) return failAt(where, LogLevel::Segment, ENOSPC, "simulating out of space");

  if (nonPrune && hasSecondPlace(ctx)) {
    place.dir = &ctx.nonprunableDir;
    if (const CZuError error = claimPlace(engine, place, where); error.IsError()) return error;
  }
  DC_LOG_AT(where, LogLevel::Segment, "cache: assigning segment to vol %d [%s]", vol, place.path.c_str());
  SegmentFile file("createSegment");
  if (const CZuError error = openNewFile(file, place, where); error.IsError()) return error;
  if (const CZuError error = fillNewSegment(engine, file.fd(), place.path, vol, sections, sync, where);
      error.IsError())
    return error;
  file.closeTimed();
  engine.space.wakePrunerWhenFull();
  engine.space.segmentMade();
  return {};
}

}  // namespace

CZuError DiskCache::createSegment(DiskCacheContext& ctx, const guid_t& guid,
                                  const std::vector<Section>& sections, bool sync, bool nonPrune,
                                  bool /*spare*/) try {
  CountedWrite counted(m_state->space.counters(), WriteOperation::Create);
  if (const CZuError error = checkNewGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  m_state->space.delayWriteToSegment();
  DC_LOG(LogLevel::Segment, "cache: creating segment [%s] secs=%lu sync=%d nonPrune=%d", guid.c_str(),
         sections.size(), sync, nonPrune);
  const CZuError error = makeSegment(*m_state, ctx, guid, sections, sync, nonPrune, RM_CODE_LOCATION);
  if (m_state->space.isOutOfSpace()) return counted.ends(error);  // simulated: there is no want of room
  return counted.ends(m_state->space.askForRoom(error));
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

namespace {

// An open segment as a write found it.
struct SegmentToWrite {
  std::string path;
  SegmentFile file{"writeSections"};
  uint64_t oldSize = 0;  // allocated bytes
  // Read once: two sections of the same new type are both appended, and the later one counts.
  SegmentHeader header;
};

// The path is resolved under the lock, so that a migration cannot move the file on.
CZuError openForWrite(DiskCacheState& engine, SegmentToWrite& target, const DiskCacheContext& ctx,
                      const guid_t& guid, ForceDiskLoc force, const RMCodeLocation& where) {
  std::string& path = target.path;
  if (const CZuError error = resolveForWrite(engine, path, ctx, guid, force, where); error.IsError())
    return error;
  DC_LOG_AT(where, LogLevel::Segment, "writing to [%s]", path.c_str());
  SegmentFile& file = target.file;
  if (!file.open(path, O_RDWR | O_NOATIME)) {
    return failAt(where, LogLevel::Error, file.error(), "Error: can't open file [%s] (%d)", path.c_str(),
                  file.error());
  }
  if (const int rc = getFileSize(nullptr, &target.oldSize, file.fd()); rc != 0) {
    return failAt(where, LogLevel::Error, rc, "Error: can't get file size for [%s] (%d)", path.c_str(), rc);
  }
  const CZuError error = readSegmentHeader(target.header, file.fd());
  if (error.IsError()) {
    DC_LOG_AT(where, LogLevel::Error, "Error: invalid segment header for [%s]", path.c_str());
  }
  return error;
}

CZuError updateSegment(DiskCacheState& engine, SegmentToWrite& target, VolIndex volume,
                       const std::vector<Section>& sections, OpenSegmentInfo& segment,
                       const RMCodeLocation& where) DC_REQUIRES(segment.lock) {
  const char* const path = target.path.c_str();
  const int fd = target.file.fd();
  for (size_t i = 0; i < sections.size(); ++i) {
    bool found = false;
    uint64_t offset = 0;
    CZuError error = findSection(&found, &offset, sections[i].type, target.header);
    if (error.IsError()) {
      DC_LOG_AT(where, LogLevel::Error, "Error: can't search for section %zd in [%s]",
                static_cast<ssize_t>(i), path);
      return error;
    }
    error = found ? engine.records.modifySection(fd, sections[i], offset, segment.lock)
                  : engine.records.appendSection(fd, volume, sections[i]);
    if (error.IsError()) {
      const int level = levelOf(error);
      DC_LOG_AT(where, level,
                found ? "Error: can't modify section in [%s]" : "Error: can't append section to [%s]", path);
      return error;
    }
  }
  uint64_t newSize = 0;
  if (const int rc = getFileSize(nullptr, &newSize, fd); rc != 0) {
    return failAt(where, LogLevel::Error, rc, "Error: can't get file size [%s] (%d)", path, rc);
  }
  engine.space.addUsed(static_cast<int64_t>(newSize - target.oldSize));
  DC_LOG_AT(where, LogLevel::Accounting, "Trace: m_totalCacheUsed (%llu) ADD newSize: [%llu] oldSize: [%llu]",
            static_cast<unsigned long long>(engine.space.used()), static_cast<unsigned long long>(newSize),
            static_cast<unsigned long long>(target.oldSize));
  return {};
}

CZuError writeInTurn(DiskCacheState& engine, const DiskCacheContext& ctx, const guid_t& guid,
                     const std::vector<Section>& sections, bool sync, ForceDiskLoc force,
                     OpenSegmentInfo& segment, const RMCodeLocation& where) DC_REQUIRES(segment.lock) {
  SegmentTurn turn(segment, copiesFirst(ctx, force) ? SegmentTurn::Alone : SegmentTurn::Shared);
  SegmentToWrite target;
  for (;;) {
    if (const CZuError error = openForWrite(engine, target, ctx, guid, force, where); error.IsError())
      return error;
    if (!appendsAny(sections, target.header) || turn.becomeAlone()) break;
    target.file.close();  // what others have made of the segment meanwhile is looked at anew
  }
  if (const CZuError error = updateSegment(engine, target, ctx.volume, sections, segment, where);
      error.IsError()) {
    return error;
  }
  if (sync) {
    if (const CZuError error = syncDescriptor("writeSections", target.file.fd(), target.path, where);
        error.IsError())
      return error;
  }
  target.file.closeTimed();
  engine.space.wakePrunerWhenFull();
  return {};
}

}  // namespace

CZuError DiskCache::writeSections(const DiskCacheContext& ctx, const guid_t& guid,
                                  const std::vector<Section>& sections, bool sync, ForceDiskLoc force) try {
  const TimeFunction timer(__func__, PERF_DISK_WRITE_OP);
  CountedWrite counted(m_state->space.counters(), WriteOperation::Write);
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  m_state->space.delayWriteToSegment();
  DC_LOG(LogLevel::Segment, "cache: writing segment [%s] vol=%d secs=%lu sync=%d moveOnWrite=%d, force=%d",
         guid.c_str(), ctx.volume, sections.size(), sync, ctx.moveOnWrite, static_cast<int>(force));
  if (const CZuError error = beginChange(*m_state, ctx, guid, RM_CODE_LOCATION); error.IsError())
    return counted.ends(error);

  AutoOpenSegment open(m_state->openTable, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  OpenSegmentInfo& segment = *open.getSegInfo();
  const KxCriticalSectionLock lock(&segment.lock);
  return counted.ends(m_state->space.askForRoom(
      writeInTurn(*m_state, ctx, guid, sections, sync, force, segment, RM_CODE_LOCATION)));
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

namespace {

// Not truncated: what an earlier failure left is written over from the start, and the new sections go behind
// it. This is meant.
CZuError makeReplacement(DiskCacheState& engine, const std::string& temporary, const std::string& path,
                         VolIndex volume, const std::vector<Section>& sections, const RMCodeLocation& where) {
  SegmentFile file("replaceSegment");
  const bool opened = file.open(temporary, O_RDWR | O_CREAT | O_NOATIME, SEGMENT_MODE);
  // Anything but a file would be made the segment.
  if (const int rc = opened ? getFileSize(nullptr, nullptr, file.fd()) : file.error(); rc != 0) {
    return failAt(where, LogLevel::Error, rc, "Error: can't open file [%s] (%d)", path.c_str(), rc);
  }
  if (const CZuError error = engine.records.writeSegmentHeader(file.fd()); error.IsError()) {
    DC_LOG_AT(where, LogLevel::Error, "Error: can't write segment header for [%s]", path.c_str());
    return error;
  }
  for (const Section& section : sections) {
    if (const CZuError error = engine.records.appendSection(file.fd(), volume, section); error.IsError()) {
      const int level = levelOf(error);
      DC_LOG_AT(where, level, "Error: can't append section to %s", path.c_str());
      return error;
    }
  }
  file.closeTimed();
  return {};
}

}  // namespace

CZuError DiskCache::replaceSegment(const DiskCacheContext& ctx, const guid_t& guid,
                                   const std::vector<Section>& sections) try {
  CountedWrite counted(m_state->space.counters(), WriteOperation::Replace);
  if (const CZuError error = checkNewGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "cache: writing segment %s vol=%d secs=%lu", guid.c_str(), ctx.volume,
         sections.size());
  if (const CZuError error = m_state->lru.touchSegment(guid, ctx.volume, ctx.dir, RM_CODE_LOCATION);
      error.IsError())
    return counted.ends(error);

  AutoOpenSegment open(m_state->openTable, guid);
  if (!open.opened()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  const KxCriticalSectionLock lock(&open.getSegInfo()->lock);
  std::string path;
  if (const int rc = m_state->migrator.claimWhole(path, guid, ctx.volume, ctx.dir); rc != 0)
    return counted.ends(
        m_state->space.askForRoom(RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, countedResult(rc))));
  const bool known = !path.empty();  // below no root the file would land where the process happens to run
  appendSegmentPath(path, ctx.dir, guid);
  if (!known) {
    return DC_FAIL(LogLevel::Error, ENOENT, "Error: can't open file [%s] (%d)", path.c_str(), ENOENT);
  }
  const std::string temporary = temporaryName(path, REPLACEMENT_SUFFIX);
  // That of a long identifier has a name of its own, by which the pruner and a migration know that it is in use.
  std::optional<QuietSegment> aside;
  if (!temporary.starts_with(path))
    aside.emplace(m_state->openTable, std::filesystem::path(temporary).stem().string());
  if (aside && aside->error() != 0) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  if (const CZuError error =
          makeReplacement(*m_state, temporary, path, ctx.volume, sections, RM_CODE_LOCATION);
      error.IsError())
    return counted.ends(m_state->space.askForRoom(error));
  const CZuError error = RMFile::KXMoveFileEx(temporary, path, RMFile::MOVE_REPLACE_EXISTING);
  if (!error.IsError()) return counted.ends({});
  return counted.ends(m_state->space.askForRoom(
      pushAndLog(error, RM_CODE_LOCATION, "Can't rename [%s] to [%s]", temporary.c_str(), path.c_str())));
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

}  // namespace ObjectStore
