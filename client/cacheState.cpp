#include "client/cacheState.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "client/failure.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr uint64_t NO_BOUND = uint64_t{1} << 40;  // blocks
// Used space is never ten times the capacity: in mode Lru no watermark delays or stops anything.
constexpr int NEVER = 1000;
constexpr size_t VERIFIED_BLOCKS = 1 << 16;

// In mode Random the pruner leaves alone what is in the list: a share of small disks, for all else to go first.
uint64_t protectedBlocks(const std::vector<std::string>& dirs, uint64_t blockSize) {
  constexpr uint64_t LEAST = 5, MOST = 1024, SHARE = 16;
  uint64_t capacity = 0;
  for (const std::string& dir : dirs) {
    struct statvfs status {};
    if (statvfs(dir.c_str(), &status) == 0) capacity += uint64_t{status.f_blocks} * status.f_frsize;
  }
  return std::clamp(capacity / SHARE / blockSize, LEAST, MOST);
}

}  // namespace

CZuError keyError(const RMCodeLocation& where, int errNo, std::string_view key, const char* what) {
  return RMErrorUtil::ErrorErrNo(where, errNo, "[%.*s]: %s", static_cast<int>(key.size()), key.data(), what);
}

OpenCache::OpenCache(const ObjectCacheOptions& chosen, Metrics& counters, VolumeMarkers& markers)
    : options(chosen),
      metrics(counters),
      engine(std::make_unique<DiskCache>(PersistentVolumes::Yes)),
      hot(chosen.hotBlocks, chosen.maxHotBytes),
      verified(chosen.verify == Verify::Once ? VERIFIED_BLOCKS : 0),
      volumes(*engine, account, chosen),
      mover(*engine, volumes, markers, hot),
      room(*engine, volumes, account, hot, counters, chosen),
      store(*engine, volumes, account, hot, verified, room, counters, chosen),
      writeBack(store, flights, counters, chosen),
      uses(chosen.useWindow),
      m_markers(markers) {}

OpenCache::~OpenCache() {
  writeBack.stop();
  engine.reset();
}

CZuError OpenCache::start(const std::vector<std::string>& dirs) {
  if (const CZuError error = startEngine(dirs); error.IsError()) return error;
  if (const CZuError error = enterStaged(); error.IsError()) return error;
  if (options.mode == PruningMode::Lru) {
    enterBlocks();
    room.shrinkToBound();
  }
  return {};
}

// The engine gets its volumes one by one after its start, so that it scans nothing: its scan would know neither
// what a block takes on disk nor when it was made. Its file of volumes is written anew for those who look in.
CZuError OpenCache::startEngine(const std::vector<std::string>& dirs) {
  unlink((options.root + "/volume_info").c_str());
  const bool isLru = options.mode == PruningMode::Lru;
  uint64_t maxBlocks = options.maxBlocks;
  if (maxBlocks == 0) maxBlocks = isLru ? NO_BOUND : protectedBlocks(dirs, options.blockSize);
  CZuError error = engine->init(options.root, {}, isLru ? NEVER : options.highWatermark,
                                isLru ? NEVER : options.lowWatermark, isLru ? NEVER : options.highWatermark,
                                maxBlocks, VolumeMover::ended, options.mode);
  if (error.IsError()) return error;
  DiskCacheContext context;
  context.dir = BLOCKS_DIR;
  context.prunerCallback = [this](const std::string&, const std::string& path, const std::string& name) {
    return room.giveUp(path, name);
  };
  error = volumes.add(dirs);
  return error.IsError() ? error : engine->registerContext(context);
}

// In the order in which they were made: after a start the oldest go first.
void OpenCache::enterBlocks() {
  std::vector<FoundBlock> found;
  for (const VolumeRoot& root : volumes.roots()) {
    findBlocks(root.dir + '/' + BLOCKS_DIR, root.index, found, [&](uint64_t blocks) {
      if (options.onProgress) options.onProgress({root.dir, blocks});
    });
  }
  engine->countFound(found.size());
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.madeAt < b.madeAt; });
  DiskCacheContext context;
  context.dir = BLOCKS_DIR;
  for (const FoundBlock& block : found) {
    const guid_t name = blockName(block.id);
    account.add(block.volume, block.bytes);
    VolIndex other = 0;
    if (engine->findVolume(name, other)) {  // one copy is enough
      room.remove(name, block.volume, BLOCKS_DIR);
      continue;
    }
    context.volume = block.volume;
    (void)engine->remember(context, name);  // it fails for want of memory: the next start finds the block
  }
}

