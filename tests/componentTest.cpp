// The engine's components, each made by hand from those that it stands on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <future>

#include "diskcache/diskcacheContexts.h"
#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheOpen.h"
#include "diskcache/diskcachePruner.h"
#include "diskcache/diskcacheVolume.h"
#include "diskcache/segmentPlaces.h"
#include "diskcache/segmentRecords.h"
#include "tests/support/logCapture.h"
#include "tests/support/outcome.h"
#include "tests/support/tempDir.h"

namespace ObjectStore {
namespace {

using Texts = std::vector<std::string>;

class ComponentTest : public ::testing::Test {
 protected:
  std::string volumeDir(int number) {
    const std::string made = dir / ("vol" + std::to_string(number));
    std::filesystem::create_directories(made);
    return made;
  }

  TempDir dir;
  LogCapture log{LogLevel::Info};
  DiskCacheSettings settings{PersistentVolumes::Yes, PruningMode::Random, dir.path()};
  DiskCacheSpace space{settings};
  DiskCacheContexts contexts;
  DiskCacheOpenTable openTable;
  DiskCacheVolumes volumes{settings, space};
};

TEST_F(ComponentTest, SpaceWakesThePrunerForThoseWhoFindNoRoom) {
  const CZuError noRoom = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOSPC);
  for (const PruningMode mode : {PruningMode::Random, PruningMode::Lru}) {
    settings.pruningMode = mode;
    EXPECT_EQ(outcome(space.askForRoom(RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, EIO))), "EIO");
    EXPECT_FALSE(space.waitForWakeup(0));
    EXPECT_EQ(outcome(space.askForRoom(noRoom)), "ENOSPC");
    EXPECT_EQ(space.waitForWakeup(0), mode == PruningMode::Random);
  }
  space.setWatermarks(50, 40, 60);
  space.setCapacity(1000);
  for (const auto& [used, low, high] :
       {std::tuple{400U, false, false}, {401U, true, false}, {501U, true, true}}) {
    space.setUsed(used);
    EXPECT_EQ(std::pair(space.isOverLowWatermark(), space.isOverHighWatermark()), std::pair(low, high))
        << used;
    space.wakePrunerWhenFull();
    EXPECT_EQ(space.waitForWakeup(0), high) << used;
  }
  space.addUsed(-501);
  EXPECT_EQ(space.used(), 0U);
  EXPECT_EQ(space.writeFailureLevel(EIO), LogLevel::Error);
  EXPECT_EQ(space.writeFailureLevel(ENOSPC), LogLevel::NoSpace);
  EXPECT_EQ(space.countRefusal(ENOSPC), ENOSPC);
  EXPECT_EQ(space.stats().errOutOfSpace.value(), 2U);
}

TEST_F(ComponentTest, TheOpenTableSharesARecordUntilItsLastClose) {
  const RMCodeLocation where = RM_CODE_LOCATION;
  SegmentHandle first, second;
  ASSERT_EQ(outcome(openTable.openSegment(first, "abcd", where)), "success");
  ASSERT_EQ(outcome(openTable.openSegment(second, "abcd", where)), "success");
  EXPECT_EQ(first->second, second->second);
  const unsigned descriptor = openTable.openSegment("abcd", where);
  EXPECT_NE(descriptor, 0U);
  openTable.closeSegment(first);
  openTable.closeSegment(descriptor, where);
  EXPECT_TRUE(openTable.isSegmentOpened("abcd", where));
  openTable.closeSegment(second);
  EXPECT_FALSE(openTable.isSegmentOpened("abcd", where));
  openTable.closeSegment(descriptor, where);
  EXPECT_EQ(log.takeTexts(LogLevel::Error),
            Texts{"Error: Can't find descriptor " + std::to_string(descriptor)});
}

