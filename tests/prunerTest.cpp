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

namespace ObjectStore {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

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
  EngineOptions options;
};

TEST_F(PrunerTest, AWalkHandsFilesOverUntilTheLowWatermark) {
  enum Action { Keep, Remove, MakeRoom, Throw };
  const struct {
    Action action;
    uint64_t used;  // of 100; the low watermark is 50
    PrunerError result;
    long pruned, left;
  } cases[] = {{Remove, 50, PrunerError::Done, 0, 6},
               {MakeRoom, 51, PrunerError::Done, 1, 5},
               {Remove, 51, PrunerError::Exhausted, 6, 0},
               {Keep, 51, PrunerError::Exhausted, 6, 6},
               {Throw, 51, PrunerError::Exhausted, 6, 6}};
  options.lowWM = 50;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.action << " at " << c.used);
    options.prunerCallback = [&](auto& ctxDir, const std::string& path, auto& guid) {
      EXPECT_EQ(ctxDir + ' ' + guid, "ctx " + fs::path(path).filename().string());
      if (c.action == Throw) throw std::runtime_error("client");
      if (c.action == MakeRoom) Access::setSpace(*cache, 50, 100);
      return c.action != Keep && fs::remove(path);
    };
    fs::remove_all(dir / "vol1");
    start(options);
    fill();
    Access::setSpace(*cache, c.used, 100);
    EXPECT_EQ(pruner().deletePrunableSegments(), c.result);
    EXPECT_EQ(static_cast<long>(Access::space(*cache).stats().numPruned.value()), c.pruned);
    const Texts tree = treeOf(volumes[0]);
    const auto files = std::count_if(tree.begin(), tree.end(), [](auto& name) { return name.back() != '/'; });
    EXPECT_EQ(files, 2 + c.left);  // two it never visits
    EXPECT_EQ(fs::exists(volumes[0] + "/ctx"), c.left > 0);
  }
}

TEST_F(PrunerTest, AWalkPassesOverWhatIsInUseOrCannotBeRead) {
  options.lowWM = 0;
  options.prunerCallback = [](auto&, const std::string& path, auto&) { return fs::remove(path); };
  start(options);
  put("listed", "text");
  fill();
  const std::string top = volumes[0] + "/ctx";
  writeFile(top + "/op/en/opened", "x");
  const unsigned desc = cache->openSegment("opened");
  const size_t descriptors = openDescriptors();
  EXPECT_EQ(pruner().deletePrunableSegments(), PrunerError::Exhausted);
  EXPECT_EQ(treeOf(top), (Texts{"li/", "li/st/", "li/st/listed", "op/", "op/en/", "op/en/opened"}));
  cache->closeSegment(desc);
  FaultPlan plan;
  plan.fail("fstatat", 1, EACCES);
  EXPECT_EQ(pruner().deletePrunableSegsInDir(top + "/op", "ctx", {}), PrunerError::BranchFailed);
  EXPECT_EQ(log.takeTexts(-1), Texts{"Error: can't stat " + top + "/op/en (13)"});
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(PrunerTest, AWalkLeavesReplacementsAndNonPrunableDirectoriesAlone) {
  options.lowWM = 0;
  options.prunerCallback = [](auto&, const std::string& path, auto&) { return fs::remove(path); };
  start(options);
  DiskCacheContext other = makeContext("other");
  other.nonprunableDir = "./ctx//keep/";
  for (int i = 0; i < 2; ++i) (void)cache->registerContext(other);
  (void)cache->unregisterContext(other);
  const std::string top = volumes[0] + "/ctx";
  for (const char* name : {"/keep/aa/bb/aabb1", "/keeper/aabb2", "/op/en/opened.temp", "/op/en/old.temp"})
    writeFile(top + name, "x");
  const unsigned desc = cache->openSegment("opened");
  EXPECT_EQ(pruner().deletePrunableSegments(), PrunerError::Exhausted);
  EXPECT_EQ(treeOf(top), (Texts{"keep/", "keep/aa/", "keep/aa/bb/", "keep/aa/bb/aabb1", "op/", "op/en/",
                                "op/en/opened.temp"}));
  EXPECT_TRUE(log.has(5, "File is opened. cannot prune [" + top + "/op/en/opened.temp]"));
  cache->closeSegment(desc);
  (void)cache->unregisterContext(other);
  EXPECT_EQ(pruner().deletePrunableSegments(), PrunerError::Exhausted);
  EXPECT_FALSE(fs::exists(top));
}

TEST_F(PrunerTest, AWalkCallsNobodyWhoHasUnregistered) {
  options.lowWM = 0;
  int calls = 0;
  options.prunerCallback = [&](auto&&...) { return ++calls, !cache->unregisterContext(ctx).IsError(); };
  start(options);
  fill();
  EXPECT_EQ(pruner().deletePrunableSegments(), PrunerError::Exhausted);
  EXPECT_EQ(calls, 1);
}

// A line names an operation that a reader of the log can look up, not a step of one.
TEST_F(PrunerTest, LinesNameTheOperationAndNotItsSteps) {
  log.setLevel(LogLevel::Accounting);
  options.lowWM = 0;
  writeFile(dir / "vol1/ctx/ab/cd/abcd", "x");
  start(options);
  cache->addVolume(dir / "missing/\n");
  pruner().deletePrunableSegments();
  cache->addVolume(dir / "vol2");
  cache->removeVolume(dir / "vol2");
  (void)cache->clearCache();
  size_t walked = 0;
  for (const LogLine& line : log.take()) {
    for (const char* step :
         {"Entries(", "enableVolume", "setUpVolumes", "lambda", "isEnd", "DiskCacheContexts"})
      EXPECT_EQ(line.operation.find(step), line.operation.npos) << line.operation << ": " << line.text;
    walked += line.operation.find("deletePrunableSegsInDir") != line.operation.npos;
  }
  EXPECT_GE(walked, 3U);
}

TEST_F(PrunerTest, ItsThreadWalksWhenOverTheHighWatermarkAndEndsOnceTheRunningCallbackHas) {
  for (int i = 0; i < 9; ++i) writeFile(dir / "vol1/ctx/" + std::to_string(i), "");
  options.mode = PruningMode::Random;
  std::promise<void> held, stopping;
  int entered = 0;
  options.prunerCallback = [&](auto&, auto&, auto&) {
    ++entered;
    held.set_value();
    stopping.get_future().wait();
    return false;
  };
  start(options);
  ASSERT_TRUE(log.waitFor("Pruner Thread will wakeup in [5] minutes"));
  ConfigStore::set(CONFIG_SECTION, "DiskCachePrunerTimeout", "7201");
  pruner().wakeupPrunerThread();
  ASSERT_TRUE(log.waitFor("Pruner Thread will wakeup in [7200] minutes"));
  EXPECT_FALSE(log.has(5, "deleting prunable segments"));
  for (const char* mark : {"High", "Low"})
    ConfigStore::set(CONFIG_SECTION, "DiskCache" + std::string(mark) + "WMBytes", "1");
  pruner().wakeupPrunerThread();
  held.get_future().wait();
  auto ended = std::async(std::launch::async, [&] { cache.reset(); });
  EXPECT_EQ(ended.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  stopping.set_value();
  ended.get();
  EXPECT_EQ(entered, 1);  // the walk went no further
}

}  // namespace
}  // namespace ObjectStore
