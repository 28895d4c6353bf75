// Restarts, volumes that come and go, and the bound in bytes.
#include <sys/statvfs.h>

#include "tests/support/clientFixture.h"
#include "tests/support/faults.h"
#include "tests/support/smallFileSystem.h"

namespace ObjectStore {
namespace {

struct ClientVolumeTest : ClientTest {
  void readObjects(int from, int to, size_t size = 1000) {
    for (int i = from; i < to; ++i) ASSERT_EQ(readAll(std::to_string(i), size), "right") << i;
  }
  // Reads them, and the origin is asked for so many of them.
  void readAsking(size_t times, int from, int to, size_t size = 1000) {
    asked();
    readObjects(from, to, size);
    EXPECT_EQ(asked(), times) << from << " to " << to;
  }
};

TEST_F(ClientVolumeTest, EverythingIsFoundAgainWhateverTheOrderAndWhateverLiesBeside) {
  chosen = options(3);
  chosen.highWatermark = chosen.lowWatermark = 1000;
  start();
  readAsking(60, 0, 60);
  for (const std::string& volume : chosen.volumes) {
    EXPECT_GT(std::distance(fs::recursive_directory_iterator(volume + "/blocks"), {}), 20);
    writeFile(volume + "/lost+found/abc", "x");
    writeFile(volume + "/recycle/def", "x");
    writeFile(volume + "/blocks/ab/cd/foreign", "x");
  }
  for (const PruningMode mode : {PruningMode::Lru, PruningMode::Random, PruningMode::Lru}) {
    chosen.mode = mode;
    std::rotate(chosen.volumes.begin(), chosen.volumes.begin() + 1, chosen.volumes.end());
    chosen.volumes[0] += "//";
    start();
    readAsking(0, 0, 60);
  }
}

TEST_F(ClientVolumeTest, AVolumeThatIsNotThereIsNotFilled) {
  chosen = options(2);
  start();
  readObjects(0, 40);
  cache.reset();
  fs::rename(dir / "vol2", dir / "away");
  fs::create_directories(dir / "vol2");  // an empty mount point
  start();
  EXPECT_EQ(cache->metrics().absentVolumes, 1U);
  readAsking(20, 0, 40);
  EXPECT_TRUE(fs::is_empty(dir / "vol2"));
  cache.reset();
  fs::remove_all(dir / "vol2");
  fs::rename(dir / "away", dir / "vol2");
  start();
  readAsking(0, 0, 40);
  EXPECT_EQ(files().size(), 40U);  // the copies made meanwhile are gone

  // Gone while it is in use: misses, and the other volume takes what comes.
  fs::rename(dir / "vol2", dir / "away");
  fs::create_directories(dir / "vol2");
  readObjects(0, 80);
  EXPECT_TRUE(fs::is_empty(dir / "vol2"));
  readAsking(0, 0, 80);
  cache.reset();
  chosen.replaceVolumes = true;
  start();
  EXPECT_EQ(cache->metrics().absentVolumes, 0U);
}

TEST_F(ClientVolumeTest, RootsAndVolumesAreNotShared) {
  chosen = options(2);
  start();
  ObjectCache second(chosen);
  const CZuError error = second.open();
  EXPECT_EQ(outcome(error), "EBUSY");
  EXPECT_NE(error.AsString().find(std::to_string(getpid())), std::string::npos) << error.AsString();
  chosen.root = dir / "another root";
  EXPECT_EQ(outcome(ObjectCache(chosen).open()), "EBUSY");
  chosen = options(2);
  fs::create_directory_symlink(dir / "vol1", dir / "link");
  chosen.volumes.push_back(dir / "link");
  EXPECT_EQ(openWith(chosen), "EEXIST");
  chosen = options();
  chosen.blockSize = 65537;
  EXPECT_EQ(openWith(chosen), "EINVAL");
  chosen = options();
  chosen.maxBlocks = 4;
  EXPECT_EQ(openWith(chosen), "EINVAL");
  EXPECT_EQ(outcome(cache->read("key", "v", 0, {}, [](OriginRequest&) { return OriginAnswer(); }).error),
            "EBADF");
  writeFile(dir / "root/migrate", "1\n/a\n/b\n");
  EXPECT_EQ(openWith(options()), "EBUSY");
}

TEST_F(ClientVolumeTest, TheBoundEvictsTheLeastRecentlyUsedAndLoweringItCountsAtOnceAndAtTheNextStart) {
  start();
  readObjects(0, 1);
  const uint64_t each = cache->metrics().usedBytes;
  chosen.maxBytes = 20 * each + 4096;
  start();
  readObjects(0, 20);
  for (const std::string& path : files())
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(1));
  readObjects(0, 5);  // used again
  readObjects(20, 30);
  EXPECT_EQ(cache->metrics().evictedBlocks, 10U);
  EXPECT_EQ(asked(), 30U);
  readAsking(0, 0, 5);
  readAsking(0, 15, 30);
  chosen.maxBytes = 10 * each;
  start();
  EXPECT_EQ(files().size(), 10U);
  readAsking(0, 20, 30);  // those made last
  readAsking(0, 25, 30);
  cache->setMaxBytes(5 * each);  // at once
  EXPECT_EQ(files().size(), 5U);
  EXPECT_EQ(cache->metrics().hotBlocks, 5U);
  readAsking(0, 25, 30);
  chosen.maxBytes = 0;
  chosen.maxBlocks = 7;
  start();
  readObjects(25, 34);
  EXPECT_EQ(cache->metrics().evictedBlocks, 2U);
  EXPECT_EQ(asked(), 4U);
  readAsking(0, 27, 34);
  EXPECT_EQ(files().size(), 7U);
}

TEST_F(ClientVolumeTest, AMovedVolumeIsFoundWhereItIsAndNotWhereItWas) {
  chosen = options(2);
  start();
  readObjects(0, 40);
  const std::vector<std::string> before = files(), was = chosen.volumes;
  ASSERT_EQ(stage("staged", 1000), "success");
  EXPECT_EQ(outcome(cache->moveVolume(was[0], dir / "new")), "EBUSY");
  ASSERT_EQ(outcome(cache->discardStaged("staged", "v")), "success");

  // Refused or failed, and all is as before.
  fs::create_symlink("nowhere", was[0] + "/blocks/link");
  fs::create_symlink(was[1], dir / "toB");
  writeFile(dir / "taken/below/file", "x");
  const std::tuple<std::string, std::string, const char*> refusals[] = {
      {was[0], dir / "failed", "EINVAL"},   {was[0], dir / "toB/below", "EINVAL"},
      {was[0], was[0], "EINVAL"},           {was[0], "", "EINVAL"},
      {was[0], dir / "taken", "ENOTEMPTY"}, {dir / "none", dir / "new", "ENOENT"}};
  for (const auto& [source, destination, told] : refusals) {
    const CZuError error = cache->moveVolume(source, destination);
    EXPECT_EQ(outcome(error), told) << destination;
    EXPECT_NE(error.AsString().find(source), std::string::npos) << error.AsString();
  }
  EXPECT_EQ(files(), before);
  readAsking(0, 0, 40);
  cache->close();
  m_descriptors = openDescriptors();  // a copy that is stopped leaves its directory open
  start();
  readAsking(0, 0, 40);
  fs::remove(was[0] + "/blocks/link");

  ASSERT_EQ(outcome(cache->moveVolume(was[0] + "//", dir / "new")), "success");
  EXPECT_EQ(cache->metrics().hotBlocks, 0U);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / "new"), {}), 3);  // blocks, staged, recycle
  readAsking(20, 0, 60);
  EXPECT_EQ(openWith(chosen), "EBUSY");
  chosen.volumes[0] = dir / "new";
  start();
  readAsking(0, 0, 60);
  // Back again, also for the next open() of the same cache.
  fs::remove_all(was[0]);
  ASSERT_EQ(outcome(cache->moveVolume(dir / "new", was[0])), "success");
  cache->close();
  ASSERT_EQ(outcome(cache->open()), "success");
  readAsking(0, 0, 60);
  // One that is not mounted has nothing to move.
  fs::rename(was[0], dir / "unmounted");
  fs::create_directory(was[0]);
  EXPECT_EQ(outcome(cache->moveVolume(was[0], dir / "other")), "ENOENT");
}

