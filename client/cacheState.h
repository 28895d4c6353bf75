// What one open ObjectCache consists of, in the order in which it is built.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "client/blockStore.h"
#include "client/flights.h"
#include "client/objectCache.h"
#include "client/startScan.h"
#include "client/usage.h"
#include "client/verifiedBlocks.h"
#include "client/volumeMover.h"
#include "client/writeBack.h"

namespace ObjectStore {

// Lives from open() to close(). The engine is built before those who use it and ends after them, but its pruner's
// callback comes to `room`: the engine is destroyed first.
struct OpenCache {
  OpenCache(const ObjectCacheOptions& chosen, Metrics& counters, VolumeMarkers& markers);
  ~OpenCache();
  OpenCache(const OpenCache&) = delete;
  OpenCache& operator=(const OpenCache&) = delete;

  CZuError start(const std::vector<std::string>& volumes);

  const ObjectCacheOptions& options;
  Metrics& metrics;
  std::unique_ptr<DiskCache> engine;
  ByteAccount account;
  HotTable hot;
  VerifiedBlocks verified;
  VolumeSet volumes;
  VolumeMover mover;
  Room room;
  BlockStore store;
  Flights flights;
  WriteBack writeBack;
  UseCounter uses;
  SequenceFinder sequences;

 private:
  CZuError startEngine(const std::vector<std::string>& dirs);
  void enterBlocks();
  CZuError enterStaged();
  CZuError enterStaged(std::span<const FoundBlock> blocks, bool sawAll);  // of one object
  BlockStore::Adopted adoptOne(std::span<const FoundBlock> copies);

  const VolumeMarkers& m_markers;
};

// An error of this place whose message names the key.
CZuError keyError(const RMCodeLocation& where, int errNo, std::string_view key, const char* what);

}  // namespace ObjectStore
