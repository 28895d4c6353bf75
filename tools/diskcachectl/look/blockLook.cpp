#include "look/blockLook.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <nlohmann/json.hpp>
#include <span>
#include <system_error>
#include <vector>

#include "client/blockName.h"
#include "client/volumeMarkers.h"
#include "look/looking.h"

namespace diskcachectl {

using namespace ObjectStore;

namespace {

// Whether `part` is the first directory of what is below a volume, however that is written.
bool beginsWith(std::string_view dir, std::string_view part) {
  while (dir.starts_with('/') || dir.starts_with("./")) dir.remove_prefix(1);
  return dir.substr(0, dir.find('/')) == part;
}

// Whether `isVolume` takes what of a whole path leads to a directory `part` on its way.
template <typename IsVolume>
bool passes(std::string_view dir, std::string_view part, IsVolume isVolume) {
  for (size_t at = dir.find('/'); at != std::string_view::npos; at = dir.find('/', at + 1)) {
    const std::string_view rest = dir.substr(at + 1);
    if (rest.substr(0, rest.find('/')) == part && isVolume(dir.substr(0, at + 1))) return true;
  }
  return false;
}

bool hasMarker(std::string_view volume) {
  const auto isThere = [&](const char* marker) {
    return access(std::string(volume).append(marker).c_str(), F_OK) == 0;
  };
  return isThere(VOLUME_MARKER) || isThere(MOVED_MARKER);
}

std::string whyWrongBytes(int fd, uint64_t offset, const BlockTrailer& trailer) {
  std::vector<std::byte> buffer(std::min(CHUNK_SIZE, trailer.payloadSize));
  for (uint64_t at = 0, chunk = 0; at < trailer.payloadSize; at += CHUNK_SIZE, ++chunk) {
    const auto bytes = std::span(buffer).first(std::min(CHUNK_SIZE, trailer.payloadSize - at));
    const ssize_t got = readFully(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset + at));
    if (got < 0) throw std::system_error(errno, std::generic_category());
    const bool isWhole = static_cast<size_t>(got) == bytes.size();
    if (!isWhole || checksumOf(bytes) != trailer.checksums[chunk]) {
      return fmt::format("bytes {} to {} of its payload are not those that were written", at,
                         at + bytes.size() - 1);
    }
  }
  return "";
}

}  // namespace

bool isBlock(std::string_view dir, std::string_view name) {
  return (beginsWith(dir, BLOCKS) || beginsWith(dir, STAGED)) && parseBlockName(name);
}

bool isMarkedBlock(const std::string& dir, std::string_view name) {
  return parseBlockName(name) && (passes(dir, BLOCKS, hasMarker) || passes(dir, STAGED, hasMarker));
}

bool isStaged(std::string_view dir) {
  if (!dir.starts_with('/')) return beginsWith(dir, STAGED);
  return passes(dir, STAGED, [](std::string_view) { return true; });
}

std::optional<BlockTrailer> readTrailer(int fd, uint64_t offset, uint64_t bytes) {
  SectionDesc front;
  if (offset == 0 || offset > bytes || bytes - offset < sizeof(front)) return std::nullopt;
  std::vector<std::byte> record(std::min(bytes - offset, sizeof(front) + MAX_TRAILER_SIZE));
  const ssize_t got = readFully(fd, record.data(), record.size(), static_cast<off_t>(offset));
  if (got < 0) throw std::system_error(errno, std::generic_category());
  if (got != static_cast<ssize_t>(record.size())) return std::nullopt;
  std::memcpy(&front, record.data(), sizeof(front));
  if (front.type != TRAILER_SECTION || front.len > record.size() - sizeof(front)) return std::nullopt;
  return decodeTrailer(std::span(record).subspan(sizeof(front), front.len));
}

std::string whyNoBlock(int fd, const SegmentLayout& layout, std::string_view name, bool payload) {
  const Record* end = layout.find(TRAILER_SECTION);
  const Record* begin = layout.find(PAYLOAD_SECTION);
  const auto trailer = end == nullptr ? std::nullopt : readTrailer(fd, end->offset, layout.bytes);
  if (!trailer) return "a block without a whole trailer";
  if (BlockId{objectIdOf(trailer->key, trailer->version), trailer->number} != parseBlockName(name)) {
    return fmt::format("its trailer is of block {} of \"{}\", another file's", trailer->number, trailer->key);
  }
  const uint64_t length = begin == nullptr ? 0 : begin->front.len;
  if (length != trailer->payloadSize) {
    return fmt::format("a payload of {} bytes instead of {}", length, trailer->payloadSize);
  }
  if (!payload || begin == nullptr) return "";
  return whyWrongBytes(fd, begin->offset + SECTION_DESC_SIZE, *trailer);
}

nlohmann::ordered_json blockAsJson(const BlockTrailer& trailer) {
  return {{"key", trailer.key},
          {"version", trailer.version},
          {"block", trailer.number},
          {"block_size", trailer.blockSize},
          {"object_size", trailer.objectSize},
          {"metadata", trailer.metadata}};
}

}  // namespace diskcachectl