TEST_F(ClientVolumeTest, AFullDiskAndItsInodesEvictAndNobodyIsHurt) {
  for (const auto& [inodes, size, objects] : {std::tuple{0U, 3 * SMALL_BLOCK, 100}, {100U, 100U, 200}}) {
    const SmallFileSystem disk(8, inodes);
    SKIP_WITHOUT(disk);
    chosen = options();
    chosen.root = dir / "root" + std::to_string(inodes);
    chosen.volumes = {disk / "volume"};
    chosen.reserveFiles = 10;
    start();
    readObjects(0, objects, size);
    EXPECT_GT(cache->metrics().evictedBlocks, 100U);
    EXPECT_EQ(cache->metrics().refusedForRoom, 0U);
    readAsking(0, objects - 10, objects, size);
    struct statvfs status {};
    ASSERT_EQ(statvfs(disk.path().c_str(), &status), 0);
    EXPECT_GE(status.f_favail, 10U);
    // More than the disk must stay free: nothing is cached, and everything is served.
    chosen.reserve = 64 << 20;
    start();
    EXPECT_EQ(readAll("new", SMALL_BLOCK), "right");
    EXPECT_EQ(cache->metrics().refusedForRoom, 1U);
    cache.reset();
  }
}

TEST_F(ClientVolumeTest, ModeRandomUnderPressureServesAll) {
  const SmallFileSystem disk(8);
  SKIP_WITHOUT(disk);
  chosen.volumes = {disk / "volume"};
  chosen.mode = PruningMode::Random;
  chosen.highWatermark = 50;
  chosen.lowWatermark = 30;
  start();
  FaultPlan plan;
  plan.skipSleeps();  // of writers that make way for the pruner
  const auto end = std::chrono::steady_clock::now() + LONGEST_WAIT;  // of the pruner's thread
  for (size_t i = 0; cache->metrics().evictedBlocks < 50 && std::chrono::steady_clock::now() < end; ++i)
    ASSERT_EQ(readAll(std::to_string(i % 500), 2 * SMALL_BLOCK), "right");
  EXPECT_GE(cache->metrics().evictedBlocks, 50U);
  EXPECT_EQ(cache->metrics().damagedBlocks, 0U);
  cache.reset();
}

}  // namespace
}  // namespace ObjectStore
