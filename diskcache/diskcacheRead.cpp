// The five readers. They take no lock and never write: each call opens the file for itself, and what a read
// beside a write returns is what the file holds at that moment.
#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <memory>

#include "diskcache/diskcache.h"
#include "diskcache/diskcachePaths.h"
#include "diskcache/diskcacheState.h"
#include "diskcache/segmentFile.h"
#include "diskcache/segmentRecords.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr int READ_FLAGS = O_RDONLY | O_NOATIME;

uint64_t printable(ssize_t count) { return static_cast<uint64_t>(count); }

struct StreamCloser {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, StreamCloser>;

// 0 or why a segment's file cannot be had as a stream.
int openStream(Stream& stream, const std::string& path, const char* operation) {
  SegmentFile file(operation);
  if (!file.open(path, O_RDONLY)) return file.error();
  errno = 0;
  stream.reset(fdopen(file.fd(), "rb"));
  if (!stream) return errno;
  file.leaveOpen();  // the stream closes it
  return 0;
}

// Whether a record's payload can be in the file, so that a damaged length costs no giant allocation. The
// size is asked for again when the last answer is too small: a writer may have appended since. `error` is set
// when the size cannot be had.
bool payloadFits(int fd, uint64_t recordOffset, uint64_t length, uint64_t& fileSize, int& error) {
  if (length > std::numeric_limits<uint32_t>::max()) return false;
  const uint64_t end = offsetSum(offsetSum(recordOffset, SECTION_DESC_SIZE), length);
  if (end > fileSize) error = getFileSize(&fileSize, nullptr, fd);
  return end <= fileSize;
}

// The records that the header points at, in file order.
std::vector<uint64_t> recordOffsets(const SegmentHeader& header) {
  std::vector<uint64_t> offsets;
  std::copy_if(header.sectionOffset.begin(), header.sectionOffset.end(), std::back_inserter(offsets),
               [](uint64_t offset) { return offset != 0; });
  std::sort(offsets.begin(), offsets.end());
  return offsets;
}

// 0 or why the stream cannot go there; an offset that no file can have is EINVAL.
int seekTo(std::FILE* stream, uint64_t offset) {
  if (!isFileOffset(offset)) return EINVAL;
  errno = 0;
  if (std::fseek(stream, static_cast<long>(offset), SEEK_SET) == 0) return 0;
  return errno != 0 ? errno : EIO;
}

CZuError openForRead(DiskCacheState& engine, SegmentFile& file, std::string& path, SegmentHeader& header,
                     const DiskCacheContext& ctx, const guid_t& guid, const RMCodeLocation& where) {
  const int rc = engine.places.lookUntilCertain(ctx, [&] {
    path = engine.places.pathInUse(ctx, guid);
    return file.open(path, READ_FLAGS) ? 0 : file.error();
  });
  if (file.fd() < 0) {
    return failAt(where, LogLevel::Error, rc, "Error: can't open file [%s] (%d)", path.c_str(), rc);
  }
  const CZuError error = readSegmentHeader(header, file.fd());
  if (error.IsError()) logAt(where, LogLevel::Error, "Error: invalid segment header for [%s]", path.c_str());
  return error;
}

CZuError wrongType(const RMCodeLocation& where, int found, int expected) {
  return failAt(where, LogLevel::Error, EINVAL, "Error: wrong type found=%d expected=%d", found, expected);
}

}  // namespace

