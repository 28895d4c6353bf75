// The engine in service for one command, and the segment that the command is about.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/failure.h"
#include "diskcache/diskcache.h"
#include "look/volumeFile.h"

namespace CLI {
class App;
}

namespace diskcachectl {

// A watermark without effect: used space can never be over ten times the capacity.
constexpr int NEVER = 1000;

struct CacheOptions {
  std::string root;
  std::vector<std::string> volumes;
  ObjectStore::PruningMode mode = ObjectStore::PruningMode::Random;
  bool isJson = false;
};

struct SegmentOptions : CacheOptions {
  std::string context;
  std::string nonprunable;  // may be empty
  std::string id;
};

// `manyVolumes`: see addVolumes.
void addCacheOptions(CLI::App& command, CacheOptions& options, bool manyVolumes);
// Refuses names that would lead out of a volume.
void addSegmentOptions(CLI::App& command, SegmentOptions& options);
void addSectionType(CLI::App& command, int32_t& type);

// One file of a segment.
struct Copy {
  ObjectStore::DiskCacheContext context;  // names this file to the engine, and no other
  ObjectStore::VolIndex volume = 0;
  std::string directory;  // the volume's
  std::string path;
};

// Watermarks are out of reach, so that nothing is pruned and nobody delayed.
class CacheSession {
 public:
  enum class Use {
    Look,     // beside a server: its files are left alone, and no volume is enabled
    Measure,  // beside a server, with the volumes enabled
    Change,   // on the root itself; refuses one with a migration that has not ended
    Resume,   // the same, to go on with that migration
    Fill,     // as Change; makes the root and the volumes
  };
  // Throws a Failure when the cache cannot be brought up. Says which volumes are left out.
  CacheSession(const CacheOptions& options, Use use);

  ObjectStore::DiskCache& cache() { return m_cache; }
  // All that have a directory, in order of index.
  std::vector<ObjectStore::Volume> volumes();
  // The segment's files on all volumes; the first one is what readers see.
  std::vector<Copy> find(const SegmentOptions& segment);
  // The same for commands that need one: throws a Failure when there is none.
  std::vector<Copy> require(const SegmentOptions& segment);

 private:
  struct Place {
    ObjectStore::VolIndex index;   // as this session's engine knows it
    ObjectStore::VolIndex volume;  // as the cache knows it
    std::string dir;
  };
  void bringUpBeside(const CacheOptions& options, Use use);
  void bringUp(const CacheOptions& options, Use use);

  ObjectStore::DiskCache m_cache{ObjectStore::PersistentVolumes::Yes};
  std::vector<Place> m_places;  // where segments are looked for; a migration's destination before its source
};

// Why the volume file could not hold a directory; empty when it can.
std::string whyNoVolume(const std::string& dir);

// Throws a Failure when a root belongs to another user, whose server could not open what this one leaves there. One
// that is not there yet is nobody's.
void refuseOthersRoot(const std::string& root);

// With its parents, for its owner only.
void makeDirectory(const std::string& dir);

[[noreturn]] void fail(const std::string& what, const ObjectStore::CZuError& error);
// Bad input when there is no such file, otherwise an error of the system.
[[noreturn]] void fail(const std::string& what, int error);

// 0, or why not all could be written.
int writeFully(int fd, const void* data, uint64_t length);

}  // namespace diskcachectl
