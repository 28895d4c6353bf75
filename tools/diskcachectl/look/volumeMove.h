// Moving a volume of a running cache, and waiting for the end.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "diskcache/diskcache.h"

namespace diskcachectl {

// One at a time in a process: the cache tells the end by a plain function.
struct VolumeMove {
  // What the engine is given at its init.
  static const ObjectStore::MigrationCB CALLBACK;

  // Forgets how an earlier move ended. Called before an init that resumes one.
  static void expect();
  // Throws a Failure with what the cache says.
  static void start(ObjectStore::DiskCache& cache, ObjectStore::VolIndex index, const std::string& source,
                    const std::string& destination);
  // How the move ended, 0 or a system error number; none when it goes on beyond `timeout`.
  static std::optional<int> waitFor(std::chrono::milliseconds timeout);
};

// A replay's move: leaves no segment behind, and begins anew when one was given up while it was copied.
class PaddedMove {
 public:
  PaddedMove(ObjectStore::DiskCache& cache, const ObjectStore::Volume& volume, std::string destination);
  // Removes what the start has put into the source.
  ~PaddedMove();
  PaddedMove(const PaddedMove&) = delete;
  PaddedMove& operator=(const PaddedMove&) = delete;

  // Both throw a Failure with what the cache says.
  void start();
  // Waits for the end. A move to a new directory that ended because a segment vanished while it was copied
  // begins anew, from nothing: what the first one left may be older than the source.
  void finish();

 private:
  void padSource();

  ObjectStore::DiskCache& m_cache;
  const ObjectStore::VolIndex m_index;
  const std::string m_source;
  const std::string m_destination;
  const bool m_isNew;  // there was nothing at the destination
};

}  // namespace diskcachectl
