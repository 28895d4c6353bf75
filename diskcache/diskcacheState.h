// What one engine consists of, in the order in which it is built.
//
// Internal.
#pragma once

#include "diskcache/diskcacheContexts.h"
#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcacheOpen.h"
#include "diskcache/diskcachePruner.h"
#include "diskcache/diskcacheSettings.h"
#include "diskcache/diskcacheSpace.h"
#include "diskcache/diskcacheTypes.h"
#include "diskcache/diskcacheVolume.h"
#include "diskcache/segmentPlaces.h"
#include "diskcache/segmentRecords.h"
#include "support/directory.h"

namespace ObjectStore {

struct DiskCacheState {
  explicit DiskCacheState(PersistentVolumes persistent) : settings{persistent} {}

  DiskCacheSettings settings;
  DirectoryLock rootLock;     // keeps other engines off the root directory
  bool isRootShared = false;  // constant after init()
  DiskCacheSpace space{settings};
  DiskCacheContexts contexts;
  DiskCacheOpenTable openTable;
  DiskCacheVolumes volumes{settings, space};
  SegmentRecords records{settings, space, volumes};
  DiskCacheMigrator migrator{settings, volumes, openTable};
  SegmentPlaces places{migrator};
  DiskcacheLRU lru{settings, space, contexts, migrator};
  DiskCachePruner pruner{space, contexts, openTable, volumes, lru};
};

}  // namespace ObjectStore
