// What a cached block is called: 32 hexadecimal digits of its object and 8 of its number.
//
// An object is a key in one version. Its number of 128 bits is taken over both, so a changed object is another
// one. Names may collide: key and version stand in every block's trailer and are compared.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "diskcache/diskcacheTypes.h"

namespace ObjectStore {

struct ObjectId {
  uint64_t high = 0;
  uint64_t low = 0;
  bool operator==(const ObjectId&) const = default;
};

// XXH3 of 128 bits over the key's length (8 bytes, little-endian), the key and the version.
ObjectId objectIdOf(std::string_view key, std::string_view version);

struct BlockId {
  ObjectId object;
  uint32_t number = 0;
  bool operator==(const BlockId&) const = default;
};

struct HashOfBlock {
  size_t operator()(const BlockId& block) const noexcept { return block.object.low ^ block.number; }
};
struct HashOfObject {
  size_t operator()(const ObjectId& object) const noexcept { return object.low; }
};

inline constexpr size_t BLOCK_NAME_SIZE = 40;

// The segment identifier of a block, and back; none for a name that is no block's.
guid_t blockName(const BlockId& block);
std::optional<BlockId> parseBlockName(std::string_view name);

}  // namespace ObjectStore
