// Section records: room for new ones, headers, and how operations time their calls.
#include <future>

#include "diskcache/diskcacheSpace.h"
#include "diskcache/segmentRecords.h"
#include "support/perfCounters.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

using FormatTest = EngineTest;

TEST_F(FormatTest, OnlyModeRandomWaitsOneSecondForRoom) {
  const std::string text = "abc", fitting = "EBADF";  // how writing to no file ends
  const auto append = [&](VolIndex volume) {
    return outcome(Access::records(*cache).appendSection(-1, volume, section(0, text, 0, 9)));
  };
  // Not enabled: the pruner that is woken must not measure the volume anew.
  const auto setFree = [this](int64_t bytes) {
    Access::changeVolume(*cache, 1, [=](Volume& volume) { volume.allow = false, volume.free = bytes; });
  };
  for (const PruningMode mode : {PruningMode::Random, PruningMode::Lru}) {
    start({.mode = mode});
    FaultPlan plan;
    plan.skipSleeps();
    setFree(3);
    EXPECT_EQ(append(1), fitting);
    setFree(2);
    if (mode == PruningMode::Random) {
      const std::string goesToSleep = "Pruner Thread will wakeup";
      EXPECT_TRUE(log.waitFor(goesToSleep));
      log.clear();
      HoldAtLine hold(log, "Out of space, trying to free more");
      auto appended = std::async(std::launch::async, [&] { return append(1); });
      EXPECT_TRUE(hold.reached() && log.waitFor(goesToSleep)) << "again: it was woken";
      EXPECT_TRUE(log.has(LogLevel::Notice, "Out of space, trying to free more"));
      setFree(3);
      hold.release();
      EXPECT_EQ(appended.get(), fitting);
      setFree(2);
    }
    for (const VolIndex volume : {VolIndex{1}, VolIndex{7}})
      EXPECT_EQ(append(volume), "ENOSPC");  // 7 is none
    const size_t seconds = mode == PruningMode::Random ? 3 : 0;
    EXPECT_EQ(plan.sleeps(), std::vector<std::chrono::nanoseconds>(seconds, std::chrono::seconds(1)));
    EXPECT_EQ(space().stats().errOutOfSpace.value(), 2U);
  }
}

// How often each operation starts and stops each counter, on a segment of types 3 and 0, then 1 as well.
TEST_F(FormatTest, OperationsTimeTheirCallsUnderTheCountersTheyAreKnownBy) {
  const std::string text = "0123456789";
  std::vector<Section> one{section(0, text)};
  const std::vector<Section> two{section(3, text), section(0, text)}, other{section(1, text)};
  std::vector<SectionV> all;
  std::vector<unsigned char> data;
  const std::pair<std::function<CZuError()>, const char*> cases[] = {
      {[&] { return cache->createSegment(ctx, "abcd", two, true, false, false); },
       "Sync 1 DiskWrite 7 Open 1 Seek 2 Close 1 "},
      {[&] { return write("abcd", one); }, "diskWrite 1 DiskRead 2 DiskWrite 2 Open 1 Close 1 "},
      {[&] { return cache->writeSections(ctx, "abcd", other, true, ForceDiskLoc::Default); },
       "diskWrite 1 Sync 1 DiskRead 1 DiskWrite 3 Open 1 Seek 1 Close 1 "},
      {[&] { return cache->readSections(ctx, "abcd", one, true); }, "diskRead 1 DiskRead 3 Open 1 "},
      {[&] { return cache->readAllSections(ctx, "abcd", all); },  // the header's read counts as a write
       "diskRead 1 DiskRead 6 DiskWrite 1 Open 1 Seek 3 "},
      {[&] { return cache->readCompleteSection(ctx, "abcd", 0, data); }, "diskRead 1 DiskRead 3 Open 1 "},
      {[&] { return cache->truncateSection(ctx, "abcd", 1, 0, 4); },
       "DiskRead 2 DiskWrite 2 Open 1 Close 1 "},
      {[&] { return cache->syncSegment(ctx, "abcd"); }, "Sync 1 Open 1 Close 1 "},
      {[&] { return cache->replaceSegment(ctx, "abcd", one); }, "DiskWrite 4 Open 1 Seek 1 Close 1 "},
      {[&] { return remove("abcd"); }, "Fstat 1 "}};
  start();
  for (const auto& [call, timed] : cases) {
    ThrdPerfCounter counter;
    counter.enable(true);
    g_object_store_counter = &counter;
    g_object_store_enable_perf = true;
    EXPECT_EQ(outcome(call()), "success") << timed;
    g_object_store_enable_perf = false;
    g_object_store_counter = nullptr;
    std::string seen;
    for (const auto& row : counter.table())
      seen +=
          row.name.substr(row.name.starts_with("DiskCache") ? 9 : 0) + ' ' + std::to_string(row.count) + ' ';
    EXPECT_EQ(seen, timed);
  }
}

// Both forms of a header's writer write the same bytes, and tell when they cannot.
TEST_F(FormatTest, TheHeaderIsWrittenAlikeToAStream) {
  start();
  const std::string path = dir / "header";
  for (const char* mode : {"wb", "rb"}) {
    std::FILE* stream = std::fopen(path.c_str(), mode);
    ASSERT_TRUE(stream);
    EXPECT_EQ(outcome(writeSegmentHeader(stream)), mode[0] == 'w' ? "success" : "EBADF");
    std::fclose(stream);
  }
  EXPECT_EQ(outcome(create("empty", {})), "success");
  EXPECT_EQ(bytesOf("empty"), readFile(path));
  EXPECT_EQ(log.takeTexts(LogLevel::Error), std::vector<std::string>{"Error: Can't write header (9)"});
  EXPECT_TRUE(cache->checkAccess(ctx, "empty", 0, nullptr) && cache->checkAccess(ctx, "none", ~0U, nullptr));
  EXPECT_EQ(outcome(cache->setSparseFileAttribute(ctx, "none")), "success");
}

}  // namespace
}  // namespace ObjectStore
