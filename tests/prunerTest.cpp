// The pruner: its thread, its walk, its end.
#include "diskcache/diskcachePruner.h"

#include <sys/stat.h>

#include <algorithm>
#include <future>

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheSpace.h"
#include "support/config.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"
#include "tests/support/process.h"

namespace ObjectStore {
namespace {

class PrunerTest : public EngineTest {
 protected:
  void TearDown() override { ConfigStore::clear(); }
  DiskCachePruner& pruner() { return Access::pruner(*cache); }
  // Files that no operation has seen, so that the recency list does not hold them; six are below "ctx".
  void fill() {
    const std::string top = volumes[0] + "/ctx";
    for (const char* name : {"/aa/bb/aabb1", "/aa/bb/aabb2", "/c", "/../noprune-ctx/f", "/../recycle/f"})
      writeFile(top + name, "payload");
    fs::create_directories(top + "/empty/dir");
    fs::create_symlink("/nowhere", top + "/dangling");
    fs::create_directory_symlink(volumes[0] + "/recycle", top + "/toDir");
    ASSERT_EQ(mkfifo((top + "/fifo").c_str(), 0600), 0);
  }
};

TEST_F(PrunerTest, AWalkHandsFilesOverUntilTheLowWatermark) {
  enum Action { Keep, Remove, MakeRoom, Throw, Unregister };
  const struct {
    Action action;
    uint64_t used;  // of 100; the low watermark is 50
    PrunerError result;
    long pruned, left;
  } cases[] = {{Remove, 50, PrunerError::Done, 0, 6},
               {MakeRoom, 51, PrunerError::Done, 1, 5},
               {Remove, 51, PrunerError::Exhausted, 6, 0},
               {Keep, 51, PrunerError::Exhausted, 6, 6},
               {Throw, 51, PrunerError::Exhausted, 6, 6},
               {Unregister, 51, PrunerError::Exhausted, 6, 5}};  // nobody is called after that
  options.lowWM = 50;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.action << " at " << c.used);
    options.prunerCallback = [&](auto& ctxDir, const std::string& path, auto& guid) {
      EXPECT_EQ(ctxDir + ' ' + guid, "ctx " + fs::path(path).filename().string());
      if (c.action == Throw) throw std::runtime_error("client");
      if (c.action == Unregister) (void)cache->unregisterContext(ctx);
      if (c.action == MakeRoom) Access::setSpace(*cache, 50, 100);
      return c.action != Keep && fs::remove(path);
    };
    fs::remove_all(dir / "vol1");
    start();
    fill();
    Access::setSpace(*cache, c.used, 100);
    EXPECT_EQ(pruner().deletePrunableSegments(), c.result);
    EXPECT_EQ(static_cast<long>(space().stats().numPruned.value()), c.pruned);
    const Texts tree = treeOf(volumes[0]);
    const auto files = std::count_if(tree.begin(), tree.end(), [](auto& name) { return name.back() != '/'; });
    EXPECT_EQ(files, 2 + c.left);  // two it never visits
    EXPECT_EQ(fs::exists(volumes[0] + "/ctx"), c.left > 0);
    const Texts errors(c.action == Throw ? 6 : 0, "Error: pruning callback of [ctx] threw");
    EXPECT_EQ(log.takeTexts(LogLevel::Error), errors);
    EXPECT_EQ(pruner().deletePrunableSegsInVol(1), c.result);
    log.clear();
  }
  EXPECT_EQ(pruner().deletePrunableSegsInVol(9), PrunerError::BranchFailed);
}

