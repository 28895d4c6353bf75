#include "client/blockName.h"

#include <xxhash.h>

#include <array>

namespace ObjectStore {

namespace {

constexpr std::string_view DIGITS = "0123456789abcdef";
constexpr size_t HIGH_AT = 0, LOW_AT = 16, NUMBER_AT = 32;

void putHex(char* to, uint64_t value, size_t digits) {
  while (digits-- > 0) {
    to[digits] = DIGITS[value & 15];
    value >>= 4;
  }
}

std::optional<uint64_t> takeHex(std::string_view digits) {
  uint64_t value = 0;
  for (const char digit : digits) {
    const size_t at = DIGITS.find(digit);
    if (at == std::string_view::npos) return {};
    value = value << 4 | at;
  }
  return value;
}

// Most keys are short: they are hashed in one piece, without a state of the hash's.
constexpr size_t SHORT_KEY = 512;

}  // namespace

ObjectId objectIdOf(std::string_view key, std::string_view version) {
  std::array<char, SHORT_KEY + sizeof(uint64_t)> buffer;
  std::string longer;
  char* bytes = buffer.data();
  const size_t size = sizeof(uint64_t) + key.size() + version.size();
  if (size > buffer.size()) {
    longer.resize(size);
    bytes = longer.data();
  }
  char* at = bytes;
  for (unsigned i = 0; i < sizeof(uint64_t); ++i) *at++ = static_cast<char>(uint64_t{key.size()} >> (8 * i));
  at += key.copy(at, key.size());
  version.copy(at, version.size());
  const XXH128_hash_t hash = XXH3_128bits(bytes, size);
  return {hash.high64, hash.low64};
}

guid_t blockName(const BlockId& block) {
  guid_t name(BLOCK_NAME_SIZE, '\0');
  putHex(&name[HIGH_AT], block.object.high, 16);
  putHex(&name[LOW_AT], block.object.low, 16);
  putHex(&name[NUMBER_AT], block.number, 8);
  return name;
}

std::optional<BlockId> parseBlockName(std::string_view name) {
  if (name.size() != BLOCK_NAME_SIZE) return {};
  const auto high = takeHex(name.substr(HIGH_AT, 16));
  const auto low = takeHex(name.substr(LOW_AT, 16));
  const auto number = takeHex(name.substr(NUMBER_AT, 8));
  if (!high || !low || !number) return {};
  return BlockId{{*high, *low}, static_cast<uint32_t>(*number)};
}

}  // namespace ObjectStore
