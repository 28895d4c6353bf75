// What an engine is told once: by its constructor and by init().
//
// Internal. Written before a second thread knows of the engine, and only read from then on.
#pragma once

#include <string>

#include "diskcache/diskcacheTypes.h"

namespace ObjectStore {

struct DiskCacheSettings {
  const PersistentVolumes persistentVolumes;
  PruningMode pruningMode = PruningMode::Random;
  std::string rootDir{};
};

}  // namespace ObjectStore
