// The bytes of a block's trailer.
#include <gtest/gtest.h>

#include <string>

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
