// The start-up scan that fills the recency list from the volumes' directory trees.
#include "diskcache/diskcacheScan.h"

#include <sys/stat.h>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheLru.h"
#include "support/directory.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

int readChildren(std::vector<std::string>& out, const std::string& dir) {
  Directory entries(dir);
  if (entries.error() != 0) {
    DC_LOG(LogLevel::Error, "Error: can't open directory [%s] (%d)", dir.c_str(), entries.error());
    return entries.error();
  }
  while (entries.next()) out.emplace_back(entries.name());
  return 0;
}

int DiskCache::scanDirForSegments(const std::string& dir, VolIndex volume, const std::string& ctxDir) {
  Directory entries(dir);
  return scanEntries(entries, dir, volume, ctxDir);
}

int DiskCache::scanEntries(Directory& entries, const std::string& dir, VolIndex volume,
                           const std::string& ctxDir) {
  if (entries.error() != 0) {
    DC_LOG(LogLevel::Error, "Error: can't open directory [%s] (%d)", dir.c_str(), entries.error());
    return entries.error();
  }
  while (entries.next()) {
    struct stat status {};
    if (const int rc = entries.status(status, true); rc != 0) {
      DC_LOG(LogLevel::Error, "Error: can't stat [%s] (%d)", join(dir, entries.name(), '/').c_str(), rc);
      return rc;
    }
    if (S_ISDIR(status.st_mode)) {
      Directory below(entries, entries.name());
      if (const int rc = scanEntries(below, join(dir, entries.name(), '/'), volume, ctxDir); rc != 0)
        return rc;
      continue;
    }
    // Every file counts as a segment, whatever its name.
    if (const CZuError error = m_lru->addToLru(entries.name(), volume, ctxDir); error.IsError()) {
      DC_LOG(LogLevel::Error, "Error: can't add to lru: [%s]: %s", entries.name(), error.AsString().c_str());
      entries.leaveOpen();  // meant
      return RMErrorUtil::GetErrNo(error);
    }
  }
  return 0;
}

CZuError DiskCache::scanSegmentsIntoLru() {
  DC_LOG(LogLevel::Notice, "scanning segments");
  const KxCriticalSectionLock lruLock(&m_lru->m_lruLock);
  const KxCriticalSectionLock lock(&m_volumeLock);
  for (const auto& [index, volume] : m_volumes) {
    if (volume.dir.empty()) continue;
    std::vector<std::string> children;
    if (const int rc = readChildren(children, volume.dir); rc != 0) {
      return DC_FAIL(LogLevel::Error, rc, "Error: Can't read root directories");
    }
    // The whole volume is scanned for each child, on purpose: a segment keeps the tag of the first child in
    // whose pass it was found, and later passes move it to the front.
    for (const std::string& child : children) {
      DC_LOG(LogLevel::Segment, "scanning root [%s]", child.c_str());
      scanDirForSegments(volume.dir, index, child);
    }
  }
  DC_LOG(LogLevel::Segment, "Finished scanning segments");
  return {};
}

}  // namespace ObjectStore
