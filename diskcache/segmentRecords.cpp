#include "diskcache/segmentRecords.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "diskcache/engineSteps.h"
#include "diskcache/segmentFile.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

SegmentHeader freshHeader() {
  SegmentHeader header;
  header.magic = DISK_CACHE_MAGIC;
  header.version = DISK_CACHE_VERSION;
  return header;
}

CZuError checkHeader(const SegmentHeader& header, const RMCodeLocation& where) {
  if (header.magic != DISK_CACHE_MAGIC) {
    return failAt(where, LogLevel::Error, EINVAL, "Error: incorrect magic number (0x%0x)",
                  unsigned{header.magic});
  }
  if (header.version != DISK_CACHE_VERSION) {
    return failAt(where, LogLevel::Error, EINVAL, "Error: incorrect disk cache version (0x%0x)",
                  unsigned{header.version});
  }
  return {};
}

bool isSectionType(int type) { return type >= 0 && type <= MAX_SECTION_TYPE; }

uint64_t printable(ssize_t count) { return static_cast<uint64_t>(count); }

CZuError checkLength(const Section& s, const RMCodeLocation& where) {
  if (s.len > s.bufferSize) return failAt(where, LogLevel::Error, EINVAL, "Error: len exceeds vector size");
  // The system would move a part only, and the section would never be whole.
  if (s.len > MAX_TRANSFER)
    return failAt(where, LogLevel::Error, EFBIG, "Error: section too long (%lu)", s.len);
  return {};
}

}  // namespace

CZuError SegmentRecords::writeSegmentHeader(int fd) {
  const SegmentHeader header = freshHeader();
  const Transfer written = timedWrite(__func__, sizeof(header), [&](uint64_t done) {
    return ::write(fd, reinterpret_cast<const char*>(&header) + done, sizeof(header) - done);
  });
  if (written.moved(sizeof(header))) return {};
  m_space.countRefusal(written.error);
  return failAt(DC_STEP(writeSegmentHeader), LogLevel::Error, written.error, "Error: Can't write header (%d)",
                written.error);
}

CZuError writeSegmentHeader(std::FILE* stream) {
  const SegmentHeader header = freshHeader();
  const auto [items, error] =
      timedCall(__func__, PERF_DISK_WRITE, [&] { return std::fwrite(&header, sizeof(header), 1, stream); });
  if (items == 1) return {};
  return failAt(DC_STEP(writeSegmentHeaderToStream), LogLevel::Error, error, "Error: Can't write header (%d)",
                error);
}

CZuError readSegmentHeader(SegmentHeader& header, int fd) {
  const auto [count, error] =
      timedCall(__func__, PERF_DISK_READ, [&] { return ::read(fd, &header, sizeof(header)); });
  if (count != static_cast<ssize_t>(sizeof(header))) {
    // A file cut within its header: the system reports no error of its own.
    return failAt(DC_STEP(readSegmentHeader), LogLevel::Error, error != 0 ? error : EIO,
                  "Error: can't read segment header, size=%zd (%d)", count, error);
  }
  return checkHeader(header, DC_STEP(readSegmentHeader));
}

CZuError readSegmentHeader(SegmentHeader& header, std::FILE* stream) {
  errno = 0;
  if (std::fseek(stream, 0, SEEK_SET) != 0) {
    const int error = errno;
    return failAt(DC_STEP(readSegmentHeaderFromStream), LogLevel::Error, error, "Error: can't seek to 0 (%d)",
                  error);
  }
  // Timed as a write, and without EIO for a short file: both are meant.
  const auto [items, error] =
      timedCall(__func__, PERF_DISK_WRITE, [&] { return std::fread(&header, sizeof(header), 1, stream); });
  if (items != 1)
    return failAt(DC_STEP(readSegmentHeaderFromStream), LogLevel::Error, error,
                  "Error: can't read segment header (%d)", error);
  return checkHeader(header, DC_STEP(readSegmentHeaderFromStream));
}