TEST_F(PrunerTest, AWalkPassesOverWhatIsInUseOrNonPrunableAndAnUnseenEntryEndsItsBranchOnly) {
  options.lowWM = 0;
  options.prunerCallback = [](auto&, const std::string& path, auto&) { return fs::remove(path); };
  options.persistent = PersistentVolumes::Yes;
  writeFile(dir / "root/volume_info", ",9\n");  // a record without a directory
  start();
  DiskCacheContext other = makeContext("other");  // without a callback
  for (const char* name : {"./ctx//keep/", "ctx/keeper", "ctx/keep"})
    other.nonprunableDir = name, (void)cache->registerContext(other);
  for (const char* name : {"ctx/keeper", "ctx/keep"})
    other.nonprunableDir = name, (void)cache->unregisterContext(other);
  for (const char* guid : {"oldest", "newest"}) put(guid, "text");
  fs::remove(pathOf("newest"));  // so that only the oldest is met
  fill();
  const std::string top = volumes[0] + "/ctx";
  for (const char* name : {"/keep/aa/bb/aabb1", "/keeper/aabb2", "/op/en/opened", "/op/en/opened.temp",
                           "/op/en/opened.copying", "/op/en/old.temp", "/../other/aa/1"})
    writeFile(top + name, "x");
  const unsigned desc = cache->openSegment("opened");
  const size_t descriptors = openDescriptors();
  const auto walk = [&] {
    const uint64_t before = space().stats().numPruned.value();
    EXPECT_EQ(pruner().deletePrunableSegments(), PrunerError::Exhausted);
    return space().stats().numPruned.value() - before;
  };
  {
    FaultPlan plan;
    plan.fail("fstatat", 1, EACCES);
    EXPECT_EQ(pruner().deletePrunableSegsInDir(top, "ctx", options.prunerCallback),
              PrunerError::BranchFailed);
    EXPECT_EQ(space().stats().numPruned.value(), 0U);
    plan.fail("fstatat", 1, EACCES);  // the first entry of whichever directory comes first
    EXPECT_GE(walk(), 1U) << "the other one is walked";
  }
  const Texts errors = log.takeTexts(LogLevel::Error);
  EXPECT_TRUE(errors.size() == 2 && errors[0].starts_with("Error: can't stat " + top + '/'));
  walk();
  EXPECT_EQ(treeOf(top),
            (Texts{"keep/", "keep/aa/", "keep/aa/bb/", "keep/aa/bb/aabb1", "ol/", "ol/de/", "ol/de/oldest",
                   "op/", "op/en/", "op/en/opened", "op/en/opened.copying", "op/en/opened.temp"}));
  EXPECT_TRUE(log.has(LogLevel::Segment, "File is opened. cannot prune [" + top + "/op/en/opened.temp]"));
  EXPECT_TRUE(log.has(LogLevel::Segment, "File is in LRU. cannot prune [" + pathOf("oldest") + ']'));
  EXPECT_FALSE(log.has(LogLevel::Segment, "pruning in [ctx] [ctx]")) << "of the working directory";
  EXPECT_EQ(walk(), 1U) << "also without a callback";
  EXPECT_TRUE(fs::exists(volumes[0] + "/other/aa/1"));
  EXPECT_EQ(openDescriptors(), descriptors);
  testing::internal::CaptureStdout();
  Access::lru(*cache).dumpLru();
  EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with("\nnewest\noldest\n")) << "recency stays";
  cache->closeSegment(desc);
  (void)cache->unregisterContext(other);
  walk();
  EXPECT_EQ(treeOf(top), (Texts{"ol/", "ol/de/", "ol/de/oldest"}));
  fs::remove_all(top);
  for (const char* name : {"/x/1", "/y/1"}) writeFile(top + name, "x");
  FaultPlan plan;
  plan.fail("fstatat", 2, EACCES);  // in whichever of the two comes first
  EXPECT_EQ(walk(), 1U) << "the other one is walked";
}

// As if shuffled by hand: each place from the second on changes with the one that rand() names.
TEST_F(PrunerTest, AWalkTakesVolumesAndDirectoriesInTheOrderOfRand) {
  const auto shuffled = [](Texts items) {
    for (size_t i = 1; i < items.size(); ++i)
      std::swap(items[i], items[static_cast<size_t>(rand()) % (i + 1)]);
    return items;
  };
  options.lowWM = 0;
  options.volumes = 4;
  start();
  Access::setSpace(*cache, 1, 100);
  for (const char* name : {"a", "b", "d"}) {
    DiskCacheContext other = makeContext(name);
    (void)cache->registerContext(other);
  }
  for (const unsigned seed : {1U, 2U, 3U}) {
    srand(seed);
    Texts expected;
    for (const std::string& volume : shuffled(volumes)) {
      expected.push_back("pruning in vol " + volume.substr(volume.size() - 1));
      for (const std::string& name : shuffled({"a", "b", "ctx", "d"}))
        expected.push_back("pruning in [" + volume + '/' + name + "] [" + name + ']');
    }
    log.clear();
    srand(seed);
    EXPECT_EQ(pruner().deletePrunableSegments(), PrunerError::Exhausted);
    Texts seen = log.takeTexts(LogLevel::Segment);
    std::erase_if(seen, [](auto& line) { return !line.starts_with("pruning in "); });
    EXPECT_EQ(seen, expected);
  }
}

