#include "look/segmentDecoder.h"

#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "look/looking.h"

namespace diskcachectl {

using namespace ObjectStore;

namespace {

// One read brings the header and, in most files, the front of every record.
constexpr size_t FIRST_READ = 512;

// Thrown for a failed read, to end the decoding from wherever it is.
struct ReadError {
  int error;
};

class Decoder {
 public:
  Decoder(int fd, SegmentLayout& layout) : m_fd(fd), m_layout(layout) {}

  void run() {
    const ssize_t got = readFully(m_fd, m_begin.data(), m_begin.size(), 0);
    if (got < 0) throw ReadError{errno};
    m_got = static_cast<size_t>(got);
    if (!readHeader()) return;
    m_layout.isSegment = true;
    collectLive();
    std::sort(m_layout.records.begin(), m_layout.records.end(), isBefore);
    collectDead();
    std::sort(m_layout.records.begin(), m_layout.records.end(), isBefore);
  }

 private:
  static bool isBefore(const Record& a, const Record& b) { return a.offset < b.offset; }

  template <typename... Args>
  void report(bool isCut, fmt::format_string<Args...> format, Args&&... args) {
    m_layout.problems.push_back(fmt::format(format, std::forward<Args>(args)...));
    m_layout.isCutShort = m_layout.isCutShort || isCut;
  }
  template <typename... Args>
  void report(fmt::format_string<Args...> format, Args&&... args) {
    report(false, format, std::forward<Args>(args)...);
  }
  template <typename... Args>
  void reportCut(fmt::format_string<Args...> format, Args&&... args) {
    report(true, format, std::forward<Args>(args)...);
  }

  bool readHeader() {
    if (m_layout.bytes == 0) {
      reportCut("the file is empty");
    } else if (m_got < SEGMENT_HEADER_SIZE) {
      report(canBeFront(), "cut within the header ({} of {} bytes)", m_got, SEGMENT_HEADER_SIZE);
    } else {
      std::memcpy(&m_header, m_begin.data(), sizeof(m_header));
      m_layout.version = m_header.version;
      if (m_header.magic != DISK_CACHE_MAGIC) {
        report("not a segment (it begins with 0x{:04x})", m_header.magic);
      } else if (m_header.version != DISK_CACHE_VERSION) {
        report("of an unknown version ({})", m_header.version);
      } else {
        return true;
      }
    }
    return false;
  }

  // Whether what there is of the header may be one's, or was never written.
  bool canBeFront() const {
    const bool isMagic =
        std::memcmp(m_begin.data(), &DISK_CACHE_MAGIC, std::min(m_got, sizeof(DISK_CACHE_MAGIC))) == 0;
    const auto end = m_begin.begin() + static_cast<std::ptrdiff_t>(m_got);
    return isMagic || std::all_of(m_begin.begin(), end, [](char c) { return c == 0; });
  }

  // False when the front is not wholly in the file.
  bool readFront(uint64_t offset, SectionDesc& front) const {
    if (offset > m_layout.bytes || m_layout.bytes - offset < sizeof(front)) return false;
    if (offset + sizeof(front) <= m_got) {
      std::memcpy(&front, m_begin.data() + offset, sizeof(front));
      return true;
    }
    const ssize_t got = readFully(m_fd, &front, sizeof(front), static_cast<off_t>(offset));
    if (got < 0) throw ReadError{errno};
    return got == static_cast<ssize_t>(sizeof(front));
  }

  void collectLive() {
    uint64_t last = 0;
    for (int32_t type = 0; type <= MAX_SECTION_TYPE; ++type) {
      const uint64_t offset = m_header.sectionOffset[static_cast<size_t>(type)];
      if (offset == 0) continue;
      if (type < MAX_SECTION_NUMBER && offset > last) {
        last = offset;
        m_layout.lastSection = type;
      }
      SectionDesc front;
      if (offset < SEGMENT_HEADER_SIZE) {
        report("section {}: its record at {} lies in the header", type, offset);
      } else if (!readFront(offset, front)) {
        reportCut("section {}: its record at {} lies beyond the end", type, offset);
      } else if (front.type != type) {
        // The front is written last: before that there are zeros in its place.
        const bool isUnwritten = front.type == 0 && front.subType == 0 && front.len == 0;
        report(isUnwritten, "section {}: the record at {} is of type {}", type, offset, front.type);
      } else {
        addLive(type, offset, front);
      }
    }
  }

