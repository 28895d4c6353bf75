// For clients that read a segment's bytes themselves: descriptors of sections, and the recency list without
// work on files.
#include <sys/stat.h>

#include <cerrno>

#include "diskcache/diskcache.h"
#include "diskcache/diskcachePaths.h"
#include "diskcache/diskcacheState.h"
#include "diskcache/segmentFile.h"
#include "diskcache/segmentRecords.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// A link is never followed and a FIFO never waited for.
constexpr int OPEN_FLAGS = O_RDONLY | O_NOATIME | O_NOFOLLOW | O_NONBLOCK;

// The length of what was opened; EINVAL for anything but a regular file.
int regularSize(int fd, uint64_t& size) {
  struct stat status {};
  errno = 0;
  if (fstat(fd, &status) != 0) return errno != 0 ? errno : EIO;
  size = static_cast<uint64_t>(status.st_size);
  return S_ISREG(status.st_mode) ? 0 : EINVAL;
}

// Reads the front of the record at `at` and checks that its payload lies within the file. 0 or a number.
int placeSection(int fd, uint64_t fileSize, uint64_t at, SectionPlace& place) {
  if (at < SEGMENT_HEADER_SIZE) return EINVAL;
  SectionDesc front;
  const Transfer read = readAt("openSection", fd, &front, sizeof(front), at);
  if (!read.moved(sizeof(front))) return read.error != 0 ? read.error : EIO;
  const uint64_t payload = offsetSum(at, SECTION_DESC_SIZE);
  if (front.type != place.type || offsetSum(payload, front.len) > fileSize) return EINVAL;
  place = {place.type, front.subType, payload, front.len, true};
  return 0;
}

}  // namespace

CZuError DiskCache::openSection(int& fd, std::vector<SectionPlace>& places, const DiskCacheContext& ctx,
                                const guid_t& guid) try {
  const TimeFunction timer(__func__, PERF_DISK_READ_OP);
  fd = -1;
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "cache: opening sections of [%s] vol=%d", guid.c_str(), ctx.volume);
  std::string path;
  SegmentFile file(__func__);
  const int missing = m_state->places.lookUntilCertain(ctx, [&] {
    path = m_state->places.pathInUse(ctx, guid);
    return file.open(path, OPEN_FLAGS) ? 0 : file.error();
  });
  if (file.fd() < 0) {
    const int level = missing == ENOENT ? LogLevel::Segment : LogLevel::Error;
    return DC_FAIL(level, missing, "Error: can't open file [%s] (%d)", path.c_str(), missing);
  }
  uint64_t size = 0;
  if (const int rc = regularSize(file.fd(), size); rc != 0) {
    return DC_FAIL(LogLevel::Error, rc, "Error: can't get file size for [%s] (%d)", path.c_str(), rc);
  }
  SegmentHeader header;
  if (const CZuError error = readSegmentHeader(header, file.fd()); error.IsError()) {
    DC_LOG(LogLevel::Error, "Error: invalid segment header for [%s]", path.c_str());
    return error;
  }
  for (SectionPlace& place : places) {
    uint64_t at = 0;
    place.found = false;
    if (const CZuError error = findSection(&place.found, &at, place.type, header); error.IsError()) {
      return error;
    }
    if (!place.found) continue;
    if (const int rc = placeSection(file.fd(), size, at, place); rc != 0) {
      return DC_FAIL(LogLevel::Error, rc, "Error: no section %d at %lu of [%s] (%d)", place.type, at,
                     path.c_str(), rc);
    }
  }
  fd = file.release();
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

bool DiskCache::touch(const guid_t& guid) { return m_state->lru.touch(guid); }

bool DiskCache::findVolume(const guid_t& guid, VolIndex& volume) {
  return m_state->lru.findVolume(guid, volume);
}

CZuError DiskCache::remember(const DiskCacheContext& ctx, const guid_t& guid) {
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  return m_state->lru.addToLru(guid, ctx.volume, ctx.dir);
}

void DiskCache::forget(const guid_t& guid) { m_state->lru.removeFromLru(guid); }

CZuError DiskCache::giveUpOldest(uint64_t n, uint64_t& given) try {
  return m_state->lru.giveUpOldest(n, given);
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

}  // namespace ObjectStore
