// Reading a segment file without the engine: what is in it, and what is wrong with it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "diskcache/segmentFormat.h"

namespace diskcachectl {

struct Record {
  ObjectStore::SectionDesc front;
  uint64_t offset;  // of the front in the file
  bool isLive;      // the header points at it; a dead record was replaced by one further on
  uint64_t end() const { return offset + ObjectStore::SECTION_DESC_SIZE + front.len; }
};

struct SegmentLayout {
  uint64_t bytes = 0;
  uint64_t allocated = 0;
  bool isSegment = false;  // the header is whole and of a known version
  uint16_t version = 0;
  std::vector<Record> records;  // in file order
  uint64_t liveSections = 0;
  uint64_t deadBytes = 0;   // in no live record
  bool isCutShort = false;  // in the way in which a kill cuts its writing short
  int lastSection = -1;     // the type that the cache takes for the last one; -1: none
  std::vector<std::string> problems;

  // The live record of a type; null when there is none.
  const Record* find(int32_t type) const;
  // Whether a section can be read to its end; an empty one may be a front that was not written yet.
  bool hasWholeSection() const;
};

// Decodes an open file into `layout`, whose memory is used again. Returns 0, or the system error number of a
// failed read. A file that is not regular is EINVAL, a directory EISDIR.
int decodeSegment(int fd, SegmentLayout& layout);

// The same by path; symbolic links are followed.
int decodeSegment(const std::string& path, SegmentLayout& layout);

// Reads the header of an open file, which is as far as ls looks; false when it is no segment.
bool readHeader(int fd, ObjectStore::SegmentHeader& header);
// The section types that a header points at, in rising order.
void typesOf(const ObjectStore::SegmentHeader& header, std::vector<int32_t>& types);

struct Extent {
  uint64_t offset;
  uint64_t length;
};
// Where a file has no blocks.
std::vector<Extent> holesOf(int fd, uint64_t bytes);

}  // namespace diskcachectl
