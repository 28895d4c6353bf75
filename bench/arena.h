// The floor, the cache in each of its settings and the peers, side by side with the same segments.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "frame.h"
#include "store.h"

namespace bench {

inline constexpr size_t MAX_READERS = 8;  // threads at a time,
inline constexpr size_t MAX_WRITERS = 2;  // and those that change segments

struct Contender {
  std::string name;
  bool isOnVolume;  // works on the cache's files, like the floor
  StoreMaker make;
  bool isForReading = false;  // takes no part in changes
};

// Those on the volume first; a second floor tells how far two goes of the same calls are apart.
std::vector<Contender> contenders();

struct Lane {
  std::string name;
  bool isOnVolume;
  std::unique_ptr<Store> store;
  std::vector<std::unique_ptr<Session>> sessions;  // one a thread
};

class Arena {
 public:
  Arena(const std::string& parent, size_t bytes, size_t segments, bool isForReading);

  std::vector<Lane>& lanes() { return m_lanes; }
  size_t bytes() const { return m_bytes; }
  size_t segments() const { return m_guids.size(); }
  // Not the same for neighbours, so that a mix-up shows.
  Bytes payloadOf(size_t segment) const;

  void create(Lane& lane);
  // Ends the program unless a lane gives back, by each of its sessions, the payloads of segments that are
  // `shift` further on.
  void check(Lane& lane, size_t shift = 0);
  void remove(Lane& lane);

  const std::string& dir() const { return m_dir.path(); }

  // Creates and checks the segments of every lane, to be read.
  void fill();

 private:
  WorkDir m_dir;
  size_t m_bytes;
  Guids m_guids;
  std::vector<unsigned char> m_noise;  // payloads are windows of it
  std::vector<Lane> m_lanes;
};

}  // namespace bench
