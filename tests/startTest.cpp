// How an engine begins: what init fills in, and the scan for segments that are on the volumes.

#include <set>

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheScan.h"
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
  const size_t descriptors = openDescriptors();
  log.setLevel(LogLevel::Info);
  uint64_t files = 0;
  EXPECT_EQ(outcome(scanSegmentsIntoLru(list(), Access::volumes(*cache), files)), "success");
  for (const char* file : {"in-a", "in-b", "in-c"}) EXPECT_TRUE(list().isInLru(file, false));
  for (const char* none : {"too deep", "up", "to-a"}) EXPECT_FALSE(list().isInLru(none, false));
  EXPECT_EQ(openDescriptors(), descriptors);
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
               {PruningMode::Lru, 7, "opendir", "EIO", "7", "0"}};
  const Texts dirs = {dir / "vol1", dir / "vol2"};
  for (const char* file : {"/vol1/a/x/s", "/vol1/recycle/t", "/vol2/u", "/vol2/b/v"})
    writeFile(dir.path() + file, "");
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.asked << c.failing);
    log.clear();
    cache = std::make_unique<DiskCache>(PersistentVolumes::No);
    FaultPlan plan;
    if (*c.failing) plan.fail(c.failing, 1, EIO);
    EXPECT_EQ(outcome(cache->init(dir / "root", dirs, FAR_WM, FAR_WM, FAR_WM, c.asked, nullptr, c.mode)),
              c.result);
    EXPECT_EQ(log.has(LogLevel::Segment, "Finished scanning segments"),
              c.mode == PruningMode::Lru && c.result == "success");
    EXPECT_EQ(log.has(LogLevel::Setup, "maxLruEntries set too low, setting to 5"), c.asked < 5);
    std::map<std::string, std::string> status;
    cache->getStatus(status);
    EXPECT_EQ(status["DC.LRUEntriesMax"], c.bound);
    EXPECT_EQ(status["DC.LRUEntriesCur"], c.entries);
    VolIndex s = 0, v = 0;
    EXPECT_EQ(list().findVolume("s", s) && list().findVolume("v", v), c.entries == "4");
    EXPECT_EQ(s + 10 * v, c.entries == "4" ? 21 : 0);
  }
}

TEST_F(StartTest, AFullListEndsAPassAndAVolumeWithoutADirectoryNone) {
  for (const char* file : {"/vol1/a/x/s", "/vol1/a/x/t", "/vol1/a/y/u", "/vol1/a/y/v"})
    writeFile(dir.path() + file, "");
  start();
  Texts passes;
  readChildren(passes, volumes[0]);
  const size_t descriptors = openDescriptors();
  for (const bool hasDirectory : {true, false}) {
    if (!hasDirectory) Access::changeVolume(*cache, 1, [](Volume& volume) { volume.dir.clear(); });
    list().clearLru();
    list().init(1);
    log.clear();
    uint64_t files = 0;
    EXPECT_EQ(outcome(scanSegmentsIntoLru(list(), Access::volumes(*cache), files)), "success");
    size_t ended = 0;
    for (const std::string& line : log.takeTexts(LogLevel::Error))
      ended += line.starts_with("Error: can't add to lru");
    EXPECT_EQ(ended, hasDirectory ? passes.size() : 0);
    EXPECT_EQ(openDescriptors(), descriptors + passes.size()) << "left open where a pass ended";
  }
}

TEST_F(StartTest, AScanTagsByTheFirstChildAndAFailureEndsItsPass) {
  for (const char* file : {"/vol1/a/x/s", "/vol1/recycle/t", "/vol1/u"}) writeFile(dir.path() + file, "");
  start();
  std::set<std::string> found;
  ctx.prunerCallback = [&](auto&, auto& path, auto&) { return found.insert(path), false; };
  for (const char* child : {"a", "recycle", "u"}) ctx.dir = child, (void)cache->registerContext(ctx);
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
    uint64_t files = 0;
    EXPECT_EQ(outcome(scanSegmentsIntoLru(list(), Access::volumes(*cache), files)), "success");
    EXPECT_EQ(log.takeTexts(LogLevel::Error), c.failures);
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(outcome(list().addToLru("new", 1, ctx.dir)), "ENOSPC") << "asks for each in turn";
    std::set<std::string> tagged;
    for (const char* file : {"s", "t", "u"}) tagged.insert(cache->guid2path(file, 1, children[c.tag]));
    EXPECT_EQ(found, tagged);
  }
}

}  // namespace
}  // namespace ObjectStore
