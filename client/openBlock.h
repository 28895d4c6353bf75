// One cached block, open for reading, with its trailer read and checked.
//
// Any thread may read. A block's file never changes under its identity, so a block that was given up meanwhile
// still gives right bytes.
#pragma once

#include <atomic>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/blockName.h"
#include "client/blockTrailer.h"
#include "client/objectCache.h"

namespace ObjectStore {

enum class BytesAre { Right, Damaged, Unreadable };

class OpenBlock {
 public:
  // Owns the descriptor; the payload begins at `offset`.
  OpenBlock(int fd, uint64_t offset, const BlockId& id, guid_t name, BlockTrailer&& trailer);
  ~OpenBlock();
  OpenBlock(const OpenBlock&) = delete;
  OpenBlock& operator=(const OpenBlock&) = delete;

  const BlockId& id() const { return m_id; }
  const guid_t& name() const { return m_name; }
  // But for the metadata, which stand alone.
  const BlockTrailer& trailer() const { return m_trailer; }
  const std::shared_ptr<const Metadata>& metadata() const { return m_metadata; }
  bool isOf(std::string_view key, std::string_view version) const {
    return m_trailer.key == key && m_trailer.version == version;
  }
  // Fills `out` from `from` of the payload, in which the range lies, in one call of the system at most: none when
  // `isThere` says that the bytes are in `out` already and all that is left is to check them.
  BytesAre read(uint64_t from, std::span<std::byte> out, Verify verify, bool isThere = false);
  // Compares the chunks of a range, which lies within the payload, with their checksums, but for those that were
  // right before. Never: takes them for right.
  BytesAre check(uint64_t from, uint64_t size, Verify verify);

  // Whether every chunk was found right now, for the first time that this is asked.
  bool isNewlyVerified();
  // Takes every chunk for right.
  void setVerified();

  int fd() const { return m_fd; }
  uint64_t offset() const { return m_offset; }

 private:
  bool isVerified(uint64_t firstChunk, uint64_t lastChunk) const;
  void markVerified(uint64_t firstChunk, uint64_t lastChunk);
  BytesAre readPlain(uint64_t from, std::span<std::byte> out) const;
  BytesAre readVerified(uint64_t from, std::span<std::byte> out, uint64_t firstChunk, uint64_t lastChunk,
                        bool isThere) const;

  // Together, because a hit looks at little else.
  const BlockId m_id;
  const int m_fd;
  const uint64_t m_offset;
  const std::shared_ptr<const Metadata> m_metadata;
  const BlockTrailer m_trailer;
  const guid_t m_name;
  std::vector<std::atomic<bool>> m_verified;  // a chunk each: was right once
  std::atomic<size_t> m_unverified;           // how many were not yet
  std::atomic<bool> m_isVerificationTold{false};
};

}  // namespace ObjectStore
