// A file system that fills up for real.

#include "diskcache/diskcacheSpace.h"
#include "tests/support/engineFixture.h"
#include "tests/support/smallFileSystem.h"

namespace ObjectStore {
namespace {

constexpr size_t MIB = 1 << 20;
constexpr size_t LONGEST = 44 * 1024;

class FullDiskTest : public EngineTest {
 protected:
  void TearDown() override { cache.reset(); }
  uint64_t freeBytes() { return fs::space(disk.path()).available; }
  static std::string payloadOf(size_t id) {
    return std::string(LONGEST / (1 + id % 5), static_cast<char>('a' + id % 23));
  }
  SmallFileSystem disk{8};
};

TEST_F(FullDiskTest, NothingAcknowledgedIsLostAndDeletingMakesRoomAgain) {
  SKIP_WITHOUT(disk);
  start({.volumesIn = disk.path()});
  const uint64_t empty = freeBytes();
  size_t made = 0;
  while (made < 1000 && outcome(create(std::to_string(made), {section(0, payloadOf(made))})) == "success")
    ++made;
  EXPECT_EQ(space().stats().errOutOfSpace.value(), 1U);
  const uint64_t reserve = 8 * MIB / 20;
  EXPECT_LT(freeBytes(), reserve);
  EXPECT_GT(freeBytes(), reserve - LONGEST - 4096);  // the last segment may cut into it
  EXPECT_EQ(space().used(), 8 * MIB - freeBytes());

  // The rest is taken by someone else.
  Access::changeVolume(*cache, 1, [](Volume& volume) { volume.reserved = 0; });
  writeFile(disk / "ballast", std::string(freeBytes(), 'b'));
  EXPECT_EQ(outcome(create("another", {section(0, "text")})), "ENOSPC");  // in the first write of its file
  EXPECT_EQ(outcome(write("0", {section(1, "appended")})), "ENOSPC");
  EXPECT_EQ(space().stats().errOutOfSpace.value(), 3U);
  EXPECT_EQ(outcome(write("0", {section(0, "extended", 0, 2 * LONGEST)})), "ENOSPC");

  while (made-- > 0) {
    EXPECT_TRUE(get(std::to_string(made)) == payloadOf(made)) << made;
    EXPECT_EQ(outcome(remove(std::to_string(made))), "success");
  }
  fs::remove(disk / "ballast");
  EXPECT_EQ(freeBytes(), empty);
  put("once more", "text");
  ASSERT_EQ(mount(nullptr, disk.path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(get("once more"), "text") << "also from a disk that is read-only";
}

}  // namespace
}  // namespace ObjectStore
