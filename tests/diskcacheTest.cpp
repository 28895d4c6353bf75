// The engine's life, its contexts and paths, and what it refuses to take as a segment or a volume.
#include <sys/wait.h>
#include <unistd.h>

#include <future>

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheSpace.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

using namespace std::string_literals;

class DiskCacheTest : public EngineTest {
 protected:
  void TearDown() override { fs::current_path(m_here); }
  // A new engine on two volumes; unlike start() it may fail, and registers nothing.
  CZuError init() {
    volumes = {dir / "vol1", dir / "vol2"};
    cache = std::make_unique<DiskCache>(PersistentVolumes::Yes);
    return cache->init(dir / "root", volumes, 1000, 900, 1001, 1000, nullptr, PruningMode::Lru);
  }
  const fs::path m_here = fs::current_path();
};

// With one volume its number is filled in at every registration, with two the client's own stays.
TEST_F(DiskCacheTest, ContextsAreCountedAndTheFirstCallbackStays) {
  for (const unsigned count : {1U, 2U}) {
    start({.volumes = count});
    DiskCacheContext first = makeContext("d"), second = makeContext("d");
    first.prunerCallback = [](auto&&...) { return true; };
    log.clear();
    for (DiskCacheContext* c : {&first, &second}) {
      c->volume = 7;
      EXPECT_EQ(outcome(cache->registerContext(*c)), "success");
      EXPECT_TRUE(c->registered && c->volume == (count == 1 ? 1 : 7));
    }
    PrunerCallback found;
    for (DiskCacheContext* c : {&second, &first}) {
      c->volume = 9;
      EXPECT_EQ(outcome(cache->findPrunerCallback("d", found)), "success");
      EXPECT_TRUE(found && found("", "", ""));
      EXPECT_EQ(outcome(cache->unregisterContext(*c)), "success");
      EXPECT_TRUE(!c->registered && c->volume == 9);
    }
    first.registered = true;
    EXPECT_EQ(outcome(cache->unregisterContext(first)), "ENOENT");
    EXPECT_TRUE(first.registered);
    EXPECT_EQ(cache->findPrunerCallback("d", found).AsString(),
              "Can't find [d]: No such file or directory (2)");
    EXPECT_TRUE(log.has(LogLevel::Setup, "ctxt [d] refCount [0]"));
    EXPECT_EQ(log.takeTexts(LogLevel::Error), Texts{"Error: dir [d] is not registered"});
  }
}

