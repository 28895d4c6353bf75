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

#include "client/blockTrailer.h"
#include "client/objectCache.h"

namespace ObjectStore {

enum class BytesAre { Right, Damaged, Unreadable };

class OpenBlock {
 public:
  // Owns the descriptor; the payload begins at `offset`.
  OpenBlock(int fd, uint64_t offset, guid_t name, BlockTrailer trailer);
  ~OpenBlock();
  OpenBlock(const OpenBlock&) = delete;
  OpenBlock& operator=(const OpenBlock&) = delete;

  const guid_t& name() const { return m_name; }
  const BlockTrailer& trailer() const { return m_trailer; }
  const std::shared_ptr<const Metadata>& metadata() const { return m_metadata; }
  bool isOf(std::string_view key, std::string_view version) const {
    return m_trailer.key == key && m_trailer.version == version;
  }
  // Fills `out` from `from` of the payload, in which the range lies, in one call of the system.
  BytesAre read(uint64_t from, std::span<std::byte> out, Verify verify);

 private:
  bool isVerified(uint64_t firstChunk, uint64_t lastChunk) const;
  BytesAre readPlain(uint64_t from, std::span<std::byte> out) const;
  BytesAre readVerified(uint64_t from, std::span<std::byte> out, uint64_t firstChunk,
                        uint64_t lastChunk) const;

  const int m_fd;
  const uint64_t m_offset;
  const guid_t m_name;
  const BlockTrailer m_trailer;
  const std::shared_ptr<const Metadata> m_metadata;
  std::vector<std::atomic<bool>> m_verified;  // a chunk each
};

}  // namespace ObjectStore