  void addLive(int32_t type, uint64_t offset, const SectionDesc& front) {
    const uint64_t room = m_layout.bytes - offset - SECTION_DESC_SIZE;
    if (front.len > room) {
      reportCut("section {}: of {} bytes at {} only {} are there", type, front.len, offset, room);
    }
    m_layout.records.push_back({front, offset, true});
    ++m_layout.liveSections;
  }

  // Goes through the file from record to record; what lies between two that the header points at must be
  // records as well, once written and then replaced.
  void collectDead() {
    const size_t live = m_layout.records.size();
    uint64_t at = SEGMENT_HEADER_SIZE;
    for (size_t i = 0; i < live; ++i) {
      const Record record = m_layout.records[i];
      if (record.offset < at) {
        report("section {}: its record at {} lies in the one before it", record.front.type, record.offset);
      } else {
        collectDeadBetween(at, record.offset);
      }
      const bool isCut = record.front.len > m_layout.bytes - record.offset - SECTION_DESC_SIZE;
      at = std::max(at, isCut ? m_layout.bytes : record.end());
    }
    collectDeadBetween(at, m_layout.bytes);
  }

  void collectDeadBetween(uint64_t at, uint64_t end) {
    m_layout.deadBytes += end - at;
    SectionDesc front;
    // The cache appends no empty record, so that a stretch of zeros is not taken for many of them.
    while (end - at >= sizeof(front) && readFront(at, front) && front.type >= 0 &&
           front.type <= MAX_SECTION_TYPE && front.len != 0 && front.len <= end - at - sizeof(front)) {
      m_layout.records.push_back({front, at, false});
      at = m_layout.records.back().end();
    }
    if (at < end) report("{} bytes at {} belong to no record", end - at, at);
  }

  const int m_fd;
  SegmentLayout& m_layout;
  std::array<char, FIRST_READ> m_begin;
  size_t m_got = 0;
  SegmentHeader m_header;
};

}  // namespace

const Record* SegmentLayout::find(int32_t type) const {
  const auto found = std::find_if(records.begin(), records.end(), [type](const Record& record) {
    return record.isLive && record.front.type == type;
  });
  return found == records.end() ? nullptr : &*found;
}

bool SegmentLayout::hasWholeSection() const {
  return std::any_of(records.begin(), records.end(), [this](const Record& record) {
    const uint64_t room = bytes - record.offset - SECTION_DESC_SIZE;
    return record.isLive && record.front.len != 0 && record.front.len <= room;
  });
}

int decodeSegment(int fd, SegmentLayout& layout) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  layout.records.clear();
  layout.problems.clear();
  layout.bytes = static_cast<uint64_t>(status.st_size);
  layout.allocated = static_cast<uint64_t>(status.st_blocks) * 512;
  layout.isSegment = layout.isCutShort = false;
  layout.version = 0;
  layout.liveSections = layout.deadBytes = 0;
  layout.lastSection = -1;
  try {
    Decoder(fd, layout).run();
  } catch (const ReadError& failed) {
    return failed.error;
  }
  return 0;
}

int decodeSegment(const std::string& path, SegmentLayout& layout) {
  const LookedAt file(path);
  return file.error() != 0 ? file.error() : decodeSegment(file.fd(), layout);
}

bool readHeader(int fd, SegmentHeader& header) {
  if (readFully(fd, &header, sizeof(header), 0) != static_cast<ssize_t>(sizeof(header))) return false;
  return header.magic == DISK_CACHE_MAGIC && header.version == DISK_CACHE_VERSION;
}

void typesOf(const SegmentHeader& header, std::vector<int32_t>& types) {
  types.clear();
  for (int32_t type = 0; type <= MAX_SECTION_TYPE; ++type) {
    if (header.sectionOffset[static_cast<size_t>(type)] != 0) types.push_back(type);
  }
}

std::vector<Extent> holesOf(int fd, uint64_t bytes) {
  std::vector<Extent> holes;
  const auto size = static_cast<off_t>(bytes);
  for (off_t at = 0; at < size;) {
    const off_t hole = lseek(fd, at, SEEK_HOLE);
    if (hole < 0 || hole >= size) break;  // the end counts as a hole
    off_t data = lseek(fd, hole, SEEK_DATA);
    if (data < 0) data = size;
    holes.push_back({static_cast<uint64_t>(hole), static_cast<uint64_t>(data - hole)});
    at = data;
  }
  return holes;
}

}  // namespace diskcachectl
