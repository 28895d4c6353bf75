#include "client/room.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "client/volumeMarkers.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// Those that a file lay in. Who makes one there at this moment makes the directory again.
void removeEmptyDirectories(std::string path) {
  for (int level = 0; level < NUM_DIR_LEVELS; ++level) {
    path.resize(path.rfind('/'));
    if (rmdir(path.c_str()) != 0) return;
  }
}

}  // namespace

bool Room::giveUpOne() {
  uint64_t given = 0;
  return m_isLru && !m_engine.giveUpOldest(1, given).IsError() && given == 1;
}

bool Room::make(ByteAccount::Grant& grant, uint64_t bytes) {
  while (!grant.take(bytes, m_maxBytes.load())) {
    if (!giveUpOne()) return false;
  }
  while (!m_volumes.hasRoom(bytes)) {
    if (!giveUpOne()) return false;
  }
  return true;
}

void Room::shrinkToBound() {
  while (m_account.used() > m_maxBytes.load()) {
    if (!giveUpOne()) return;
  }
}

void Room::setBound(uint64_t bytes) {
  m_maxBytes.store(boundOf(bytes));
  shrinkToBound();
}

bool Room::freeBytes(uint64_t bytes) {
  const uint64_t before = m_account.used();
  while (m_account.used() + bytes > before) {
    if (!giveUpOne()) return false;
  }
  return true;
}

bool Room::giveUp(const std::string& path, const std::string& name) {
  const auto block = parseBlockName(name);
  if (!block) return false;
  // In the list or not, such a block is entered again by whoever works on it.
  if (writing.contains(*block) || staged.contains(*block)) return m_isLru;
  m_hot.erase(*block);  // closed first, so that the space comes back at once
  VolIndex volume = 0;
  if (!m_engine.findVolume(name, volume)) volume = m_volumes.rootOf(path).index;
  struct stat status {};
  const bool isThere = lstat(path.c_str(), &status) == 0;
  const uint64_t bytes = remove(name, volume, BLOCKS_DIR);
  if (isThere && bytes == 0) return false;  // it could not be removed
  if (!isThere) return true;
  if (m_volumes.isShortOfFiles()) removeEmptyDirectories(path);
  m_metrics.add(Count::evictedBlocks);
  m_metrics.add(Count::evictedBytes, bytes);
  const time_t age = time(nullptr) - status.st_mtime;
  m_metrics.evicted.add(age > 0 ? static_cast<uint64_t>(age) : 0);
  return true;
}

uint64_t Room::remove(const guid_t& name, VolIndex volume, const char* dir) {
  const uint64_t bytes = discard(name, volume, dir);
  m_account.subtract(volume, bytes);
  return bytes;
}

uint64_t Room::discard(const guid_t& name, VolIndex volume, const char* dir) {
  if (volume == 0) return 0;
  DiskCacheContext context;
  context.dir = dir;
  context.volume = volume;
  const std::string path = m_engine.guid2path(name, volume, dir);
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return 0;
  const CZuError error = m_engine.deleteSegment(context, name, false, false, Recycle::No);
  // The engine does not see a link that leads nowhere.
  if (error.IsError() || (S_ISLNK(status.st_mode) && unlink(path.c_str()) != 0 && errno != ENOENT)) return 0;
  return std::max<uint64_t>(static_cast<uint64_t>(status.st_blocks) * 512, 1);  // an empty file is one, too
}

}  // namespace ObjectStore