TEST_F(PrunerTest, EachWakeUpMeasuresAndThenDecides) {
  const std::string always = "1", never = "18446744073709551615";
  const std::string noMore = "no more pruning candidates", isDone = "pruning success";
  const struct {
    std::string timeout, minutes, high, low;
    Texts seen;  // of the lines that tell how far it went
    int asked;
  } cases[] = {{"0", "5", never, always, {}, 0},
               {"7", "7", always, never, {"deleting prunable segments", "reached low watermark", isDone}, 0},
               {"7200", "7200", always, always, {"deleting prunable segments", noMore}, 2},
               {"10000", "7200", "0", "0", {}, 0}};  // percents of what is there, not of what was set
  int asked = 0;
  options.mode = PruningMode::Random;
  options.prunerCallback = [&](auto&&...) { return ++asked, false; };
  for (int i = 0; i < 2; ++i) writeFile(dir / "vol1/ctx/" + std::to_string(i), "");
  const FaultPlan plan;
  start();
  ASSERT_TRUE(log.waitFor("Pruner Thread will wakeup in [5] minutes"));
  EXPECT_TRUE(log.has(LogLevel::Info, "cache: entering pruner thread"));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.timeout + ' ' + c.high + ' ' + c.low);
    ConfigStore::set(CONFIG_SECTION, "DiskCacheHighWMBytes", c.high);
    ConfigStore::set(CONFIG_SECTION, "DiskCacheLowWMBytes", c.low);
    ConfigStore::set(CONFIG_SECTION, "DiskCachePrunerTimeout", c.timeout);
    Access::setSpace(*cache, 10'000, 10);
    asked = 0;
    log.clear();
    pruner().wakeupPrunerThread();
    ASSERT_TRUE(log.waitFor("Pruner Thread will wakeup in [" + c.minutes + "] minutes"));
    EXPECT_TRUE(log.has(LogLevel::NoSpace, "Pruner Thread will wakeup in [" + c.minutes + "] minutes"));
    Texts seen = log.takeTexts(LogLevel::Segment);
    std::erase_if(seen, [](auto& line) { return line.starts_with("pruning ") && line != "pruning success"; });
    std::erase_if(seen, [](auto& line) { return line.starts_with("checking whether"); });
    EXPECT_EQ(seen, c.seen);
    EXPECT_EQ(asked, c.asked);
    EXPECT_TRUE(eventually([&] {
      return std::chrono::round<std::chrono::minutes>(plan.longestWait()).count() == std::stol(c.minutes);
    })) << plan.longestWait().count();
  }
  log.clear();
  cache.reset();
  const Texts end = log.takeTexts(LogLevel::Info);
  EXPECT_TRUE(std::count(end.begin(), end.end(), "cache: exiting pruner thread") == 1);
  EXPECT_TRUE(std::none_of(end.begin(), end.end(), [](auto& line) { return line.starts_with("New "); }))
      << "told to stop, it measures nothing";
}

TEST_F(PrunerTest, ItsListsAreOfDirectoriesAndALineEach) {
  for (const char* path : {"/a/x", "/noprune/x", "/b/noprune/x", "/file"}) writeFile(dir.path() + path, "");
  fs::create_directory_symlink("a", dir / "link");
  Texts names = {"kept"};
  EXPECT_EQ(getDirList(names, dir.path()), 0);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (Texts{"a", "b", "kept"}));
  EXPECT_EQ(outcome(getDirList(names, dir / "none")), "ENOENT");
  EXPECT_TRUE(log.has(LogLevel::Error, "Error: can't open directory " + (dir / "none") + " (2)"));
  testing::internal::CaptureStdout();
  dumpList({"one", "", "two"});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "one\n\ntwo\n");
}

TEST_F(PrunerTest, ItsThreadEndsOnceTheRunningCallbackHas) {
  for (const char* name : {"1", "2"}) writeFile(dir / "vol1/ctx/" + name, "");
  for (const char* key : {"DiskCacheHighWMBytes", "DiskCacheLowWMBytes"})
    ConfigStore::set(CONFIG_SECTION, key, "1");
  std::promise<void> entered, mayReturn;
  std::atomic<int> returned = 0;
  options.mode = PruningMode::Random;
  options.prunerCallback = [&](auto&&...) {
    entered.set_value();
    mayReturn.get_future().wait();
    return ++returned == 0;
  };
  start();
  pruner().wakeupPrunerThread();
  entered.get_future().wait();
  DiskCache& ending = *cache;
  auto ended = std::async(std::launch::async, [&] { return cache.reset(), returned.load(); });
  while (!Access::isStopping(ending)) std::this_thread::yield();
  mayReturn.set_value();
  EXPECT_EQ(ended.get(), 1) << "and the walk goes no further";
}

}  // namespace
}  // namespace ObjectStore