namespace {

// Reads what the section at a place in the request asks for.
CZuError readSection(Section& s, size_t place, SegmentFile& file, const std::string& path,
                     const SegmentHeader& header, const RMCodeLocation& where) {
  constexpr const char* operation = "readSections";
  bool found = false;
  uint64_t off = SEGMENT_HEADER_SIZE;
  if (const CZuError error = findSection(&found, &off, s.type, header); error.IsError()) {
    DC_LOG_AT(where, LogLevel::Error, "Error: can't search for section in [%s]", path.c_str());
    return error;
  }
  if (!found) {
    s.len = 0;
    s.status = ENOENT;
    DC_LOG_AT(where, LogLevel::Segment, "can't find section %zd (%d/%d) in [%s]", static_cast<ssize_t>(place),
              s.type, s.subType, path.c_str());
    return {};
  }
  SectionDesc front;
  const Transfer read = readAt(operation, file.fd(), &front, sizeof(front), off);
  if (!read.moved(sizeof(front))) {
    DC_LOG_AT(where, LogLevel::Error, "Error: can't read descriptor [%s] len=%zd (%lu,%d)", path.c_str(),
              static_cast<ssize_t>(sizeof(front)), printable(read.count), read.error);
    if (read.error == ESPIPE) return RMErrorUtil::ErrorErrNo(where, ESPIPE);  // no file, a FIFO
    s.len = 0;
    return {};
  }
  if (front.len != 0 && front.type != s.type) {
    file.leaveOpen();  // meant
    return wrongType(where, front.type, s.type);
  }
  DC_LOG_AT(where, LogLevel::Segment, "found section %d off=%lu len=%lu", s.type, off, front.len);
  const uint64_t n = front.len >= s.off ? std::min(front.len - s.off, s.bufferSize) : 0;
  DC_LOG_AT(where, LogLevel::Segment, "data size = %lu", n);
  if (n > 0) {
    const uint64_t payload = offsetSum(offsetSum(off, SECTION_DESC_SIZE), s.off);
    const Transfer data = readAt(operation, file.fd(), s.data, n, payload);
    if (!data.moved(n)) {
      return failAt(where, LogLevel::Error, data.error, "Error: can't read file [%s] len=%lu (%lu,%d)",
                    path.c_str(), n, printable(data.count), data.error);
    }
  }
  s.len = n;
  return {};
}

}  // namespace

CZuError DiskCache::readSections(const DiskCacheContext& ctx, const guid_t& guid,
                                 std::vector<Section>& sections, bool updateLru) try {
  const TimeFunction timer(__func__, PERF_DISK_READ_OP);
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "cache: reading segment [%s] vol=%d secs=%lu", guid.c_str(), ctx.volume,
         sections.size());
  if (updateLru) {
    if (const CZuError error = m_state->lru.touchSegment(guid, ctx.volume, ctx.dir, RM_CODE_LOCATION);
        error.IsError())
      return error;
  }
  SegmentFile file(__func__);
  SegmentHeader header;
  std::string path;
  if (const CZuError error = openForRead(*m_state, file, path, header, ctx, guid, RM_CODE_LOCATION);
      error.IsError()) {
    return error;
  }
  for (size_t i = 0; i < sections.size(); ++i) {
    if (const CZuError error = readSection(sections[i], i, file, path, header, RM_CODE_LOCATION);
        error.IsError())
      return error;
  }
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

namespace {

// A segment's records read one after the other, as a stream.
struct RecordStream {
  const std::string& path;
  const RMCodeLocation where;
  Stream stream{};
  uint64_t fileSize = 0;
  uint64_t taken = 0;  // bytes of payload so far: those of a whole segment do not overlap

