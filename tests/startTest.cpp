// How an engine begins: what init fills in, and the scan for segments that are on the volumes.
#include <regex>
#include <set>

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcachePruner.h"
#include "diskcache/diskcacheScan.h"
#include "diskcache/diskcacheSpace.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

using StartTest = EngineTest;

TEST_F(StartTest, AScanFollowsLinksButNotInACircleAndNotForEver) {
  start();
  for (const std::string child : {"a", "b", "c"}) {
    const std::string below = volumes[0] + '/' + child;
    writeFile(below + "/in-" + child, "");
    for (const std::string other : {"a", "b", "c"})
      fs::create_directory_symlink("../" + other, below + "/to-" + other);
    fs::create_directory_symlink("..", below + "/up");
  }
  std::string deepest = volumes[0] + "/deep";
  for (int i = 0; i < 64; ++i) deepest += "/d";
  writeFile(deepest + "/too deep", "");
  log.setLevel(LogLevel::Info);
  uint64_t files = 0;
  EXPECT_EQ(outcome(scanSegmentsIntoLru(list(), Access::volumes(*cache), files)), "success");
  for (const char* file : {"in-a", "in-b", "in-c"}) EXPECT_TRUE(list().isInLru(file, false));
  for (const char* none : {"too deep", "up", "to-a"}) EXPECT_FALSE(list().isInLru(none, false));
  EXPECT_TRUE(log.has(LogLevel::Info, "Info: [" + volumes[0] + "/a/up] leads back up, not scanned"));
  EXPECT_TRUE(
      log.has(LogLevel::Error, "Error: [" + deepest + "] is more than 64 directories deep, not scanned"));
}

// What init makes of the bound, and of what lies on the volumes; a volume that cannot be listed ends it.
TEST_F(StartTest, InitBoundsTheListAndScansInModeLruOnly) {
  const struct {
    PruningMode mode;
    uint64_t asked;
    const char* failing;
    std::string result, bound, entries;
  } cases[] = {{PruningMode::Lru, 4, "", "success", "5", "4"},
               {PruningMode::Lru, 6, "", "success", "6", "4"},
               {PruningMode::Random, 5, "", "success", "5", "0"},
               {PruningMode::Lru, 7, "opendir", "EIO", "7", "0"},
               {PruningMode::Random, 8, "thread", "EINVAL", "0", "0"}};
  const Texts dirs = {dir / "vol1", dir / "vol2"};
  for (const char* file : {"/vol1/a/x/s", "/vol1/recycle/t", "/vol2/u", "/vol2/b/v"})
    writeFile(dir.path() + file, "");
  writeFile(dir / "root/volume_info", dirs[0] + ",7\n");  // neither read nor written
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.asked << c.failing);
    log.clear();
    cache = std::make_unique<DiskCache>(PersistentVolumes::No);
    FaultPlan plan;
    if (*c.failing) plan.fail(c.failing, 1, EIO), writeFile(dir / "root/migrate", "not looked at any more");
    EXPECT_EQ(outcome(cache->init(dir / "root", dirs, FAR_WM, FAR_WM, FAR_WM, c.asked, nullptr, c.mode)),
              c.result);
    EXPECT_EQ(log.has(LogLevel::Segment, "Finished scanning segments"),
              c.mode == PruningMode::Lru && c.result == "success");
    EXPECT_EQ(log.has(LogLevel::Setup, "maxLruEntries set too low, setting to 5"), c.asked < 5);
    EXPECT_EQ(readFile(dir / "root/volume_info"), dirs[0] + ",7\n");
    EXPECT_EQ(plan.count("thread"), c.mode == PruningMode::Random ? 1U : 0U);
    for (const char* line :
         {"Error: Can't create pruner thread: Input/output error", "Error: Can't init pruner (22)"})
      EXPECT_EQ(log.has(LogLevel::Error, line), c.result == "EINVAL");
    std::map<std::string, std::string> status;
    cache->getStatus(status);
    EXPECT_EQ(status["DC.LRUEntriesMax"], c.bound);
    EXPECT_EQ(status["DC.LRUEntriesCur"], c.entries);
    EXPECT_EQ(space().files().value_or(0), std::stoll(c.entries)) << "of all volumes";
    VolIndex s = 0, v = 0;
    EXPECT_EQ(list().findVolume("s", s) && list().findVolume("v", v), c.entries == "4");
    EXPECT_EQ(s + 10 * v, c.entries == "4" ? 21 : 0);
    EXPECT_EQ(space().files().value_or(-1), c.entries == "4" ? 4 : -1) << "counted on both volumes";
  }
}

