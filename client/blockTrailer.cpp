#include "client/blockTrailer.h"

#include <xxhash.h>

#include <algorithm>
#include <array>
#include <concepts>
#include <cstring>

namespace ObjectStore {

namespace {

constexpr uint32_t MAGIC = 0x5442434f;  // TRAILER_MAGIC
constexpr size_t FIXED_SIZE = 56;
constexpr size_t CHECKSUM_SIZE = sizeof(uint64_t);

class Writer {
 public:
  template <std::unsigned_integral T>
  void put(T value) {
    for (unsigned i = 0; i < sizeof(T); ++i)
      bytes.push_back(static_cast<std::byte>(uint64_t{value} >> (8 * i)));
  }
  void put(std::string_view text) {
    const auto from = std::as_bytes(std::span(text));
    bytes.insert(bytes.end(), from.begin(), from.end());
  }
  void putWithLength(std::string_view text) {
    put(static_cast<uint32_t>(text.size()));
    put(text);
  }

  std::vector<std::byte> bytes;
};

// Takes values off the front of what is left; once something did not fit, nothing does any more.
class Reader {
 public:
  explicit Reader(std::span<const std::byte> bytes) : m_left(bytes) {}

  template <std::unsigned_integral T>
  T take() {
    uint64_t value = 0;
    const std::span<const std::byte> from = cut(sizeof(T));
    for (size_t i = 0; i < from.size(); ++i) value |= std::to_integer<uint64_t>(from[i]) << (8 * i);
    return static_cast<T>(value);
  }
  std::string takeText(uint64_t size) {
    const std::span<const std::byte> from = cut(size);
    return {reinterpret_cast<const char*>(from.data()), from.size()};
  }
  std::string takeTextWithLength() { return takeText(take<uint32_t>()); }

  size_t left() const { return m_left.size(); }
  bool fitted() const { return m_fitted; }

 private:
  std::span<const std::byte> cut(uint64_t size) {
    m_fitted = m_fitted && size <= m_left.size();
    if (!m_fitted) return {};
    const auto front = m_left.first(size);
    m_left = m_left.subspan(size);
    return front;
  }

  std::span<const std::byte> m_left;
  bool m_fitted = true;
};

bool isConsistent(const BlockTrailer& trailer) {
  return trailer.blockSize >= MIN_BLOCK_SIZE && trailer.blockSize <= MAX_BLOCK_SIZE &&
         trailer.payloadSize == payloadSizeOf(trailer.objectSize, trailer.blockSize, trailer.number) &&
         (trailer.payloadSize > 0 || trailer.number == 0) &&
         trailer.checksums.size() == chunkCount(trailer.payloadSize);
}

std::optional<BlockTrailer> decodeBody(std::span<const std::byte> body) {
  Reader reader(body);
  if (reader.take<uint32_t>() != MAGIC || reader.take<uint16_t>() != TRAILER_FORMAT) return {};
  if (reader.take<uint16_t>() != 0) return {};
  BlockTrailer trailer;
  trailer.number = reader.take<uint32_t>();
  trailer.blockSize = reader.take<uint32_t>();
  trailer.objectSize = reader.take<uint64_t>();
  trailer.payloadSize = reader.take<uint64_t>();
  trailer.madeAt = reader.take<uint64_t>();
  const uint64_t checksums = reader.take<uint32_t>();
  const uint64_t keySize = reader.take<uint32_t>();
  const uint64_t versionSize = reader.take<uint32_t>();
  const uint64_t pairs = reader.take<uint32_t>();
  if (checksums > reader.left() / CHECKSUM_SIZE) return {};
  trailer.checksums.resize(checksums);
  for (uint64_t& checksum : trailer.checksums) checksum = reader.take<uint64_t>();
  trailer.key = reader.takeText(keySize);
  trailer.version = reader.takeText(versionSize);
  for (uint64_t i = 0; i < pairs && reader.fitted(); ++i) {
    std::string name = reader.takeTextWithLength();
    trailer.metadata[std::move(name)] = reader.takeTextWithLength();
  }
  const bool isWhole = reader.fitted() && reader.left() == 0 && trailer.metadata.size() == pairs;
  if (!isWhole || !isConsistent(trailer)) return {};
  return trailer;
}

}  // namespace

uint64_t checksumOf(std::span<const std::byte> bytes) { return XXH3_64bits(bytes.data(), bytes.size()); }

std::vector<uint64_t> checksumsOf(std::span<const std::byte> payload) {
  std::vector<uint64_t> checksums;
  checksums.reserve(chunkCount(payload.size()));
  for (; !payload.empty(); payload = payload.subspan(std::min<size_t>(CHUNK_SIZE, payload.size()))) {
    checksums.push_back(checksumOf(payload.first(std::min<size_t>(CHUNK_SIZE, payload.size()))));
  }
  return checksums;
}

std::vector<std::byte> encodeTrailer(const BlockTrailer& trailer) {
  uint64_t size = FIXED_SIZE + CHECKSUM_SIZE * (trailer.checksums.size() + 1) + trailer.key.size() +
                  trailer.version.size();
  for (const auto& [name, value] : trailer.metadata)
    size += 2 * sizeof(uint32_t) + name.size() + value.size();
  if (size > MAX_TRAILER_SIZE) return {};
  Writer writer;
  writer.bytes.reserve(size);
  writer.put(MAGIC);
  writer.put(TRAILER_FORMAT);
  writer.put(uint16_t{0});
  writer.put(trailer.number);
  writer.put(trailer.blockSize);
  writer.put(trailer.objectSize);
  writer.put(trailer.payloadSize);
  writer.put(trailer.madeAt);
  writer.put(static_cast<uint32_t>(trailer.checksums.size()));
  writer.put(static_cast<uint32_t>(trailer.key.size()));
  writer.put(static_cast<uint32_t>(trailer.version.size()));
  writer.put(static_cast<uint32_t>(trailer.metadata.size()));
  for (const uint64_t checksum : trailer.checksums) writer.put(checksum);
  writer.put(trailer.key);
  writer.put(trailer.version);
  for (const auto& [name, value] : trailer.metadata) {
    writer.putWithLength(name);
    writer.putWithLength(value);
  }
  writer.put(checksumOf(writer.bytes));
  return std::move(writer.bytes);
}

std::optional<BlockTrailer> decodeTrailer(std::span<const std::byte> bytes) {
  if (bytes.size() < FIXED_SIZE + CHECKSUM_SIZE || bytes.size() > MAX_TRAILER_SIZE) return {};
  const auto body = bytes.first(bytes.size() - CHECKSUM_SIZE);
  if (Reader(bytes.last(CHECKSUM_SIZE)).take<uint64_t>() != checksumOf(body)) return {};
  return decodeBody(body);
}

std::optional<size_t> findDamage(const BlockTrailer& trailer, std::span<const std::byte> payload) {
  if (payload.size() != trailer.payloadSize) return 0;
  const std::vector<uint64_t> found = checksumsOf(payload);
  const auto [damaged, expected] =
      std::mismatch(found.begin(), found.end(), trailer.checksums.begin(), trailer.checksums.end());
  if (damaged == found.end() && expected == trailer.checksums.end()) return {};
  return static_cast<size_t>(damaged - found.begin());
}

}  // namespace ObjectStore
