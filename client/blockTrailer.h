// The trailer of a cached block: what the block is, and checksums of its bytes.
//
// A block is a segment of two sections: type 0 the payload (absent when the object is empty), type 1 the
// trailer, written last: without a whole trailer the block does not exist. Integers are little-endian:
//
//   offset  width
//        0      4  magic "OCBT"
//        4      2  format, 1
//        6      2  0
//        8      4  block number
//       12      4  block size: bytes of every block of the object but its last
//       16      8  object size in bytes
//       24      8  payload bytes of this block
//       32      8  when it was made, seconds since 1970
//       40      4  n: checksums
//       44      4  bytes of the key
//       48      4  bytes of the version
//       52      4  m: pairs of metadata
//       56    8 n  XXH3-64 of each 65,536 bytes of the payload, the last of what is left
//                  key, version
//                  m pairs, ordered by name: 4 bytes length of the name, name, 4 bytes length, value
//        .      8  XXH3-64 of the trailer up to here, which is its end
//
// Pure functions on bytes; any thread may call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/export.h"

namespace ObjectStore {

inline constexpr std::string_view TRAILER_MAGIC = "OCBT";
inline constexpr uint16_t TRAILER_FORMAT = 1;
inline constexpr int32_t PAYLOAD_SECTION = 0;
inline constexpr int32_t TRAILER_SECTION = 1;
inline constexpr uint64_t CHUNK_SIZE = 64 * 1024;  // bytes that one checksum covers
inline constexpr uint64_t MIN_BLOCK_SIZE = CHUNK_SIZE;
inline constexpr uint64_t MAX_BLOCK_SIZE = uint64_t{256} << 20;
inline constexpr uint64_t MAX_TRAILER_SIZE = uint64_t{1} << 20;

// Small texts that travel with an object: its ETag, its content type.
using Metadata = std::map<std::string, std::string>;

struct BlockTrailer {
  uint32_t number = 0;
  uint32_t blockSize = 0;
  uint64_t objectSize = 0;
  uint64_t payloadSize = 0;
  uint64_t madeAt = 0;
  std::vector<uint64_t> checksums;
  std::string key;
  std::string version;
  Metadata metadata;
};

// An empty object has one block too.
constexpr uint64_t blockCount(uint64_t objectSize, uint64_t blockSize) {
  return objectSize == 0 ? 1 : (objectSize - 1) / blockSize + 1;
}
// The bytes of one block of an object: its share of the size, 0 behind the end.
constexpr uint64_t payloadSizeOf(uint64_t objectSize, uint64_t blockSize, uint64_t number) {
  const uint64_t from = number * blockSize;
  return from >= objectSize ? 0 : (objectSize - from < blockSize ? objectSize - from : blockSize);
}
constexpr uint64_t chunkCount(uint64_t bytes) { return (bytes + CHUNK_SIZE - 1) / CHUNK_SIZE; }

DISKCACHE_EXPORT uint64_t checksumOf(std::span<const std::byte> bytes);
// One checksum for each chunk of a payload.
DISKCACHE_EXPORT std::vector<uint64_t> checksumsOf(std::span<const std::byte> payload);

// The trailer's bytes; empty when they would be more than MAX_TRAILER_SIZE.
DISKCACHE_EXPORT std::vector<std::byte> encodeTrailer(const BlockTrailer& trailer);

// Reads a trailer; none when a byte of it is damaged, its format is not this one, or its figures contradict
// each other. Lengths are compared with what is there before anything is allocated.
DISKCACHE_EXPORT std::optional<BlockTrailer> decodeTrailer(std::span<const std::byte> bytes);

// The number of the first chunk of a whole payload that has other bytes than its checksum says; none when all
// is well. A payload of another size than the trailer says is damaged in chunk 0.
DISKCACHE_EXPORT std::optional<size_t> findDamage(const BlockTrailer& trailer,
                                                  std::span<const std::byte> payload);

}  // namespace ObjectStore
