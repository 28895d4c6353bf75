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
  static std::string text(const Table& table) {
    std::string out;
    for (const auto& [key, value] : table) out += key + '=' + value + ' ';
    return out;
  }
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
  (void)cache->updateWatermarks(50, 1, 1);
  FaultPlan plan;
  plan.skipSleeps();
  const std::string over = "Is OverHighWaterMark, Empty space available is ";
  const std::string delay = "Delaying the write to segment operation ";
  const std::pair<uint64_t, Texts> cases[] = {{500, {}},
                                              {1000, {over + '0'}},
                                              {1001, {over + "18446744073709551615", delay + '0'}},
                                              {997, {over + '3', delay + "666"}},
                                              {999, {over + '1', delay + "1000"}}};
  for (const auto& [used, lines] : cases) {
    log.clear(), Access::setSpace(*cache, used, 1000);
    space().delayWriteToSegment();
    EXPECT_EQ(log.takeTexts(LogLevel::Segment), lines);
  }
  EXPECT_EQ(plan.sleeps(), (std::vector<std::chrono::nanoseconds>{666ms, 1000ms}));
  // Over the high watermark every change is delayed before anything is touched, and new bytes wake the pruner.
  ctx.useNonPrunableDir = true;
  const std::string text = "text";
  const std::vector<Section> in{section(0, text)};
  const std::pair<std::function<CZuError()>, bool> changes[] = {
      {[&] { return create("abcdef", in); }, true},
      {[&] { return write("abcdef", in); }, true},
      {[&] { return cache->markDirty(ctx, "abcdef", false); }, false},
      {[&] { return cache->moveToPrunable(ctx, "abcdef"); }, false}};
  for (const bool isOver : {false, true}) {
    for (const auto& [change, wakes] : changes) {
      SCOPED_TRACE(&change - &changes[0].first);
      Access::setSpace(*cache, isOver ? 600'000 : 400'000, 1'000'000);
      plan.takeTrace();
      EXPECT_EQ(outcome(change()), "success");
      EXPECT_EQ(plan.trace().front() == "nanosleep", isOver);
      EXPECT_EQ(space().waitForWakeup(0), isOver && wakes);
    }
    (void)remove("abcdef");
  }
}

TEST_F(SpaceTest, StatusAndCountersAreTold) {
  put("abcdef", "text");
  Access::setSpace(*cache, 123, ~uint64_t{0});
  log.clear();
  (void)cache->updateWatermarks(10, 90, -5);
  int high = 0, low = 0, alarm = 0;
  (void)cache->getCurrentWatermarks(high, low, alarm);
  EXPECT_EQ((std::vector{high, low, alarm}), (std::vector{10, 90, -5}));
  cache->setOutOfSpace(true);
  EXPECT_EQ(log.takeTexts(), (Texts{"1 New watermarks=[10/90/-5]", "1 Current watermarks=[10/90/-5]",
                                    "1 Setting out of space mode = 1"}));
  Table table{{"DC.HighWM", "replaced"}, {"mine", "kept"}};
  cache->getStatus(table);
  const std::string list = to_hexstring(&Access::lru(*cache));
  EXPECT_EQ(
      text(table),
      "DC.AlarmWM=18446744073709551611 DC.HighWM=10 DC.LRUEntriesCur=1 DC.LRUEntriesMax=1000 DC.LRUPtr=" +
          list +
          " DC.LowWM=90 DC.PruningMode=lru DC.SegmentsInCache=1 DC.TotalCache=18446744073709551615 "
          "DC.UsedCache=123 mine=kept ");
  FaultPlan plan;
  plan.skipSleeps();
  Access::setSpace(*cache, 900, 1000);
  Access::changeVolume(*cache, 1, [](Volume& volume) { volume.reserved = ~uint64_t{0}; });
  EXPECT_EQ(outcome(create("refused", {})), "ENOSPC");
  table.clear();
  for (int i = 0; i < 2; ++i) cache->getCounters(table);
  EXPECT_EQ(text(table), "DC.delayMs=20 DC.errOutOfSpace=1 DC.numPruned=0 ");
}

}  // namespace
}  // namespace ObjectStore