// In mode Random the pruner gets one second to make room.
bool SegmentRecords::waitForRoom(VolIndex volume, uint64_t bytes, const RMCodeLocation& where) {
  if (m_volumes.freeBytesOf(volume) >= bytes) return true;
  if (m_settings.pruningMode == PruningMode::Random) {
    m_space.wakePruner();
    DC_LOG_AT(where, LogLevel::Notice, "Out of space, trying to free more");
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  return m_volumes.freeBytesOf(volume) >= bytes;
}

CZuError SegmentRecords::appendSection(int fd, VolIndex volume, const Section& s) {
  const RMCodeLocation where = DC_STEP(appendSection);
  if (s.len == 0) return failAt(where, LogLevel::Error, EINVAL, "Error: zero length");
  if (const CZuError error = checkLength(s, where); error.IsError()) return error;
  if (!isSectionType(s.type))
    return failAt(where, LogLevel::Error, EINVAL, "Error: invalid section type (%d)", s.type);
  if (!waitForRoom(volume, s.len, where)) {
    m_space.countRefusal(ENOSPC);
    return failAt(where, LogLevel::NoSpace, ENOSPC, "Error: out of space");
  }

  const SectionDesc front{s.type, s.subType, offsetSum(s.off, s.len)};
  const auto end = timedCall(__func__, PERF_SEEK, [&] { return lseek(fd, 0, SEEK_END); });
  const auto pos = static_cast<uint64_t>(end.value);  // not checked: a failed seek fails in the writes

  // The header points at the record before the record is there: a caller throws the file away on failure.
  const Transfer slot = writeAt(__func__, fd, &pos, sizeof(pos), sectionSlotOffset(s.type));
  if (!slot.moved(sizeof(pos))) {
    const int level = m_space.writeFailureLevel(slot.error);
    return failAt(where, level, slot.error, "Error: can't write to file %d (%lu,%d)", fd,
                  printable(slot.count), slot.error);
  }
  const uint64_t payload = offsetSum(offsetSum(pos, SECTION_DESC_SIZE), s.off);
  const Transfer data = writeAt(__func__, fd, s.data, s.len, payload);
  if (!data.moved(s.len)) {
    const int level = m_space.writeFailureLevel(data.error);
    return failAt(where, level, data.error, "Error: can't write to file %d (%lu,%d) len=%lu", fd,
                  printable(data.count), data.error, s.len);
  }
  const Transfer desc = writeAt(__func__, fd, &front, sizeof(front), pos);
  if (!desc.moved(sizeof(front))) {
    const int level = m_space.writeFailureLevel(desc.error);
    return failAt(where, level, desc.error, "Error: can't write to file %d (%lu,%d) len=%lu", fd,
                  printable(desc.count), desc.error, sizeof(front));
  }
  return {};
}

CZuError SegmentRecords::modifySection(int fd, const Section& s, uint64_t secOff, KxCriticalSection& lock) {
  const RMCodeLocation where = DC_STEP(modifySection);
  DC_LOG_AT(where, LogLevel::Segment, "modifySection len=%lu off=%lu secOff=%lu", s.len, s.off, secOff);
  if (const CZuError error = checkLength(s, where); error.IsError()) return error;
  const Transfer data = [&] {
    const KxCriticalSectionUnlock unlock(lock);  // others may work on the segment while the bytes move
    return writeAt("modifySection", fd, s.data, s.len,
                   offsetSum(offsetSum(secOff, SECTION_DESC_SIZE), s.off));
  }();
  if (!data.moved(s.len)) {
    m_space.countRefusal(data.error);
    return failAt(where, LogLevel::Error, data.error, "Error: can't write to file %d (%d), [%lu]", fd,
                  data.error, s.off);
  }

  SectionDesc front;
  const Transfer read = readAt(__func__, fd, &front, sizeof(front), secOff);
  if (!read.moved(sizeof(front))) {
    return failAt(where, LogLevel::Error, read.error, "Error: can't read from file %d (%d)", fd, read.error);
  }
  if (front.type != s.type || front.subType != s.subType) {
    // The data is on disk by now and stays. The missing slash is known to clients.
    return failAt(where, LogLevel::Error, EINVAL, "Error: writing different section %d/%d->%d%d", s.type,
                  s.subType, front.type, front.subType);
  }
  const uint64_t length = std::max(front.len, offsetSum(s.off, s.len));
  DC_LOG_AT(where, LogLevel::Segment, "desc.len=%lu", length);
  const Transfer written =
      writeAt(__func__, fd, &length, sizeof(length), offsetSum(secOff, offsetof(SectionDesc, len)));
  if (!written.moved(sizeof(length))) {
    const int level = m_space.writeFailureLevel(written.error);
    return failAt(where, level, written.error, "Error: can't write to file %d (%d)", fd, written.error);
  }
  return {};
}

CZuError findSection(bool* found, uint64_t* offset, int type, const SegmentHeader& header) {
  *found = false;
  if (!isSectionType(type))
    return failAt(DC_STEP(findSection), LogLevel::Error, EINVAL, "Error: invalid section type (%d)", type);
  *offset = header.sectionOffset[static_cast<size_t>(type)];
  *found = *offset != 0;
  return {};
}

CZuError findLastSection(int* type, uint64_t* offset, const SegmentHeader& header) {
  *type = -1;
  *offset = 0;
  for (int t = 0; t < MAX_SECTION_NUMBER; ++t) {
    const uint64_t at = header.sectionOffset[static_cast<size_t>(t)];
    if (at <= *offset) continue;
    *offset = at;
    *type = t;
  }
  return {};
}

}  // namespace ObjectStore
