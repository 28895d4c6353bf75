// The start-up scan that fills the recency list from the volumes' directory trees.
//
// Internal. Used on one thread, before others know of the engine. Every file counts as a segment, whatever
// its name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheVolume.h"
#include "support/error.h"

namespace ObjectStore {

// Enters the files below every volume. An error for a volume that cannot be listed; those after it are not
// scanned. Sets `files` to how many of them lie where segments do, as far as the scan came.
CZuError scanSegmentsIntoLru(DiskcacheLRU& list, DiskCacheVolumes& volumes, uint64_t& files);

// Enters the files below `dir` as those of a volume and a context's directory, and adds the number of those
// where a segment may lie to `files`; 0 or a system error number, which is logged.
int scanDirForSegments(DiskcacheLRU& list, const std::string& dir, VolIndex volume, const std::string& ctxDir,
                       uint64_t& files);

// Appends the names in a directory, files and directories alike, in the order the system gives them; 0 or a
// system error number, which is logged.
int readChildren(std::vector<std::string>& out, const std::string& dir);

}  // namespace ObjectStore
