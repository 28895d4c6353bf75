// A file system that fills up for real.
#include "tests/support/engineFixture.h"
#include "tests/support/smallFileSystem.h"

namespace ObjectStore {
namespace {

constexpr size_t MIB = 1 << 20;
constexpr size_t LONGEST = 44 * 1024;

class FullDiskTest : public EngineTest {
 protected:
  void TearDown() override { cache.reset(); }
  uint64_t freeBytes() { return std::filesystem::space(disk.path()).available; }
  static std::string payloadOf(size_t id) {
    return std::string(LONGEST / (1 + id % 5), static_cast<char>('a' + id % 23));
  }
  SmallFileSystem disk{8};
};

TEST_F(FullDiskTest, NothingAcknowledgedIsLostAndDeletingMakesRoomAgain) {
  SKIP_WITHOUT(disk);
  EngineOptions options;
  options.volumesIn = disk.path();
  start(options);
  const uint64_t empty = freeBytes();
  size_t made = 0;
  while (made < 1000 && outcome(create(std::to_string(made), {section(0, payloadOf(made))})) == "success")
    ++made;
  EXPECT_EQ(Access::stats(*cache).errOutOfSpace.value(), 1U);
  EXPECT_TRUE(log.has(4, "Error: Can't find volume with free space"));
  const uint64_t reserve = 8 * MIB / 20;
  EXPECT_LT(freeBytes(), reserve);
  EXPECT_GT(freeBytes(), reserve - LONGEST - 4096);  // the last segment may cut into it
  EXPECT_EQ(Access::used(*cache), 8 * MIB - freeBytes());

  // The rest is taken by someone else.
  Access::changeVolume(*cache, 1, [](Volume& volume) { volume.reserved = 0; });
  writeFile(disk / "ballast", std::string(freeBytes(), 'b'));
  EXPECT_EQ(outcome(create("another", {section(0, "text")})), "ENOSPC");  // in the first write of its file
  EXPECT_TRUE(log.has(-1, "Error: Can't write header (28)"));
  const auto write = [&](const Section& s) {
    return outcome(cache->writeSections(ctx, "0", {s}, false, ForceDiskLoc::Default));
  };
  EXPECT_EQ(write(section(1, "appended")), "ENOSPC");
  EXPECT_TRUE(log.has(4, "Error: out of space"));
  EXPECT_EQ(Access::stats(*cache).errOutOfSpace.value(), 2U);
  EXPECT_EQ(write(section(0, "extended", 0, 2 * LONGEST)), "ENOSPC");

  while (made-- > 0) {
    EXPECT_TRUE(get(std::to_string(made)) == payloadOf(made)) << made;
    EXPECT_EQ(outcome(cache->deleteSegment(ctx, std::to_string(made), false, false, Recycle::No)), "success");
  }
  std::filesystem::remove(disk / "ballast");
  EXPECT_EQ(freeBytes(), empty);
  put("once more", "text");
}

}  // namespace
}  // namespace ObjectStore
