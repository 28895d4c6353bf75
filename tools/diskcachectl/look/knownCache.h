// A cache as its own files tell of it, looked at without an engine: its volumes, and where a segment lies.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "look/volumeFile.h"

namespace diskcachectl {

// What to do with a directory that is not among a cache's volumes.
enum class Stranger {
  Accept,  // to look at
  Refuse,  // it would become a volume
  Add,     // it is to become one
};

// One file of a segment.
struct FoundCopy {
  ObjectStore::VolIndex volume = 0;  // 0: a directory that the cache does not know
  std::string directory;             // the volume's
  std::string context;
  std::string path;
};

class KnownCache {
 public:
  // Reads the root's files; names lines of them that make no sense. Throws a Failure when there is no root.
  explicit KnownCache(std::string root);

  // The directories that a command works on: those given, as the cache spells them, or all that it knows. Throws a
  // Failure (bad input) when there is none, or one that is refused.
  std::vector<std::string> choose(const std::vector<std::string>& given, Stranger stranger) const;
  // The same, but volumes that are not there are named and left out, save one that is to be added; at least one is
  // left.
  std::vector<std::string> choosePresent(const std::vector<std::string>& given, Stranger stranger) const;

  // Throws a Failure while a volume is being moved, or when a move was cut short.
  void refuseMove() const;

  // A segment's files below the known volumes and `dirs`, as readers look for it: a migration's destination before
  // its source, a non-prunable file before the other one of its volume. `nonprunable` may be empty.
  std::vector<FoundCopy> find(const std::vector<std::string>& dirs, const std::string& context,
                              const std::string& nonprunable, const std::string& id) const;

  const std::string root;
  std::vector<KnownVolume> volumes;
  std::optional<Migration> migration;
  bool isObjectCache = false;  // of named objects: "blocks" and "staged" on its volumes
};

// VOLUME/CONTEXT/ab/cd/IDENTIFIER
std::string segmentPath(const std::string& volume, const std::string& context, const std::string& id);

// Without links, and whole; one that does not lead anywhere as it is.
std::string canonicalPath(const std::string& path);
// What of a path is below one of the volumes; all of it when it is on none. Of canonical paths.
std::string_view belowVolume(const std::vector<std::string>& volumes, std::string_view path);

}  // namespace diskcachectl
