// For clients that read a segment's bytes themselves: descriptors of sections, and the recency list without
// work on files.
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

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

// Finds sections with as few calls as can be: each costs as much as reading a few KiB.
class PlaceFinder {
 public:
  PlaceFinder(int fd, std::vector<SectionPlace>& places) : m_fd(fd), m_places(places) {}

  // The header, and behind it what the first two places have room for: all of a small file. 0 or a number.
  int readHead() {
    const std::span<unsigned char> first = roomOf(0);
    const std::span<unsigned char> second = first.empty() ? first : roomOf(1);
    const std::array<iovec, 3> parts{
        {{&m_head, sizeof(m_head)}, {first.data(), first.size()}, {second.data(), second.size()}}};
    const int count = first.empty() ? 1 : second.empty() ? 2 : 3;
    const auto got =
        timedCall("openSection", PERF_DISK_READ, [&] { return preadv(m_fd, parts.data(), count, 0); });
    if (got.value < 0) return isRegular() ? got.error : EINVAL;
    m_headEnd = static_cast<uint64_t>(got.value);
    note(0, m_headEnd, sizeof(m_head) + first.size() + second.size());
    if (m_headEnd < SEGMENT_HEADER_SIZE) return isRegular() ? EIO : EINVAL;
    return header().magic == DISK_CACHE_MAGIC && header().version == DISK_CACHE_VERSION ? 0 : EINVAL;
  }
  const SegmentHeader& header() const { return m_head.header; }

  // Sets a place to the record at `at`. 0 or a number.
  int place(size_t index, uint64_t at) {
    SectionPlace& place = m_places[index];
    if (at < SEGMENT_HEADER_SIZE) return EINVAL;
    SectionDesc front;
    if (at == SEGMENT_HEADER_SIZE && m_headEnd >= sizeof(m_head)) {
      front = m_head.front;
      if (index == 0) place.read = std::min<uint64_t>(m_headEnd - sizeof(m_head), roomOf(0).size());
    } else if (index != 1 || !takeFromHead(front, at)) {
      if (const int rc = readFront(front, place, at); rc != 0) return rc;
    }
    if (front.type != place.type) return EINVAL;
    place.subType = front.subType;
    place.offset = offsetSum(at, SECTION_DESC_SIZE);
    place.len = front.len;
    place.read = std::min(place.read, front.len);
    m_end = std::max(m_end, offsetSum(place.offset, front.len));
    return 0;
  }

  // Whether all that was placed lies within a regular file. A read that ended where the file does has shown
  // that: a device would have to end there too.
  int check() {
    if (m_sawEnd && m_end <= m_known) return 0;
    struct stat status {};
    errno = 0;
    if (fstat(m_fd, &status) != 0) return errno != 0 ? errno : EIO;
    return S_ISREG(status.st_mode) && m_end <= static_cast<uint64_t>(status.st_size) ? 0 : EINVAL;
  }

 private:
  std::span<unsigned char> roomOf(size_t index) const {
    if (index >= m_places.size() || !m_places[index].data) return {};
    return {m_places[index].data, m_places[index].bufferSize};
  }
  // The second place's record, if readHead() came as far: it may begin in the first one's room.
  bool takeFromHead(SectionDesc& front, uint64_t at) {
    const uint64_t payload = offsetSum(at, sizeof(front));
    const std::span<unsigned char> first = roomOf(0), second = roomOf(1);
    if (at < sizeof(m_head) || payload > m_headEnd || second.empty()) return false;
    const uint64_t secondAt = sizeof(m_head) + first.size();
    const auto byteAt = [&](uint64_t i) {
      return i < secondAt ? first[i - sizeof(m_head)] : second[i - secondAt];
    };
    auto* const bytes = reinterpret_cast<unsigned char*>(&front);
    for (uint64_t i = 0; i < sizeof(front); ++i) bytes[i] = byteAt(at + i);
    const uint64_t count = std::min<uint64_t>(m_headEnd - payload, second.size());
    const uint64_t inFirst = payload < secondAt ? std::min(secondAt - payload, count) : 0;
    if (count > inFirst) {
      std::memmove(&second[inFirst], &second[payload + inFirst - secondAt], count - inFirst);
    }
    if (inFirst > 0) std::memcpy(second.data(), &first[payload - sizeof(m_head)], inFirst);
    m_places[1].read = count;
    return true;
  }
  // The record's front and, where there is room for both, as much of the payload as fits beside it.
  int readFront(SectionDesc& front, SectionPlace& place, uint64_t at) {
    const bool isWanted = place.data && place.bufferSize >= sizeof(front);
    void* const to = isWanted ? static_cast<void*>(place.data) : &front;
    const uint64_t size = isWanted ? place.bufferSize : sizeof(front);
    const Transfer read = readAt("openSection", m_fd, to, size, at);
    const auto count = static_cast<uint64_t>(std::max<ssize_t>(read.count, 0));
    if (count < sizeof(front)) return read.error != 0 ? read.error : EIO;
    note(at, count, size);
    if (!isWanted) return 0;
    std::memcpy(&front, place.data, sizeof(front));
    place.read = count - sizeof(front);
    std::memmove(place.data, place.data + sizeof(front), place.read);
    return 0;
  }
  void note(uint64_t at, uint64_t count, uint64_t wanted) {
    m_known = std::max(m_known, offsetSum(at, count));
    m_sawEnd = m_sawEnd || (count > 0 && count < wanted);
  }
  bool isRegular() const {
    struct stat status {};
    return fstat(m_fd, &status) == 0 && S_ISREG(status.st_mode);
  }

  const int m_fd;
  std::vector<SectionPlace>& m_places;
  struct {
    SegmentHeader header;
    SectionDesc front;
  } m_head;
  uint64_t m_headEnd = 0;
  uint64_t m_end = 0;     // of all that was placed
  uint64_t m_known = 0;   // the file is at least this long,
  bool m_sawEnd = false;  // and a read found its end
};

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
  PlaceFinder finder(file.fd(), places);
  const auto damaged = [&, where = RM_CODE_LOCATION](int rc) {
    return failAt(where, LogLevel::Error, rc, "Error: [%s] is no whole segment (%d)", path.c_str(), rc);
  };
  if (const int rc = finder.readHead(); rc != 0) return damaged(rc);
  for (size_t i = 0; i < places.size(); ++i) {
    uint64_t at = 0;
    places[i].subType = 0;
    places[i].offset = places[i].len = places[i].read = 0;
    const CZuError error = findSection(&places[i].found, &at, places[i].type, finder.header());
    if (error.IsError()) return error;
    if (!places[i].found) continue;
    if (const int rc = finder.place(i, at); rc != 0) return damaged(rc);
  }
  if (const int rc = finder.check(); rc != 0) return damaged(rc);
  fd = file.release();
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

bool DiskCache::touch(const guid_t& guid) { return m_state->lru.touch(guid); }

bool DiskCache::findVolume(const guid_t& guid, VolIndex& volume) {
  return m_state->lru.findVolume(guid, volume);
}

CZuError DiskCache::remember(const DiskCacheContext& ctx, const guid_t& guid) try {
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  return m_state->lru.addToLru(guid, ctx.volume, ctx.dir);
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

void DiskCache::countFound(uint64_t segments) { m_state->space.addFiles(static_cast<int64_t>(segments)); }

void DiskCache::forget(const guid_t& guid) { m_state->lru.removeFromLru(guid); }

CZuError DiskCache::giveUpOldest(uint64_t n, uint64_t& given) try {
  return m_state->lru.giveUpOldest(n, given);
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

}  // namespace ObjectStore
