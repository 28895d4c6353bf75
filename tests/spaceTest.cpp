// Watermarks, the delay of writers, and what the engine tells of itself.

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheSpace.h"
#include "support/config.h"
#include "support/file.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

using namespace std::literals;
using Table = std::map<std::string, std::string>;

class SpaceTest : public EngineTest {
 protected:
  void SetUp() override { start(); }
  void TearDown() override { ConfigStore::clear(); }
  const std::string payload = "text";
  const std::vector<Section> in{section(0, payload)};
};

TEST_F(SpaceTest, EachWatermarkIsBytesOrElsePercent) {
  (void)cache->updateWatermarks(50, 40, 60);
  const std::tuple<const char*, bool (DiskCache::*)(), uint64_t> watermarks[] = {
      {"DiskCacheHighWMBytes", &DiskCache::isOverHighWatermark, 500},
      {"DiskCacheLowWMBytes", &DiskCache::isOverLowWatermark, 400},
      {"DiskCacheAlarmWMBytes", &DiskCache::isOverAlarmWatermark, 600}};
  for (const auto& [key, isOver, percents] : watermarks) {
    for (const auto& [bytes, most] : {std::pair{"0", percents}, {"many", percents}, {"700", uint64_t{700}}}) {
      ConfigStore::set(CONFIG_SECTION, key, bytes);
      for (const uint64_t used : {most, most + 1}) {
        Access::setSpace(*cache, used, 1000);
        EXPECT_EQ((*cache.*isOver)(), used > most) << key << ' ' << bytes;
      }
    }
    ConfigStore::clear();
  }
}

TEST_F(SpaceTest, WritersWaitTheLongerTheLessIsFree) {
  put("abcdef", "text");
  (void)cache->updateWatermarks(50, 1, 1);
  FaultPlan plan;
  plan.skipSleeps();
  const std::string over = "Is OverHighWaterMark, Empty space available is ";
  const std::string delay = "Delaying the write to segment operation ";
  const std::pair<uint64_t, Texts> cases[] = {{500, {}},
                                              {1000, {over + '0'}},
                                              {1001, {over + "18446744073709551615", delay + '0'}},
                                              {994, {over + '6', delay + "333"}},
                                              {999, {over + '1', delay + "1000"}}};
  for (const auto& [used, lines] : cases) {
    log.clear(), Access::setSpace(*cache, used, 1000);
    space().delayWriteToSegment();
    EXPECT_EQ(log.takeTexts(LogLevel::Segment), lines);
  }
  EXPECT_EQ(plan.sleeps(), (std::vector<std::chrono::nanoseconds>{333ms, 1000ms}));
  // Over the high watermark these changes are delayed before anything is touched, and new bytes wake the pruner.
  ctx.useNonPrunableDir = true;
  for (const bool isOver : {false, true}) {
    for (const auto& [name, touches, run] : operationsOn("abcdef")) {
      SCOPED_TRACE(name);
      const bool wakes = name == "createSegment" || name == "writeSections";
      const bool waits = wakes || name == "markDirty" || name == "moveToPrunable";
      Access::setSpace(*cache, isOver ? 600'000 : 400'000, 1'000'000);
      plan.takeTrace();
      EXPECT_EQ(outcome(run()), "success");
      EXPECT_EQ(plan.trace().front() == "nanosleep", isOver && waits);
      EXPECT_EQ(space().waitForWakeup(0), isOver && wakes);
    }
  }
}

TEST_F(SpaceTest, InModeRandomWhoFindsNoRoomWakesThePrunerUnlessThatIsSimulated) {
  HoldAtLine hold(log, "Pruner Thread will wakeup");  // which would take the wake-up
  start({.mode = PruningMode::Random});
  ASSERT_TRUE(hold.reached());
  ctx.useNonPrunableDir = true;
  put("abcd", "text");
  const std::pair<std::string, std::function<CZuError()>> cases[] = {
      {"open", [&] { return create("new", in); }},
      {"pwrite", [&] { return write("abcd", in); }},
      {"pwrite", [&] { return cache->replaceSegment(ctx, "abcd", in); }},
      {"pwrite", [&] { return cache->truncateSection(ctx, "abcd", 0, 0, 2); }},
      {"mkdir", [&] { return cache->copyOverrideSegment(ctx, "abcd", true); }}};
  for (const auto& [call, change] : cases) {
    const uint64_t refused = space().stats().errOutOfSpace.value();
    FaultPlan plan;
    plan.failAlways(call, ENOSPC);
    EXPECT_EQ(outcome(change()), "ENOSPC");
    EXPECT_TRUE(space().waitForWakeup(0)) << call;
    EXPECT_TRUE(log.has(LogLevel::Error, "Error: can't create file [" + pathOf("new") + "] (28)"));
    EXPECT_EQ(space().stats().errOutOfSpace.value() - refused, call == "pwrite" ? 1U : 0U);
  }
  cache->setOutOfSpace(true);
  EXPECT_EQ(outcome(create("new", in)), "ENOSPC");
  EXPECT_TRUE(log.has(LogLevel::Segment, "simulating out of space"));
  EXPECT_FALSE(space().waitForWakeup(0));
}

TEST_F(SpaceTest, StatusAndCountersAreTold) {
  put("abcdef", "text");
  Access::setSpace(*cache, 123, ~uint64_t{0});
  (void)cache->updateWatermarks(10, 90, -5);
  Table table{{"DC.HighWM", "replaced"}, {"mine", "kept"}};
  cache->getStatus(table);
  EXPECT_EQ(table, (Table{{"DC.AlarmWM", "18446744073709551611"},
                          {"DC.HighWM", "10"},
                          {"DC.LowWM", "90"},
                          {"DC.LRUEntriesCur", "1"},
                          {"DC.LRUEntriesMax", "1000"},
                          {"DC.LRUPtr", to_hexstring(&list())},
                          {"DC.PruningMode", "lru"},
                          {"DC.SegmentsInCache", "1"},
                          {"DC.TotalCache", "18446744073709551615"},
                          {"DC.UsedCache", "123"},
                          {"mine", "kept"}}));
  FaultPlan plan;
  plan.skipSleeps();
  Access::setSpace(*cache, 900, 1000);
  EXPECT_TRUE(cache->isOverAlarmWatermark()) << "which is negative";
  Access::changeVolume(*cache, 1, [](Volume& volume) { volume.reserved = ~uint64_t{0}; });
  EXPECT_EQ(outcome(create("refused", {})), "ENOSPC");
  table.clear();
  for (int i = 0; i < 2; ++i) cache->getCounters(table);
  EXPECT_EQ(table, (Table{{"DC.delayMs", "20"}, {"DC.errOutOfSpace", "1"}, {"DC.numPruned", "0"}}));
}

}  // namespace
}  // namespace ObjectStore
