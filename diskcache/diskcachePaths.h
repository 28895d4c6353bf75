// Where a segment lies, and which identifiers may say so.
//
// Internal. A segment's path is root / directory / first two characters / next two / identifier.
#pragma once

#include <string>
#include <string_view>

#include "diskcache/diskcacheTypes.h"
#include "support/error.h"

namespace ObjectStore {

// Room to reserve behind a root so that a whole path is built in one allocation.
inline size_t segmentPathRoom(std::string_view dir, std::string_view guid) {
  constexpr size_t levels = NUM_DIR_LEVELS * (NUM_CHARS_PER_DIR_LEVEL + 1);
  return dir.size() + guid.size() + levels + sizeof("///.temp");
}

// Appends the two directory levels of an identifier to a path; fewer for one of less than four characters.
void appendGuidDir(std::string& path, std::string_view guid);

// Turns a root into a segment's path.
void appendSegmentPath(std::string& root, std::string_view dir, std::string_view guid);

// Whether a file in a directory may be a segment, by both their names; where the identifier is too short for a
// level, any directory will do.
bool isSegmentPlace(std::string_view dir, std::string_view name);

// Whether an identifier names a file below its context's directory and nothing else.
bool isUsableGuid(std::string_view guid);

// Whether a file's name is that of a copy being made, or left by a crash.
bool isUnfinishedCopy(std::string_view name);

// Success, or EINVAL with a log line for an identifier that is not usable.
CZuError checkGuid(const guid_t& guid, const RMCodeLocation& where);

// replaceSegment builds the new file under the temporaryName of the segment's path with this.
inline constexpr std::string_view REPLACEMENT_SUFFIX = ".temp";

// The same for the identifier of a new segment: one that ends like an unfinished file would be taken for that
// (EINVAL), and one that no file's name can hold is not left to fail half-way (ENAMETOOLONG).
CZuError checkNewGuid(const guid_t& guid, const RMCodeLocation& where);

// Turns a root into a segment's path and makes the segment's directory. ENOENT below the empty root of a
// volume that is not known: nothing is ever made in the process's working directory. Failures are logged for
// the caller.
CZuError makeSegmentPath(std::string& root, std::string_view dir, const guid_t& guid,
                         const RMCodeLocation& where);

}  // namespace ObjectStore