CZuError OpenCache::enterStaged() {
  std::unordered_map<ObjectId, std::vector<FoundBlock>, HashOfObject> objects;
  std::vector<FoundBlock> found;
  bool sawAll = m_markers.areAllClaimed();
  for (const VolumeRoot& root : volumes.roots()) {
    const int rc = findBlocks(root.dir + '/' + STAGED_DIR, root.index, found, {});
    if (isOfThisProcess(rc)) return keyError(RM_CODE_LOCATION, rc, root.dir, "can't be looked through");
    sawAll = sawAll && rc == 0;
  }
  engine->countFound(found.size());
  for (const FoundBlock& block : found) {
    account.add(block.volume, block.bytes);
    objects[block.id.object].push_back(block);
  }
  for (auto& [id, blocks] : objects) {
    std::sort(blocks.begin(), blocks.end(), [](const auto& a, const auto& b) {
      return std::pair(a.id.number, a.madeAt) < std::pair(b.id.number, b.madeAt);
    });
    if (const CZuError error = enterStaged(blocks, sawAll); error.IsError()) return error;
  }
  return {};
}

// An object whose first block is not there was never staged whole, or is uploaded: the rest of it goes. Nothing goes
// while that block may lie where nobody could look: on a volume that is not there or not given. One that lacks other
// bytes stays, for its volume or its disk to come back or for who gives it up.
CZuError OpenCache::enterStaged(std::span<const FoundBlock> blocks, bool sawAll) {
  std::optional<BlockTrailer> known;
  bool isFirstThere = false;
  size_t whole = 0;
  for (auto at = blocks.begin(); at != blocks.end();) {
    const auto end =
        std::find_if(at, blocks.end(), [&](const auto& block) { return block.id.number != at->id.number; });
    auto [state, trailer, errNo] = adoptOne({at, end});
    if (isOfThisProcess(errNo)) {
      return keyError(RM_CODE_LOCATION, errNo, blockName(at->id), "is staged and can't be looked at");
    }
    isFirstThere = isFirstThere || (at->id.number == 0 && state != BlockStore::Adopted::Unfinished);
    whole += state == BlockStore::Adopted::Whole;
    at = end;
    if (!trailer) continue;
    if (trailer->blockSize != options.blockSize) {
      return keyError(RM_CODE_LOCATION, EINVAL, trailer->key, "is staged in blocks of another size");
    }
    known = std::move(trailer);
  }
  if (!isFirstThere && sawAll) {
    for (const FoundBlock& block : blocks) (void)store.discardStaged(block.id, BlockStore::Durable::No);
    return {};
  }
  if (isFirstThere && known) writeBack.adopt(*known);
  if (!known || whole != blockCount(known->objectSize, options.blockSize)) {
    const guid_t name = known ? known->key : blockName(blocks.front().id);
    DC_LOG(LogLevel::Error, "Error: a staged object [%s] is not whole", name.c_str());
  }
  return {};
}

// Copies of one block on several volumes, the newest last: one was staged again while its volume was away. One that has
// all its bytes is enough.
BlockStore::Adopted OpenCache::adoptOne(std::span<const FoundBlock> copies) {
  using Adopted = BlockStore::Adopted;
  Adopted best;
  const FoundBlock* kept = nullptr;
  const auto valueOf = [](const Adopted& copy) {
    if (copy.state == Adopted::Whole || copy.state == Adopted::Unfinished)
      return copy.state == Adopted::Whole ? 3 : 0;
    return copy.trailer ? 2 : 1;
  };
  for (const FoundBlock& copy : copies) {
    Adopted adopted = store.adoptStaged(copy.id, copy.volume);
    if (isOfThisProcess(adopted.errNo)) return adopted;
    if (copies.size() > 1 && adopted.state == Adopted::Whole &&
        store.checkStaged(copy.id, adopted.trailer->key, adopted.trailer->version) != BytesAre::Right)
      adopted.state = Adopted::Damaged;
    const bool isBetter = kept == nullptr || valueOf(adopted) >= valueOf(best);
    const bool isOneEnough = adopted.state == Adopted::Whole || best.state == Adopted::Whole;
    if (kept != nullptr && isOneEnough) store.removeStagedCopy(copy.id, (isBetter ? *kept : copy).volume);
    if (!isBetter) continue;
    best = std::move(adopted);
    kept = &copy;
  }
  if (kept != &copies.back()) (void)store.adoptStaged(kept->id, kept->volume);  // the last one counts
  return best;
}

}  // namespace ObjectStore
