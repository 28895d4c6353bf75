// Blocks of named objects: what their trailer says, and whether their bytes are those that were written.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "client/blockTrailer.h"
#include "look/segmentDecoder.h"

namespace diskcachectl {

inline constexpr std::string_view BLOCKS = "blocks";  // directories of a volume
inline constexpr std::string_view STAGED = "staged";  // not uploaded yet: there is no other copy

// Whether a file of this name is a block, of a cache of named objects; `dir` is below the volume. Other clients may
// call their directories and segments like that.
bool isBlock(std::string_view dir, std::string_view name);
// The same where no root tells whose file it is; `dir` is whole, and the volume's marker tells.
bool isMarkedBlock(const std::string& dir, std::string_view name);
// Whether a directory is one of those that hold the only copy of objects; `dir` is below the volume, or whole.
bool isStaged(std::string_view dir);

// What cannot be read is no damage: both throw a std::system_error.
// The trailer at `offset` of an open file of `bytes`; none when it is not whole. 0 is no offset.
std::optional<ObjectStore::BlockTrailer> readTrailer(int fd, uint64_t offset, uint64_t bytes);

// What is wrong with a block that is sound as a segment; empty when nothing is. `payload` reads all of it.
std::string whyNoBlock(int fd, const SegmentLayout& layout, std::string_view name, bool payload);

// "key", "version", "block", "block_size", "object_size" and "metadata".
nlohmann::ordered_json blockAsJson(const ObjectStore::BlockTrailer& trailer);

}  // namespace diskcachectl