TEST_F(DiskCacheTest, UnregisteringWaitsForTheCallbackThatRuns) {
  std::promise<void> entered, leave;
  std::atomic<bool> ended = false;
  const auto callback = [&](auto&&...) {
    entered.set_value();
    leave.get_future().wait();
    return ended = true;
  };
  start({.maxLruEntries = 5, .prunerCallback = callback});
  for (const char* guid : {"seg1", "seg2", "seg3", "seg4", "seg5"}) put(guid, "text");
  auto asking = std::async(std::launch::async, [&] { put("seg6", "text"); });
  entered.get_future().wait();
  DiskCacheContext same = ctx, other = makeContext("other");
  (void)cache->registerContext(other);
  EXPECT_EQ(outcome(cache->unregisterContext(other)), "success") << "nobody waits for another's callback";
  auto unregistered = std::async(std::launch::async, [&] {
    const std::string told = outcome(cache->unregisterContext(same));
    return ended ? told : "too early";
  });
  EXPECT_TRUE(log.waitFor("unregistering context: [ctx]"));
  EXPECT_EQ(unregistered.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  leave.set_value();
  EXPECT_EQ(unregistered.get(), "success");
}

// Nothing is undone: the volumes that were set up by then are there and in the rotation.
TEST_F(DiskCacheTest, InitStopsAtTheStepThatFails) {
  const std::string info = dir / "root/volume_info", vol1 = dir / "vol1";
  const auto expect = [&](const std::string& call, size_t nth, int number, size_t inRotation, Texts lines) {
    for (const char* name : {"root", "vol1", "vol2"}) fs::remove_all(dir / name);
    FaultPlan plan;
    plan.fail(call, nth, number);
    const CZuError error = init();
    EXPECT_EQ(outcome(error), call == "statvfs" || lines.empty() ? "success" : outcome(number));
    const std::string text = error.AsString();
    EXPECT_EQ(text.starts_with("Error: Can't scan segments"), call == "opendir");
    if (call == "opendir") lines.push_back(error.AsString(EErrorOutputFormat::Detailed) + ": " + text);
    EXPECT_EQ(log.takeTexts(LogLevel::Error), lines);
    EXPECT_EQ(Access::rotation(*cache).size(), inRotation) << call;
  };
  expect("mkdir", 2, EROFS, 0, {"Error: Can't create [" + (dir / "root") + "] (30)"});
  expect("mkdir", 7, EROFS, 2, {});  // of "recycle"
  expect("open", 1, ENOLCK, 2, {});  // of the root's lock, which then nobody else has
  expect("open", 2, EACCES, 0,
         {"Can't open " + info + " (13)", "Can't initialize volumes (13)", "Error: Can't init volumes (13)"});
  expect("open", 4, EROFS, 2,
         {"Can't open " + info + " (30)", "Can't save volume info (30)", "Error: Can't init volumes (30)"});
  expect("open", 5, EIO, 2,
         {"Error: can't read [" + (dir / "root/migrate") + "] (5)", "Error: Can't init migrator (5)"});
  expect("statvfs", 1, EIO, 1,
         {"Can't get free bytes " + vol1 + " (5)", "Error 5 getting volume size for " + vol1 + ", skipped"});
  expect("opendir", 1, EACCES, 2,
         {"Error: can't open directory [" + vol1 + "] (13)", "Error: Can't read root directories"});
}

// The volumes' directories stay, and one that is missing is made.
TEST_F(DiskCacheTest, ClearingStopsAtTheVolumeThatFails) {
  ASSERT_EQ(outcome(init()), "success");
  const fs::perms unusual = fs::perms::owner_all | fs::perms::group_all;
  fs::permissions(volumes[1], unusual);
  const std::tuple<const char*, uint64_t, std::vector<VolIndex>, std::string> cases[] = {
      {"opendir", 1, {1, 2}, "Error: can't remove tree [" + volumes[0] + "] (5)"},
      {"mkdir", ~0UL, {1}, "Error: Can't create [" + volumes[0] + "/recycle] (5)"}};
  for (const auto& [call, reserve, rotation, line] : cases) {
    for (const char* guid : {"seg1", "seg2"}) put(guid, guid);  // one on each volume
    ASSERT_EQ(cache->disableNewSegments(volumes[1]), 0);
    Access::changeVolume(*cache, 2,
                         [bytes = reserve](Volume& volume) { volume.reserved = bytes, volume.free = 0; });
    const uint64_t segments = space().segments();
    FaultPlan plan;
    plan.fail(call, 1, EIO);
    EXPECT_EQ(outcome(cache->clearCache()), "EIO");
    EXPECT_EQ(log.takeTexts(LogLevel::Error), Texts{line});
    EXPECT_EQ(space().used(), 0U);
    EXPECT_EQ(get("seg2"), "seg2");
    fs::remove_all(volumes[0]);
    EXPECT_EQ(outcome(cache->clearCache()), "success");
    EXPECT_EQ(fs::status(volumes[1]).permissions(), unusual) << "not made anew";
    EXPECT_GT(space().used(), 0U) << "measured: others fill the disk too";
    for (const std::string& volume : volumes) EXPECT_EQ(treeOf(volume), Texts{"recycle/"});
    EXPECT_EQ(Access::rotation(*cache), rotation) << "also one that was disabled, if it has room";
    EXPECT_TRUE(space().segments() == segments && list().isInLru("seg2", false)) << "stay as they are";
  }
}

// As long as the engine lives, and not longer when a child of the process still holds the descriptor.
TEST_F(DiskCacheTest, TheRootIsLockedForOtherEngines) {
  const Texts line{"Error: another engine uses the root directory [" + (dir / "root") + ']'};
  ASSERT_EQ(outcome(init()), "success");
  EXPECT_FALSE(cache->isRootShared());
  const pid_t heir = fork();  // nothing that it ends is its parent's
  if (heir == 0) cache.reset(), _exit(0);
  EXPECT_EQ(waitpid(heir, nullptr, 0), heir);
  int wait[2];
  ASSERT_EQ(pipe(wait), 0);
  const pid_t child = fork();
  if (child == 0) {
    char byte;
    ::close(wait[1]);
    _exit(static_cast<int>(read(wait[0], &byte, 1)));
  }
  std::unique_ptr<DiskCache> first = std::move(cache);
  ASSERT_EQ(outcome(init()), "success");
  EXPECT_TRUE(cache->isRootShared());
  EXPECT_EQ(log.takeTexts(LogLevel::Error), line);
  first.reset();
  ASSERT_EQ(outcome(init()), "success");
  EXPECT_FALSE(cache->isRootShared());
  for (const int fd : wait) ::close(fd);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

// Without a root every path is one of the working directory: what lies there is not the cache's.
TEST_F(DiskCacheTest, BadIdentifiersAndUnknownVolumesTouchNothing) {
  start();
  ctx.useNonPrunableDir = true;
  const auto tryAll = [&](const guid_t& guid) {
    EXPECT_FALSE(cache->doesSegmentExist(ctx, guid));
    EXPECT_EQ(cache->getOverriddenSegment(ctx, guid), "");
    Texts told;
    for (const SegmentOperation& operation : operationsOn(guid)) told.push_back(outcome(operation.run()));
    return told;
  };
  Texts unknown(9, "ENOENT");
  unknown.insert(unknown.end(), 6, "success");
  // None of these would lead out of the test's own directory if it were taken.
  for (const guid_t& bad : {""s, "."s, ".."s, "/"s, "a/b"s, "/etc/x"s, "../x"s, "a\0b"s, "..ab"s, "ab.."s}) {
    const FaultPlan plan;
    EXPECT_EQ(tryAll(bad), Texts(15, "EINVAL")) << testing::PrintToString(bad);
    EXPECT_EQ(plan.trace(), Texts{});
    EXPECT_TRUE(log.has(LogLevel::Error, "Error: invalid segment identifier [" + guid_t(bad.c_str()) + ']'));
  }
  for (const guid_t& good : {"abcdef"s, "a"s, "a..b"s, "%s%n"s}) put(good, "text");
  const std::string bytes = readFile(volumes[0] + "/ctx/ab/cd/abcdef");
  fs::current_path(dir / "root");
  for (const std::string file : {"ctx/uv/wx/uvwxyz", "noprune-ctx/uv/wx/uvwxyz"}) {  // one, then both
    writeFile(file, bytes);
    const Texts before = treeOf(".");
    ctx.volume = 77;
    EXPECT_EQ(tryAll("uvwxyz"), unknown);
    EXPECT_TRUE(log.has(LogLevel::Error, "Error: can't open file [ctx/uv/wx/uvwxyz] (2)"));
    ASSERT_EQ(treeOf("."), before);
    EXPECT_EQ(readFile(file), bytes);
    (void)remove("uvwxyz");  // what the creation made
  }
}

}  // namespace
}  // namespace ObjectStore
