// One block on disk: finding, writing, dropping it; staging it and making it prunable.
//
// Any thread may look for any block. A block is changed only by the thread that has its flight, and made prunable by
// the one that has its object's claim.
#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "client/openBlock.h"
#include "client/room.h"
#include "client/verifiedBlocks.h"

namespace ObjectStore {

struct BlockContent {
  BlockId id;
  std::string_view key;
  std::string_view version;
  uint64_t objectSize;
  const Metadata& metadata;
  std::span<const std::byte> payload;
};

class BlockStore {
 public:
  enum class Found {
    Whole,
    Nothing,
    Unfinished,  // a file without a whole trailer, as a kill leaves it
    Broken,      // a file that contradicts itself, or another object's
    Outdated,    // of an object in blocks of another size
    Trouble,     // it could not be looked at
  };
  struct Lookup {
    Found found = Found::Nothing;
    std::shared_ptr<OpenBlock> block;
    size_t read = 0;  // bytes of `front` that are there
  };
  enum class Place { Prunable, Staged };

  BlockStore(DiskCache& engine, VolumeSet& volumes, ByteAccount& account, HotTable& hot,
             VerifiedBlocks& verified, Room& room, Metrics& metrics, const ObjectCacheOptions& options)
      : m_engine(engine),
        m_volumes(volumes),
        m_account(account),
        m_hot(hot),
        m_verified(verified),
        m_room(room),
        m_metrics(metrics),
        m_options(options) {}

  // Opens a block and reads its trailer, and the front of its payload into `front` where that costs no call; what
  // lies behind the payload may be overwritten there. The list is not touched.
  Lookup open(const BlockId& id, std::string_view key, std::string_view version,
              std::span<std::byte> front = {});
  // Whether the block may be there, from memory alone.
  bool isKnown(const BlockId& id);
  bool isStaged(const BlockId& id) { return m_room.staged.contains(id); }
  bool isAnythingStaged() const { return !m_room.staged.isEmpty(); }

  // Writes a block; 0, or why not, with nothing left behind. One to be staged that lies on a volume already, which a
  // start could not look through, counts as staged from now on: EEXIST.
  int store(const BlockContent& content, Place place);
  // Removes a block that is not staged from where prunable ones lie: nothing else is known not to be the only copy.
  void drop(const BlockId& id);

  // What is staged under a block's name: Unfinished as a kill or a power cut leaves it, Unknown when the disk does not
  // tell (`errNo`). The trailer is there when it is Whole, and may be when it is Damaged.
  struct Adopted {
    enum State { Whole, Damaged, Unfinished, Unknown } state = Unknown;
    std::optional<BlockTrailer> trailer{};
    int errNo = 0;
  };
  // A block found in the staging place at the start. When it lies on two volumes the one adopted last counts.
  Adopted adoptStaged(const BlockId& id, VolIndex volume);
  // Removes the copy on another volume, for good.
  void removeStagedCopy(const BlockId& id, VolIndex volume);
  enum class Durable { No, Yes };
  // Reads all of it. Damaged, too, when there is none; Unreadable when nobody can tell now: the disk, or for want of
  // a descriptor, or because the volume is away.
  BytesAre checkStaged(const BlockId& id, std::string_view key, std::string_view version);
  // Makes sure that a staged block, and then its name, are on disk; 0 or why not.
  int syncStaged(const BlockId& id);
  // Puts the right bytes in place of a staged block's, at once or not at all; 0 or why not, ENOENT when its file is
  // gone.
  int mendStaged(const BlockContent& content);
  // Makes a staged block prunable; 0 or why not.
  int release(const BlockId& id, Durable durable);
  // Removes a staged block; 0 or why not. It is staged no more as soon as its file is gone.
  int discardStaged(const BlockId& id, Durable durable);

 private:
  struct Opened;
  static Adopted salvage(const std::string& path, const BlockId& id);
  std::vector<std::byte> trailerOf(const BlockContent& content) const;
  Opened openFile(const DiskCacheContext& context, const guid_t& name, std::span<std::byte> front);
  bool locate(const BlockId& id, const guid_t& name, DiskCacheContext& context);
  Lookup openIn(const DiskCacheContext& context, const guid_t& name, const BlockId& id, std::string_view key,
                std::string_view version, std::span<std::byte> front);
  int create(const BlockContent& content, const std::vector<std::byte>& trailer, Place place,
             ByteAccount::Grant& grant);
  int finish(const BlockContent& content, const guid_t& name, VolIndex volume, Place place,
             ByteAccount::Grant& grant);
  void removeEverywhere(const guid_t& name);

  DiskCache& m_engine;
  VolumeSet& m_volumes;
  ByteAccount& m_account;
  HotTable& m_hot;
  VerifiedBlocks& m_verified;
  Room& m_room;
  Metrics& m_metrics;
  const ObjectCacheOptions& m_options;
};

}  // namespace ObjectStore
