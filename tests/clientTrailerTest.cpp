// The bytes of a block's trailer.
#include <gtest/gtest.h>

#include <string>

#include "client/blockName.h"
#include "client/blockTrailer.h"

namespace ObjectStore {
namespace {

BlockTrailer sample() {
  BlockTrailer trailer;
  trailer.number = 2;
  trailer.blockSize = 1 << 17;
  trailer.objectSize = (2 << 17) + 65537;
  trailer.payloadSize = 65537;
  trailer.madeAt = 0x0102030405;
  trailer.checksums = {0x1111111111111111, 0x2222222222222222};
  trailer.key = "key";
  trailer.version = "v";
  trailer.metadata = {{"a", "xy"}, {"b", ""}};
  return trailer;
}

std::string hex(std::span<const std::byte> bytes) {
  std::string text;
  for (const std::byte byte : bytes) {
    for (const unsigned digit : {std::to_integer<unsigned>(byte) >> 4, std::to_integer<unsigned>(byte) & 15})
      text += "0123456789abcdef"[digit];
  }
  return text;
}

TEST(ClientTrailerTest, GoldenBytes) {
  EXPECT_EQ(hex(encodeTrailer(sample())),
            "4f43425401000000"
            "0200000000000200"
            "0100050000000000"
            "0100010000000000"
            "0504030201000000"
            "0200000003000000"
            "0100000002000000"
            "1111111111111111"
            "2222222222222222"
            "6b657976"
            "0100000061020000007879"
            "010000006200000000"
            "d116cf49d58ae750");
  EXPECT_EQ(blockName({objectIdOf("bucket/key", "v1"), 0xabc}), "a3511bf6c4cb8f59c8bc3a62e9391da200000abc");
}

TEST(ClientTrailerTest, ComesBackAndNoDamageGoesUnnoticed) {
  const std::vector<std::byte> bytes = encodeTrailer(sample());
  const auto back = decodeTrailer(bytes);
  ASSERT_TRUE(back);
  EXPECT_EQ(encodeTrailer(*back), bytes);
  for (size_t at = 0; at < bytes.size(); ++at) {
    EXPECT_FALSE(decodeTrailer(std::span(bytes).first(at))) << at;
    std::vector<std::byte> damaged = bytes;
    damaged[at] ^= std::byte{0x10};
    EXPECT_FALSE(decodeTrailer(damaged)) << at;
    // The same with a checksum that fits: no length may be believed, whatever comes of it.
    const uint64_t checksum = checksumOf(std::span(damaged).first(damaged.size() - 8));
    for (unsigned i = 0; i < 8; ++i)
      damaged[damaged.size() - 8 + i] = static_cast<std::byte>(checksum >> (8 * i));
    const bool isAccepted = decodeTrailer(damaged).has_value();
    const bool isTextOrTime = (at >= 32 && at < 40) || at >= 56;
    EXPECT_TRUE(isTextOrTime || !isAccepted) << at;
  }
  BlockTrailer lacking = sample(), endless = sample();
  lacking.checksums.pop_back();
  endless.metadata["long"] = std::string(MAX_TRAILER_SIZE, 'x');
  for (const BlockTrailer& wrong : {lacking, endless}) EXPECT_FALSE(decodeTrailer(encodeTrailer(wrong)));
}

}  // namespace
}  // namespace ObjectStore