TEST_F(StartTest, AScanTagsByTheFirstChildAndAFailureOrAFullListEndsItsPass) {
  for (const char* file : {"/vol1/a/x/s", "/vol1/recycle/t", "/vol1/u"}) writeFile(dir.path() + file, "");
  start();
  std::set<std::string> found;
  ctx.prunerCallback = [&](auto&, auto& path, auto&) { return found.insert(path), false; };
  for (const char* child : {"a", "recycle", "u"}) ctx.dir = child, (void)cache->registerContext(ctx);
  uint64_t files = 0;
  Texts children;
  readChildren(children, volumes[0]);
  const struct {
    const char* call;
    size_t nth, tag;
    Texts failures;
  } cases[] = {
      {"", 0, 0, {}},
      {"opendir", 2, 1, {"Error: can't open directory [" + volumes[0] + "] (5)"}},
      {"fstatat", 1, 1, {"Error: can't stat [" + volumes[0] + '/' + children[0] + "] (5)"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.call);
    list().clearLru();
    list().init(3);
    log.clear(), found.clear();
    FaultPlan plan;
    if (*c.call) plan.fail(c.call, c.nth, EIO);
    EXPECT_EQ(outcome(scanSegmentsIntoLru(list(), Access::volumes(*cache), files)), "success");
    EXPECT_EQ(log.takeTexts(LogLevel::Error), c.failures);
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(outcome(list().addToLru("new", 1, ctx.dir)), "ENOSPC") << "asks for each in turn";
    std::set<std::string> tagged;
    for (const char* file : {"s", "t", "u"}) tagged.insert(cache->guid2path(file, 1, children[c.tag]));
    EXPECT_EQ(found, tagged);
  }
  // A full list ends each pass, wherever it has come to, and leaves that directory open.
  fs::remove(volumes[0] + "/u");
  for (const char* file : {"/a/x/t", "/a/y/u", "/recycle/v"}) writeFile(volumes[0] + file, "");
  const size_t descriptors = openDescriptors();
  list().clearLru();
  list().init(1);
  log.clear();
  (void)scanSegmentsIntoLru(list(), Access::volumes(*cache), files);
  const Texts errors = log.takeTexts(LogLevel::Error);  // the list's and the scan's, for each child
  EXPECT_TRUE(errors.size() == 4 && errors[3].starts_with("Error: can't add to lru: ["));
  EXPECT_EQ(openDescriptors(), descriptors + 2);
}

// Each line with its operation and level; sizes of the disk are shown as N.
TEST_F(StartTest, EachStepIsTold) {
  const std::string vol1 = dir / "vol1", vol2 = dir / "vol2";
  int high = 0, low = 0, alarm = 0;
  testing::internal::CaptureStdout();
  cache = std::make_unique<DiskCache>(PersistentVolumes::Yes);
  DiskCachePruner& pruner = Access::pruner(*cache);
  ctx.prunerCallback = [](auto&, auto& path, auto& guid) { return guid == "old" || fs::remove(path); };
  const auto add = [&](const guid_t& guid, const char* to) { (void)list().addToLru(guid, 1, to); };
  const std::function<void()> steps[] = {
      [&] { (void)cache->init(dir / "root", {vol1}, 9, 8, 10, 4, nullptr, PruningMode::Lru); },
      [&] { (void)cache->getCurrentWatermarks(high, low, alarm), (void)cache->updateWatermarks(80, 70, -5); },
      [&] { (void)cache->registerContext(ctx), (void)cache->registerContext(ctx); },
      [&] {
        pruner.deletePrunableSegsInVol(1), (void)cache->unregisterContext(ctx), cache->setOutOfSpace(true);
      },
      [&] { Access::setSpace(*cache, 900, 1000), space().delayWriteToSegment(); },
      [&] { writeFile(vol1 + "/ctx/f", ""), pruner.deletePrunableSegments(); },
      [&] { cache->addVolume(vol2), cache->disableNewSegments(vol1), cache->refreshCacheUtilizationData(); },
      [&] { (void)cache->registerContext(ctx), cache->enableNewSegments(vol1), (void)cache->clearCache(); },
      [&] { cache->removeVolume(vol2), cache->removeAllVolumes(), pruner.deletePrunableSegsInVol(9); },
      [&] { list().init(1), add("old", "ctx"), add("kept", "gone"), add("new", "ctx"); }};
  log.setLevel(LogLevel::Accounting);
  std::string told;
  for (const auto& step : steps) {
    step();
    for (const auto& [level, operation, text] : log.take()) {
      const std::string name = operation.substr(0, operation.find('('));
      told += "; " + name.substr(name.rfind(':') + 1) + ' ' + std::to_string(level) + ' ' + text;
    }
    told += '\n';
  }
  cache.reset();
  told += testing::internal::GetCapturedStdout();
  for (const auto& [pattern, shown] :
       {std::pair{dir.path(), "DIR"}, {"[0-9]{4,}", "N"}, {"\\[[^\\]]*cpp:[^\\]]*\\]", "AT"}})
    told = std::regex_replace(told, std::regex(pattern), shown);
  EXPECT_EQ('\n' + told, R"(
; init 1 watermarks=[9/8/10] maxLruEntries=[4]; loadVolumeInfo 3 Volume file not found - DIR/root/volume_info (2); initVolumes 3 Loaded volume DIR/vol1 index=1 allow=1 free=N total=N res=N; init 1 maxLruEntries set too low, setting to 5; scanSegmentsIntoLru 0 scanning segments; scanSegmentsIntoLru 5 scanning root [recycle]; scanSegmentsIntoLru 5 Finished scanning segments
; getCurrentWatermarks 1 Current watermarks=[9/8/10]; updateWatermarks 1 New watermarks=[80/70/-5]
; registerContext 1 registering context: [ctx]; registerContext 1 ctxt [ctx] refCount [1]; registerContext 1 assigning volume 1; registerContext 1 registering context: [ctx]; registerContext 3 Info: dir [ctx] already registered. refCount [2]; registerContext 1 assigning volume 1
; deletePrunableSegsInVol 5 pruning in vol 1; deletePrunableSegsInDir 5 pruning in [DIR/vol1/ctx] [ctx]; deletePrunableSegsInDir 5 can't open directory DIR/vol1/ctx (2); unregisterContext 1 unregistering context: [ctx]; unregisterContext 1 ctxt [ctx] refCount [1]; setOutOfSpace 1 Setting out of space mode = 1
; delayWriteToSegment 5 Is OverHighWaterMark, Empty space available is 100; delayWriteToSegment 5 Delaying the write to segment operation 20
; deletePrunableSegments 5 deleting prunable segments; deletePrunableSegsInVol 5 pruning in vol 1; deletePrunableSegsInDir 5 pruning in [DIR/vol1/ctx] [ctx]; pruneSegment 5 pruning [DIR/vol1/ctx/f] [f] [ctx]; pruneSegment 5 checking whether disk segment [f] opened.; pruneSegment 5 pruning [f] [DIR/vol1/ctx/f]; deletePrunableSegsInDir 5 removed directory [DIR/vol1/ctx]
; addVolume 3 Adding volume: DIR/vol2; initVolumes 3 Loaded volume DIR/vol1 index=1 allow=1 free=N total=N res=N; initVolumes 3 Loaded volume DIR/vol2 index=2 allow=1 free=N total=N res=N; disableNewSegments 3 disable new segments: DIR/vol1; refreshCacheUtilizationData 1 Skipped volume [DIR/vol1] allow=0; refreshCacheUtilizationData 3 volume DIR/vol2 index=2 allow=1 free=N total=N res=N; refreshCacheUtilizationData 3 Old m_totalCacheUsed N m_totalCache N; refreshCacheUtilizationData 3 New m_totalCacheUsed N m_totalCache N
; registerContext 1 registering context: [ctx]; registerContext 3 Info: dir [ctx] already registered. refCount [2]; enableNewSegments 3 enable new segments: DIR/vol1; clearCache 0 cache: clearing cache; refreshCacheUtilizationData 3 volume DIR/vol1 index=1 allow=1 free=N total=N res=N; refreshCacheUtilizationData 3 volume DIR/vol2 index=2 allow=1 free=N total=N res=N; refreshCacheUtilizationData 3 Old m_totalCacheUsed 0 m_totalCache N; refreshCacheUtilizationData 3 New m_totalCacheUsed N m_totalCache N; clearCache 9 Trace: m_totalCacheUsed (N) ClearCache; refreshCacheUtilizationData 3 volume DIR/vol1 index=1 allow=1 free=N total=N res=N; refreshCacheUtilizationData 3 volume DIR/vol2 index=2 allow=1 free=N total=N res=N; refreshCacheUtilizationData 3 Old m_totalCacheUsed N m_totalCache N; refreshCacheUtilizationData 3 New m_totalCacheUsed N m_totalCache N; clearCache 9 Trace: m_totalCacheUsed (N) ClearCache
; removeVolume 3 Removing volume: DIR/vol2; disableNewSegments 3 disable new segments: DIR/vol2; initVolumes 3 Loaded volume DIR/vol1 index=1 allow=1 free=N total=N res=N; initVolumes 3 Loaded volume DIR/vol2 index=2 allow=0 free=0 total=0 res=0; removeAllVolumes 3 Removing all volumes; deletePrunableSegsInVol 5 pruning in vol 9; deletePrunableSegsInVol -1 Error: can't find volume 9
; addToLru 5 addToLru: [old] num=0 max=1; addToLru 5 addToLru: [kept] num=1 max=1; pruneFromBack 5 successfully pruned: [old]; addToLru 5 addToLru: [new] num=1 max=1; pruneFromBack -1 Error: Can't find [gone]: No such file or directory (2); pruneFromBack 5 lru out of space; addToLru -1 Error: No prunable items in LRU AT: AT: No space left on device (28): Error: No prunable items in LRU: No space left on device (28)
index=1
index=2
hash size=1
)");
}

}  // namespace
}  // namespace ObjectStore
