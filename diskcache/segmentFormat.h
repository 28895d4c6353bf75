// The bytes of a segment file: a fixed header, then section records.
//
// An append-only log: a new record of a type that has one already goes to the end and the header is
// repointed; the older record stays as dead bytes. Integers are in native byte order (little-endian on
// x86-64); there are no checksums. docs/format.md shows the offsets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace ObjectStore {

inline constexpr uint16_t DISK_CACHE_MAGIC = 0xdcdc;
inline constexpr uint16_t DISK_CACHE_VERSION = 1;

// Section types are 0 to 5, each with a slot in the header.
inline constexpr int32_t MAX_SECTION_TYPE = 5;
// How many types the search for the last section looks at: 0 to 4. Type 5 is stored and found by type yet
// never reported as the last section; this is meant.
inline constexpr int32_t MAX_SECTION_NUMBER = 5;

struct SegmentHeader {
  uint16_t magic = 0;
  uint16_t version = 0;
  uint32_t reserved1 = 0;
  // File offset of the newest record of each type; 0 when there is none (the header lies there).
  std::array<uint64_t, MAX_SECTION_TYPE + 1> sectionOffset{};
  std::array<uint64_t, 10> reserved2{};
};

// The front of a section record; `len` payload bytes follow it.
struct SectionDesc {
  int32_t type = 0;
  int32_t subType = 0;  // chosen by the client, not interpreted
  uint64_t len = 0;
};

inline constexpr uint64_t SEGMENT_HEADER_SIZE = 136;
inline constexpr uint64_t SECTION_DESC_SIZE = 16;

static_assert(sizeof(SegmentHeader) == SEGMENT_HEADER_SIZE);
static_assert(offsetof(SegmentHeader, version) == 2);
static_assert(offsetof(SegmentHeader, sectionOffset) == 8);
static_assert(offsetof(SegmentHeader, reserved2) == 56);
static_assert(sizeof(SectionDesc) == SECTION_DESC_SIZE);
static_assert(offsetof(SectionDesc, subType) == 4);
static_assert(offsetof(SectionDesc, len) == 8);

// File offset of the header slot of a type in 0 to 5.
constexpr uint64_t sectionSlotOffset(int32_t type) {
  return (static_cast<uint64_t>(type) + 1) * sizeof(uint64_t);
}
static_assert(sectionSlotOffset(0) == offsetof(SegmentHeader, sectionOffset));

}  // namespace ObjectStore
