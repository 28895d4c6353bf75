// Moves a volume of an open cache to another directory, while other threads read and store.
//
// The engine copies. Its thread that ends the copy makes the cache's records follow before the engine forgets the
// move, so a kill leaves a root that no cache opens until the move is finished, or a volume that has moved.
#pragma once

#include <future>
#include <string>

#include "client/hotTable.h"
#include "client/volumeMarkers.h"
#include "client/volumeSet.h"

namespace ObjectStore {

class VolumeMover {
 public:
  VolumeMover(DiskCache& engine, VolumeSet& volumes, VolumeMarkers& markers, HotTable& hot)
      : m_engine(engine), m_volumes(volumes), m_markers(markers), m_hot(hot) {}

  // Returns when the move has ended; one at a time. Absolute directories; the errors of ObjectCache::moveVolume.
  CZuError run(const std::string& source, const std::string& destination);

  // What the engine tells the end of a move; it knows no more than its directories.
  static void ended(int error, const std::string& source, const std::string& destination);

 private:
  class Listener;

  int move(const std::string& source, const std::string& destination);
  void end(int error, const std::string& source, const std::string& destination);

  DiskCache& m_engine;
  VolumeSet& m_volumes;
  VolumeMarkers& m_markers;
  HotTable& m_hot;
  VolIndex m_index = 0;  // of the volume that is moved
  std::promise<int> m_outcome;
};

}  // namespace ObjectStore
