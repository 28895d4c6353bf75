#include "diskcache/diskcacheScan.h"

#include <sys/stat.h>

#include <algorithm>

#include "diskcache/diskcachePaths.h"
#include "diskcache/engineSteps.h"
#include "support/directory.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// One directory of the path that the scan has come down, and what the whole pass has in common.
struct ScanLevel {
  DiskcacheLRU& list;
  const ScanLevel* above;
  int depth;
  dev_t device;
  ino_t inode;
  VolIndex volume;
  const std::string& ctxDir;
  uint64_t& files;
  RMCodeLocation where;

  ScanLevel below(const struct stat& status) const {
    return {list, this, depth + 1, status.st_dev, status.st_ino, volume, ctxDir, files, where};
  }
  bool isWithin(const struct stat& status) const {
    for (const ScanLevel* level = this; level; level = level->above) {
      if (level->device == status.st_dev && level->inode == status.st_ino) return true;
    }
    return false;
  }
  // Whether a directory in this one is not to be entered: links are followed, but not in a circle, and each
  // level takes a descriptor and a part of the stack.
  bool isEnd(const struct stat& status, const std::string& dir, const char* name) const {
    constexpr int MAX_DEPTH = 64;
    if (isWithin(status)) {
      DC_LOG_AT(where, LogLevel::Info, "Info: [%s] leads back up, not scanned", join(dir, name, '/').c_str());
      return true;
    }
    if (depth < MAX_DEPTH) return false;
    DC_LOG_AT(where, LogLevel::Error, "Error: [%s] is more than %d directories deep, not scanned",
              join(dir, name, '/').c_str(), MAX_DEPTH);
    return true;
  }
};

int scanEntries(Directory& entries, const std::string& dir, const ScanLevel& level) {
  if (entries.error() != 0) {
    DC_LOG_AT(level.where, LogLevel::Error, "Error: can't open directory [%s] (%d)", dir.c_str(),
              entries.error());
    return entries.error();
  }
  while (entries.next()) {
    struct stat status {};
    if (const int rc = entries.status(status, true); rc != 0) {
      DC_LOG_AT(level.where, LogLevel::Error, "Error: can't stat [%s] (%d)",
                join(dir, entries.name(), '/').c_str(), rc);
      return rc;
    }
    if (S_ISDIR(status.st_mode)) {
      if (level.isEnd(status, dir, entries.name())) continue;
      Directory below(entries, entries.name());
      const int rc = scanEntries(below, join(dir, entries.name(), '/'), level.below(status));
      if (rc != 0) return rc;
      continue;
    }
    if (const CZuError error = level.list.addToLru(entries.name(), level.volume, level.ctxDir);
        error.IsError()) {
      DC_LOG_AT(level.where, LogLevel::Error, "Error: can't add to lru: [%s]: %s", entries.name(),
                error.AsString().c_str());
      entries.leaveOpen();  // meant
      return RMErrorUtil::GetErrNo(error);
    }
    if (isSegmentPlace(dir, entries.name())) ++level.files;
  }
  return 0;
}

}  // namespace

int readChildren(std::vector<std::string>& out, const std::string& dir) {
  Directory entries(dir);
  if (entries.error() != 0) {
    DC_LOG(LogLevel::Error, "Error: can't open directory [%s] (%d)", dir.c_str(), entries.error());
    return entries.error();
  }
  while (entries.next()) out.emplace_back(entries.name());
  return 0;
}

int scanDirForSegments(DiskcacheLRU& list, const std::string& dir, VolIndex volume, const std::string& ctxDir,
                       uint64_t& files) {
  Directory entries(dir);
  struct stat status {};
  if (entries.error() == 0) entries.ownStatus(status);  // without one, no link is known to lead back here
  return scanEntries(
      entries, dir,
      {list, nullptr, 0, status.st_dev, status.st_ino, volume, ctxDir, files, DC_STEP(scanDirForSegments)});
}

CZuError scanSegmentsIntoLru(DiskcacheLRU& list, DiskCacheVolumes& volumes, uint64_t& files) {
  files = 0;
  const RMCodeLocation where = DC_STEP(scanSegmentsIntoLru);
  DC_LOG_AT(where, LogLevel::Notice, "scanning segments");
  for (const auto& [index, volumeDir] : volumes.directories()) {
    if (volumeDir.empty()) continue;
    std::vector<std::string> children;
    if (const int rc = readChildren(children, volumeDir); rc != 0) {
      return failAt(where, LogLevel::Error, rc, "Error: Can't read root directories");
    }
    // The whole volume is scanned for each child, on purpose: a segment keeps the tag of the first child in
    // whose pass it was found, and later passes move it to the front.
    uint64_t most = 0;  // each pass meets the same files, unless it fails
    for (const std::string& child : children) {
      DC_LOG_AT(where, LogLevel::Segment, "scanning root [%s]", child.c_str());
      uint64_t met = 0;
      scanDirForSegments(list, volumeDir, index, child, met);
      most = std::max(most, met);
    }
    files += most;
  }
  DC_LOG_AT(where, LogLevel::Segment, "Finished scanning segments");
  return {};
}

}  // namespace ObjectStore