  // False for a record that cannot be reached, which is logged.
  bool readFront(SectionDesc& front, uint64_t offset, size_t place) const;
  CZuError readPayload(SectionV& section, uint64_t offset);
};

constexpr const char* READ_ALL = "readAllSections";

bool RecordStream::readFront(SectionDesc& front, uint64_t offset, size_t place) const {
  if (const int rc = seekTo(stream.get(), offset); rc != 0) {
    DC_LOG_AT(where, LogLevel::Error, "Error: Can't seek to %lu in [%s] (%d)", offset, path.c_str(), rc);
    return false;
  }
  const auto read =
      timedCall(READ_ALL, PERF_DISK_READ, [&] { return std::fread(&front, sizeof(front), 1, stream.get()); });
  if (read.value == 1) return true;
  DC_LOG_AT(where, LogLevel::Error, "Error: incomplete descriptor in [%s] section %d (%zd,%d)", path.c_str(),
            static_cast<int>(place), static_cast<ssize_t>(read.value), read.error);
  return false;
}

CZuError RecordStream::readPayload(SectionV& section, uint64_t offset) {
  const auto sought = timedCall(READ_ALL, PERF_SEEK,
                                [&] { return seekTo(stream.get(), offsetSum(offset, SECTION_DESC_SIZE)); });
  if (sought.value != 0) {
    return failAt(where, LogLevel::Error, sought.value, "Error: Can't seek to %lu in [%s] (%d)", offset,
                  path.c_str(), sought.value);
  }
  size_t items = 0;  // stays 0 for a length of 0: an empty record is an error here, and this is meant
  int readError = 0;
  if (payloadFits(fileno(stream.get()), offset, section.len, fileSize, readError) &&
      taken + section.len <= fileSize) {
    taken += section.len;
    std::vector<unsigned char>& data = section.data;
    data.resize(section.len);
    const auto result = timedCall(READ_ALL, PERF_DISK_READ,
                                  [&] { return std::fread(data.data(), data.size(), 1, stream.get()); });
    items = result.value;
    readError = result.error;
  }
  if (items == 1) return {};
  DC_LOG_AT(where, LogLevel::Error, "Error: can't read file [%s] len=%lu (%d)", path.c_str(), section.len,
            readError);
  errno = readError;
  stream.reset();
  countFailure(errno);
  return RMErrorUtil::ErrorErrNo(where, errno);  // as it stands after the close
}

// Opens the segment and reads its header.
CZuError openStreamForRead(DiskCacheState& engine, RecordStream& records, std::string& path,
                           SegmentHeader& header, const DiskCacheContext& ctx, const guid_t& guid) {
  Stream& stream = records.stream;
  const int openError = engine.places.lookUntilCertain(ctx, [&] {
    path = engine.places.pathInUse(ctx, guid);
    return openStream(stream, path, READ_ALL);
  });
  if (!stream) {
    return failAt(records.where, LogLevel::Error, openError, "Error: can't open file [%s] (%d)", path.c_str(),
                  openError);
  }
  if (const int rc = getFileSize(&records.fileSize, nullptr, stream.get()); rc != 0) {
    return failAt(records.where, LogLevel::Error, rc, "Error: can't get file size for [%s] (%d)",
                  path.c_str(), rc);
  }
  const CZuError error = readSegmentHeader(header, stream.get());
  if (error.IsError())
    logAt(records.where, LogLevel::Error, "Error: invalid segment header for [%s]", path.c_str());
  return error;
}

}  // namespace

CZuError DiskCache::readAllSections(const DiskCacheContext& ctx, const guid_t& guid,
                                    std::vector<SectionV>& sections) try {
  const TimeFunction timer(__func__, PERF_DISK_READ_OP);
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "cache: readall segment [%s] vol=%d", guid.c_str(), ctx.volume);
  if (const CZuError error = m_state->lru.touchSegment(guid, ctx.volume, ctx.dir, RM_CODE_LOCATION);
      error.IsError())
    return error;
  if (!sections.empty()) return DC_FAIL(LogLevel::Error, EINVAL, "Error: sections must be empty");

  std::string path;
  RecordStream records{path, RM_CODE_LOCATION};
  SegmentHeader header;
  if (const CZuError error = openStreamForRead(*m_state, records, path, header, ctx, guid); error.IsError())
    return error;
  const std::vector<uint64_t> offsets = recordOffsets(header);
  sections.resize(offsets.size());
  for (size_t j = 0; j < offsets.size(); ++j) {
    if (!records.readFront(sections[j], offsets[j], j)) {
      sections.pop_back();  // this ends the call with success and one element less: meant
      return {};
    }
    if (const CZuError error = records.readPayload(sections[j], offsets[j]); error.IsError()) return error;
  }
  return {};
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

namespace {

CZuError readWholeSection(std::vector<unsigned char>& data, int32_t type, uint64_t off, SegmentFile& file,
                          const std::string& path, const RMCodeLocation& where) {
  constexpr const char* operation = "readCompleteSection";
  SectionDesc front;
  const Transfer read = readAt(operation, file.fd(), &front, sizeof(front), off);
  if (!read.moved(sizeof(front))) {
    return failAt(where, LogLevel::Error, read.error, "Error: can't read file [%s] (%lu,%d)", path.c_str(),
                  printable(read.count), read.error);
  }
  if (front.type != type) {
    file.leaveOpen();  // meant
    return wrongType(where, front.type, type);
  }
  Transfer payload{0, 0};
  uint64_t fileSize = 0;
  if (payloadFits(file.fd(), off, front.len, fileSize, payload.error)) {
    data.resize(front.len);
    payload = readAt(operation, file.fd(), data.data(), front.len, offsetSum(off, SECTION_DESC_SIZE));
  }
  if (!payload.moved(front.len)) {
    return failAt(where, LogLevel::Error, payload.error, "Error: can't read file [%s] len=%lu (%lu,%d)",
                  path.c_str(), front.len, printable(payload.count), payload.error);
  }
  DC_LOG_AT(where, LogLevel::Segment, "read %lu bytes", front.len);
  return {};
}

}  // namespace

