// Moving a volume of a running cache, and waiting for the end.
#pragma once

#include <string>

#include "diskcache/diskcache.h"

namespace diskcachectl {

// One at a time in a process: the cache tells the end by a plain function.
class VolumeMove {
 public:
  // What the engine is given at its init.
  static const ObjectStore::MigrationCB CALLBACK;

  VolumeMove(ObjectStore::DiskCache& cache, const ObjectStore::Volume& volume, std::string destination);
  // Removes what the start has put into the source.
  ~VolumeMove();
  VolumeMove(const VolumeMove&) = delete;
  VolumeMove& operator=(const VolumeMove&) = delete;

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