TEST_F(ComponentTest, TheOpenTableWaitsForTheWorkThatIsGoingOn) {
  auto waited = std::async(std::launch::deferred, [] {});
  {
    const QuietSegment busy(openTable, "abcd");
    waited = std::async(std::launch::async, [this] { openTable.waitForSegmentWork(); });
    EXPECT_EQ(waited.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  }
  waited.get();
}

TEST_F(ComponentTest, ContextsAskWhoeverRegisteredADirectoryFirst) {
  DiskCacheContext ctx;
  ctx.dir = "ctx";
  ctx.nonprunableDir = "./kept//";
  Texts asked;
  ctx.prunerCallback = [&](const std::string& name, const std::string& path, const std::string& guid) {
    asked = {name, path, guid};
    return true;
  };
  EXPECT_EQ(contexts.add(ctx), 1U);
  ctx.prunerCallback = nullptr;
  EXPECT_EQ(contexts.add(ctx), 2U);
  bool givenUp = false;
  EXPECT_EQ(outcome(contexts.ask(givenUp, "ctx", "/path", "abcd")), "success");
  EXPECT_TRUE(givenUp);
  EXPECT_EQ(asked, (Texts{"ctx", "/path", "abcd"}));
  for (const auto& [name, kept] :
       {std::pair{"kept", true}, {"kept/ab", true}, {"keptnot", false}, {"ctx", false}})
    EXPECT_EQ(contexts.isNonPrunable(name), kept) << name;
  uint32_t left = 9;
  EXPECT_TRUE(contexts.remove(ctx, left) && left == 1);
  EXPECT_TRUE(contexts.remove(ctx, left) && left == 0);
  EXPECT_FALSE(contexts.remove(ctx, left) || contexts.isNonPrunable("kept"));
  EXPECT_EQ(outcome(contexts.ask(givenUp, "ctx", "/path", "abcd")), "ENOENT");
}

TEST_F(ComponentTest, WhoUnregistersADirectoryWaitsForItsCallback) {
  std::promise<void> runs, mayEnd;
  DiskCacheContext ctx;
  ctx.dir = "ctx";
  ctx.prunerCallback = [&](auto&, auto&, auto&) {
    runs.set_value();
    mayEnd.get_future().wait();
    return false;
  };
  contexts.add(ctx);
  auto asking = std::async(std::launch::async, [this] {
    bool givenUp = true;
    const std::string told = outcome(contexts.ask(givenUp, "ctx", "", "abcd"));
    return told + (givenUp ? " given" : " kept");
  });
  runs.get_future().wait();
  uint32_t left = 0;
  EXPECT_TRUE(contexts.remove(ctx, left));
  contexts.waitForCallbacks("other");
  auto waited = std::async(std::launch::async, [this] { contexts.waitForCallbacks("ctx"); });
  EXPECT_EQ(waited.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  mayEnd.set_value();
  waited.get();
  EXPECT_EQ(asking.get(), "success kept");
}

TEST_F(ComponentTest, VolumesTakeTurnsAndAreMovedInTheirFile) {
  ASSERT_EQ(outcome(volumes.initVolumes({volumeDir(1), volumeDir(2)})), "success");
  EXPECT_GT(space.capacity(), space.used());
  Texts turns;
  for (int i = 0; i < 4; ++i) turns.push_back(std::to_string(volumes.getNextVolWithSpace()));
  EXPECT_EQ(turns, (Texts{"1", "2", "1", "2"}));
  EXPECT_GT(volumes.freeBytesOf(2), 0U);
  EXPECT_EQ(volumes.freeBytesOf(3), 0U);
  EXPECT_EQ(volumes.onlyVolume(), std::nullopt);
  volumes.moveVolume(2, volumeDir(3), RM_CODE_LOCATION);
  EXPECT_EQ(volumes.findDirectory(2), dir / "vol3");
  EXPECT_EQ(volumes.findDirectory(3), std::nullopt) << "looking makes none";
  EXPECT_EQ(volumes.directories().size(), 2U);
  EXPECT_EQ(readFile(dir / VOLUME_INFO_FNAME), dir / "vol1,1\n" + (dir / "vol3,2\n"));
  writeFile(dir / "vol1/a/b", "text");
  EXPECT_EQ(outcome(volumes.clearCache()), "success");
  EXPECT_EQ(treeOf(dir / "vol1"), Texts{"recycle/"});
}

TEST_F(ComponentTest, RecordsAreAppendedChangedAndFoundInAnyFile) {
  SegmentRecords records(settings, space, volumes);
  ASSERT_EQ(outcome(volumes.initVolumes({volumeDir(1)})), "success");
  const int fd = ::open((dir / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  std::string text = "0123456789";
  Section section;
  section.type = 2;
  section.len = section.bufferSize = text.size();
  section.data = reinterpret_cast<unsigned char*>(text.data());
  EXPECT_EQ(outcome(records.writeSegmentHeader(fd)), "success");
  EXPECT_EQ(outcome(records.appendSection(fd, 1, section)), "success");
  SegmentHeader header;
  ::lseek(fd, 0, SEEK_SET);
  EXPECT_EQ(outcome(readSegmentHeader(header, fd)), "success");
  bool found = false;
  uint64_t at = 0;
  EXPECT_EQ(outcome(findSection(&found, &at, 2, header)), "success");
  EXPECT_TRUE(found && at == SEGMENT_HEADER_SIZE);
  KxCriticalSection lock;
  const KxCriticalSectionLock held(&lock);
  section.off = 5;
  section.len = 2;
  EXPECT_EQ(outcome(records.modifySection(fd, section, at, lock)), "success");
  section.len = section.bufferSize + 1;
  EXPECT_EQ(outcome(records.modifySection(fd, section, at, lock)), "EINVAL");
  ::close(fd);
  EXPECT_EQ(readFile(dir / "file").substr(SEGMENT_HEADER_SIZE + SECTION_DESC_SIZE), "0123401789");
  EXPECT_EQ(log.take().back().operation.find("ObjectStore::CZuError ObjectStore::DiskCache::modifySection("),
            0U)
      << "known to readers of the log as the engine's";
}

TEST_F(ComponentTest, TheListAndThePrunerAskTheOthers) {
  ASSERT_EQ(outcome(volumes.initVolumes({volumeDir(1)})), "success");
  DiskCacheMigrator migrator(settings, volumes, openTable);
  SegmentPlaces places(migrator);
  DiskcacheLRU list(settings, space, contexts, migrator);
  DiskCachePruner pruner(space, contexts, openTable, volumes, list);
  list.init(1);
  settings.pruningMode = PruningMode::Lru;
  DiskCacheContext ctx;
  ctx.dir = "ctx";
  Texts asked;
  ctx.prunerCallback = [&](auto&, const std::string& path, auto&) {
    asked.push_back(path);
    return true;
  };
  contexts.add(ctx);
  EXPECT_EQ(places.segmentPath("abcdef", 1, "ctx"), dir / "vol1/ctx/ab/cd/abcdef");
  EXPECT_EQ(places.segmentPath("abcdef", 7, "ctx"), "") << "no volume";
  EXPECT_EQ(outcome(list.addToLru("abcdef", 1, "ctx")), "success");
  EXPECT_EQ(outcome(list.addToLru("bcdefg", 1, "ctx")), "success");
  EXPECT_EQ(asked, Texts{dir / "vol1/ctx/ab/cd/abcdef"});

  asked.clear();
  space.setUsed(1);
  for (const char* name : {"abcdef", "bcdefg", "cdefgh"})
    writeFile(places.segmentPath(name, 1, "ctx"), "");  // one in the list, one open, one neither
  const AutoOpenSegment open(openTable, "cdefgh");
  EXPECT_EQ(pruner.deletePrunableSegments(), PrunerError::Exhausted);
  EXPECT_EQ(asked, Texts{dir / "vol1/ctx/ab/cd/abcdef"});
  EXPECT_EQ(space.stats().numPruned.value(), 1U);
}

}  // namespace
}  // namespace ObjectStore
