#include "diskcache/diskcachePaths.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// The characters of one directory level; empty when the identifier ends before it is full.
std::string_view guidLevel(std::string_view guid, size_t level) {
  constexpr size_t width = NUM_CHARS_PER_DIR_LEVEL;
  return (level + 1) * width > guid.size() ? std::string_view() : guid.substr(level * width, width);
}

void appendSegmentDir(std::string& root, std::string_view dir, std::string_view guid) {
  if (!dir.empty()) appendPath(root, dir);
  appendGuidDir(root, guid);
}

CZuError refuse(const guid_t& guid, int errNo, const RMCodeLocation& where) {
  return failAt(where, LogLevel::Error, errNo, "Error: invalid segment identifier [%s]", guid.c_str());
}

}  // namespace

// At once, since every operation comes by here.
void appendGuidDir(std::string& path, std::string_view guid) {
  constexpr size_t width = NUM_CHARS_PER_DIR_LEVEL;
  std::array<char, NUM_DIR_LEVELS*(width + 1)> text;
  const size_t levels = std::min(guid.size() / width, size_t{NUM_DIR_LEVELS});
  for (size_t level = 0; level < levels; ++level) {
    text[level * (width + 1)] = '/';
    memcpy(&text[level * (width + 1) + 1], guid.data() + level * width, width);
  }
  if (levels != 0) appendPath(path, {&text[1], levels * (width + 1) - 1});
}

void appendSegmentPath(std::string& root, std::string_view dir, std::string_view guid) {
  appendSegmentDir(root, dir, guid);
  appendPath(root, guid);
}

bool isSegmentPlace(std::string_view dir, std::string_view name) {
  if (isUnfinishedCopy(name) || name.ends_with(REPLACEMENT_SUFFIX)) return false;
  std::string place;
  appendGuidDir(place, name);
  return place.empty() || dir.ends_with('/' + place);
}

bool isUsableGuid(std::string_view guid) {
  if (guid.empty() || guid == "." || guid == "..") return false;
  // Two searches for one character each: the library's search for a set costs a call a character.
  if (guid.find('/') != std::string_view::npos || guid.find('\0') != std::string_view::npos) return false;
  // A level ".." would lead out of the context's directory.
  return guidLevel(guid, 0) != ".." && guidLevel(guid, 1) != "..";
}

bool isUnfinishedCopy(std::string_view name) { return name.ends_with(RMFile::COPY_SUFFIX); }

CZuError checkGuid(const guid_t& guid, const RMCodeLocation& where) {
  return isUsableGuid(guid) ? CZuError() : refuse(guid, EINVAL, where);
}

CZuError checkNewGuid(const guid_t& guid, const RMCodeLocation& where) {
  if (guid.size() > NAME_MAX) return refuse(guid, ENAMETOOLONG, where);
  if (isUnfinishedCopy(guid) || guid.ends_with(REPLACEMENT_SUFFIX)) return refuse(guid, EINVAL, where);
  return checkGuid(guid, where);
}

CZuError makeSegmentPath(std::string& root, std::string_view dir, const guid_t& guid,
                         const RMCodeLocation& where) {
  const bool known = !root.empty();
  appendSegmentDir(root, dir, guid);
  if (const int rc = known ? createDir(root) : ENOENT; rc != 0) {
    return failAt(where, LogLevel::Error, rc, "Error: Can't create directory for segment creation: [%s]",
                  root.c_str());
  }
  appendPath(root, guid);
  return {};
}

}  // namespace ObjectStore