CZuError DiskCache::readCompleteSection(const DiskCacheContext& ctx, const guid_t& guid, int32_t type,
                                        std::vector<unsigned char>& data) try {
  const TimeFunction timer(__func__, PERF_DISK_READ_OP);
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "cache: read segment [%s] vol=%d section %d", guid.c_str(), ctx.volume, type);
  if (const CZuError error = m_state->lru.touchSegment(guid, ctx.volume, ctx.dir, RM_CODE_LOCATION);
      error.IsError())
    return error;

  SegmentFile file(__func__);
  SegmentHeader header;
  std::string path;
  if (const CZuError error = openForRead(*m_state, file, path, header, ctx, guid, RM_CODE_LOCATION);
      error.IsError()) {
    return error;
  }
  // The descriptor stays open on the failure paths that say so: this is meant.
  bool found = false;
  uint64_t off = SEGMENT_HEADER_SIZE;
  if (const CZuError error = findSection(&found, &off, type, header); error.IsError()) {
    file.leaveOpen();
    return pushAndLog(error, RM_CODE_LOCATION, "Error: Can't find sections in [%s]", guid.c_str());
  }
  if (!found) {
    file.leaveOpen();
    DC_LOG(LogLevel::Segment, "Can't find section %d in [%s]", type, guid.c_str());
    return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOENT, "Can't find section %d in [%s]", type,
                                   guid.c_str());
  }
  return readWholeSection(data, type, off, file, path, RM_CODE_LOCATION);
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

CZuError DiskCache::getSectionSize(uint64_t& size, const DiskCacheContext& ctx, const guid_t& guid,
                                   int32_t type, int32_t sub) try {
  if (const CZuError error = checkGuid(guid, RM_CODE_LOCATION); error.IsError()) return error;
  DC_LOG(LogLevel::Segment, "getting section size for [%s] vol=%d type=%d sub=%d", guid.c_str(), ctx.volume,
         type, sub);
  SegmentFile file(__func__);
  SegmentHeader header;
  std::string path;
  if (const CZuError error = openForRead(*m_state, file, path, header, ctx, guid, RM_CODE_LOCATION);
      error.IsError()) {
    return error;
  }
  bool found = false;
  uint64_t off = SEGMENT_HEADER_SIZE;
  if (const CZuError error = findSection(&found, &off, type, header); error.IsError()) return error;
  if (!found) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOENT);
  SectionDesc front;
  const Transfer read = readAt(__func__, file.fd(), &front, sizeof(front), off);
  if (!read.moved(sizeof(front))) {
    return DC_FAIL(LogLevel::Error, read.error, "Error: can't read file [%s] len=%zd (%lu,%d)", path.c_str(),
                   static_cast<ssize_t>(sizeof(front)), printable(read.count), read.error);
  }
  size = front.len;  // also of a record of another type
  return front.type == type ? CZuError() : wrongType(RM_CODE_LOCATION, front.type, type);
} catch (...) {
  return failWithException(RM_CODE_LOCATION);
}

// Unlike getOverriddenSegment, an empty nonprunableDir is not looked into: both tests are meant as they are.
bool DiskCache::doesSegmentExist(const DiskCacheContext& ctx, const guid_t& guid) try {
  if (checkGuid(guid, RM_CODE_LOCATION).IsError()) return false;
  std::string path;
  const auto isIn = [&](const std::string& dir) {
    return m_state->places.isCopyThere(path, guid, ctx.volume, dir);
  };
  const bool exists = m_state->places.lookUntilCertain(ctx, [&] {
    if (ctx.useNonPrunableDir && !ctx.nonprunableDir.empty() && isIn(ctx.nonprunableDir)) return 0;
    return isIn(ctx.dir) ? 0 : ENOENT;
  }) == 0;
  DC_LOG(LogLevel::Segment, exists ? "[%s] exists" : "[%s] does not exist", path.c_str());
  return exists;
} catch (...) {
  (void)failWithException(RM_CODE_LOCATION);  // logged; the result has no room for a number
  return false;
}

}  // namespace ObjectStore
