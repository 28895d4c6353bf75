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

}  // namespace diskcachectl
