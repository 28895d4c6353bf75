// Which cache a root directory is, and which volumes are its own.
//
// The root holds "client.lock", locked while a cache is open, and "client.volumes": the cache's identity and each
// volume's, with the directory it was last given as. A volume holds "blocks/volume.id" with both identities. So an
// unmounted disk's empty mount point is not taken for the volume, and no two caches share one. What is left where a
// volume was moved from has "blocks/volume.moved" instead, and is taken for no volume.
//
// Used by one thread at a time.
#pragma once

#include <map>
#include <string>

#include "support/error.h"

namespace ObjectStore {

inline constexpr const char* BLOCKS_DIR = "blocks";
inline constexpr const char* STAGED_DIR = "staged";
inline constexpr const char* VOLUME_MARKER = "blocks/volume.id";
inline constexpr const char* MOVED_MARKER = "blocks/volume.moved";

// Marks what a move from `source` has left there, once the destination is on disk; 0 or a system error number.
int markMoved(const std::string& source, const std::string& destination);

class VolumeMarkers {
 public:
  VolumeMarkers() = default;
  ~VolumeMarkers() { close(); }
  VolumeMarkers(const VolumeMarkers&) = delete;
  VolumeMarkers& operator=(const VolumeMarkers&) = delete;

  // Locks the root (EBUSY: another has it, or "migrate" tells of an unfinished move) and reads or makes the
  // cache's identity.
  CZuError open(const std::string& root);
  void close();

  // Reads a volume's marker; makes it, and the directory, for a new volume. `isPresent` is false for one that is
  // known but has no marker: it is not mounted, and nothing is put there unless `replace`. EBUSY: another cache's,
  // or left behind by a move; EEXIST: claimed before under another name.
  CZuError claim(const std::string& volume, bool replace, bool& isPresent);
  // Removes what the engine notes of a move in the root: none has begun.
  void forgetMove() const;
  // Returns when the engine has removed it itself, also from the disk, or does not within ten seconds.
  void awaitEndOfMove() const;
  // Whether no volume is missing of those that the root knows.
  bool areAllClaimed() const { return m_claimed.size() == m_known.size(); }
  // A claimed volume lies in another directory now.
  void follow(const std::string& from, const std::string& to);

 private:
  CZuError load();
  CZuError save();
  CZuError mark(const std::string& volume);

  std::string m_root;
  std::string m_moveFile;  // the engine's, while it moves a volume
  int m_lock = -1;
  std::string m_id;
  std::map<std::string, std::string> m_known;    // directory by volume's identity
  std::map<std::string, std::string> m_claimed;  // the same, of this run
};

}  // namespace ObjectStore
