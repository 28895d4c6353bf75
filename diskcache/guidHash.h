// The hash of an identifier under a secret of the table's own. Internal.
//
// Whoever chooses identifiers does not know the secret, so cannot choose them to collide: each two of up to 48
// bytes and of the same length have the same sum with a probability of 2^-64, whatever they are, since
// it multiplies each pair of words with a pair of secret ones of its place. Longer ones are taken in chunks
// of 48 bytes, each mixed with what the ones before it came to.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace ObjectStore {

class GuidHash {
 public:
  GuidHash();  // draws a secret

  uint32_t operator()(std::string_view guid) const noexcept {
    uint64_t mixed = guid.size();
    for (; guid.size() > CHUNK; guid.remove_prefix(CHUNK)) mixed = mix(sum(guid.data(), CHUNK), mixed);
    return static_cast<uint32_t>(mix(sum(guid.data(), guid.size()), mixed) >> 32);
  }

 private:
  using Sum [[gnu::mode(TI)]] = unsigned;  // of 128 bits
  static constexpr size_t CHUNK = 48;

  static uint64_t word(const char* at) noexcept {
    uint64_t value;
    memcpy(&value, at, sizeof value);
    return value;
  }
  static uint64_t shortWord(const char* at, size_t size) noexcept {  // of fewer than 8 bytes
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) value = value << 8 | static_cast<unsigned char>(at[i]);
    return value;
  }
  Sum product(size_t place, uint64_t a, uint64_t b) const noexcept {
    return static_cast<Sum>(a + m_secret[place]) * (b + m_secret[place + 1]);
  }
  // The last pair of words overlaps the one before it where the size is no multiple of 16.
  Sum sum(const char* at, size_t size) const noexcept {
    if (size < 8) return product(0, shortWord(at, size), 0);
    if (size < 16) return product(0, word(at), word(at + size - 8));
    Sum total = product(0, word(at), word(at + 8));
    if (size > 32) total += product(2, word(at + 16), word(at + 24));
    if (size > 16) total += product(4, word(at + size - 16), word(at + size - 8));
    return total;
  }
  uint64_t mix(Sum total, uint64_t mixed) const noexcept {
    const auto low = static_cast<uint64_t>(total);
    const auto high = static_cast<uint64_t>(total >> 64);
    const Sum folded = static_cast<Sum>(low ^ m_secret[6]) * (high ^ m_secret[7] ^ mixed);
    const uint64_t half = static_cast<uint64_t>(folded) ^ static_cast<uint64_t>(folded >> 64);
    const Sum spread = static_cast<Sum>(half) * SPREAD;
    return static_cast<uint64_t>(spread) ^ static_cast<uint64_t>(spread >> 64);
  }

  static constexpr uint64_t SPREAD = 0x9fb21c651e98df25;  // odd, and as many ones as zeros
  std::array<uint64_t, 8> m_secret;
};

}  // namespace ObjectStore
