#include "look/blockLook.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <nlohmann/json.hpp>
#include <span>
#include <system_error>
#include <vector>

#include "client/blockName.h"
#include "look/looking.h"

namespace diskcachectl {

using namespace ObjectStore;

namespace {

// Whether `part` is a directory on the way of `dir`.
bool passes(std::string_view dir, std::string_view part) {
  for (size_t at = dir.find(part); at != std::string_view::npos; at = dir.find(part, at + 1)) {
    const size_t end = at + part.size();
    if ((at == 0 || dir[at - 1] == '/') && (end == dir.size() || dir[end] == '/')) return true;
  }
  return false;
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
  return (passes(dir, BLOCKS) || passes(dir, STAGED)) && parseBlockName(name);
}

bool isStaged(std::string_view dir) { return passes(dir, STAGED); }

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
