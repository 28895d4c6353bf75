// Whatever way a migration ends, readers find what the last operation of a client left of each segment.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <future>

#include "diskcache/diskcacheMigrator.h"
#include "tests/support/engineFixture.h"
#include "tests/support/smallFileSystem.h"

namespace ObjectStore {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

enum class End { Switched, Failed, Destroyed, KilledAndSwitched, KilledAndFailed };

const std::string OLD = "the old text", NEW = "the new text";

class MigrationEndTest : public EngineTest, public ::testing::WithParamInterface<std::tuple<End, bool>> {
 protected:
  using Work = std::function<CZuError()>;
  struct Case {
    std::string name;
    Work work;
    std::string result;
  };

  void SetUp() override {
    log.setLevel(LogLevel::Copy);
    s_end.clear();
    options.migrationCallback = [](int error, auto&, auto&) {
      for (const auto& check : s_checks) check();
      s_end += outcome(error);
    };
    if (std::get<bool>(GetParam())) target = otherDisk / "new";
  }
  void TearDown() override { s_checks.clear(); }

  CZuError write(ForceDiskLoc force, const std::string& text = NEW) {
    return cache->writeSections(ctx, guid, {section(0, text)}, true, force);
  }
  CZuError remove(Recycle recycle = Recycle::No) {
    return cache->deleteSegment(ctx, guid, false, false, recycle);
  }
  // Acts on each case's segment of each directory: the first is not yet copied when clients work, the second is.
  void forEachSegment(const std::function<void(const Case&)>& act) {
    for (const char* side : {"ctx", "spare"}) {
      ctx.dir = side;
      for (const Case& one : cases) {
        guid = side + one.name;
        SCOPED_TRACE(guid);
        act(one);
      }
    }
  }
  void expectResults() {
    forEachSegment([this](const Case& one) {
      EXPECT_EQ(get(guid), one.result);
      EXPECT_EQ(cache->doesSegmentExist(ctx, guid), one.result[0] != '[');
    });
  }
  // Begins with all segments at the source, and ends while the volume is being migrated and clients have worked.
  void workWhileMigrating(HoldAtLine& hold) {
    options.volumes = 1;
    start(options);
    ctx.useNonPrunableDir = true;
    forEachSegment([this](const Case& one) {
      if (one.name != "absent") put(guid, OLD);
      if (one.name.starts_with("both")) (void)write(ForceDiskLoc::NonPrunable, "the override");
    });
    ASSERT_EQ(cache->migrate(1, volumes[0], target), 0);
    ASSERT_TRUE(hold.reached() && log.waitFor("exiting migration thread numJobs=1"));
    forEachSegment([](const Case& one) { EXPECT_EQ(outcome(one.work()), "success"); });
    expectResults();
  }
  // The same in a process that is then killed; the migration is resumed by the next start().
  void workAndBeKilled() {
    const pid_t child = fork();
    if (child == 0) {
      HoldAtLine hold(log, holdingLine);
      workWhileMigrating(hold);
      if (HasFailure()) _exit(EXIT_FAILURE);
      kill(getpid(), SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the child's status is " << status;
    ASSERT_TRUE(fs::exists(dir / "root/migrate"));
  }
  void plantWhatCannotBeCopied() { ASSERT_EQ(mknod((source + "/ctx/odd").c_str(), S_IFIFO | 0600, 0), 0); }
  void awaitEnd() {
    ASSERT_TRUE(log.waitFor("cache: migration finished"));
    Access::migrator(*cache).terminate();
  }

  static inline std::string s_end;
  static inline std::vector<std::function<void()>> s_checks;  // at the callback
  const SmallFileSystem otherDisk{16};
  EngineOptions options;
  guid_t guid;
  const std::string source = dir / "vol1", holdingLine = "copying directory [" + source + "/ctx]";
  std::string target = dir / "new";
  const std::vector<Case> cases = {
      {"none", [] { return CZuError(); }, OLD},
      {"write", [this] { return write(ForceDiskLoc::Prunable); }, NEW},
      {"over", [this] { return write(ForceDiskLoc::NonPrunable); }, NEW},
      {"replace", [this] { return cache->replaceSegment(ctx, guid, {section(0, NEW)}); }, NEW},
      {"truncate", [this] { return cache->truncateSection(ctx, guid, 0, 0, 7); }, OLD.substr(0, 7)},
      {"dirty", [this] { return cache->markDirty(ctx, guid, false); }, OLD},
      {"dirty moved", [this] { return cache->markDirty(ctx, guid, true); }, OLD},
      {"both", [this] { return write(ForceDiskLoc::Default); }, NEW},
      {"both prunable", [this] { return cache->moveToPrunable(ctx, guid); }, "the override"},
      {"both gone", [this] { return remove(); }, "[ENOENT]"},
      {"both recycled", [this] { return remove(Recycle::Yes); }, "[ENOENT]"},
      {"override gone", [this] { return remove(); }, "[ENOENT]"},
      {"gone and made", [this] { return remove().IsError() ? remove() : create(guid, {section(0, NEW)}); },
       NEW},
      {"dirty gone",  // its override alone: the prunable copy that moved must not come back
       [this] {
         const CZuError error = cache->markDirty(ctx, guid, true);
         return error.IsError() ? error : cache->deleteSegment(ctx, guid, true, false, Recycle::No);
       },
       "[ENOENT]"},
      {"absent", [this] { return create(guid, {section(0, NEW)}); }, NEW}};
};

TEST_P(MigrationEndTest, ReadersFindWhatClientsLeft) {
  SKIP_WITHOUT(otherDisk);
  const End end = std::get<End>(GetParam());
  for (const char* name : {"/noprune-ctx", "/noprune-spare", "/spare"}) fs::create_directories(source + name);
  const bool isKilled = end == End::KilledAndSwitched || end == End::KilledAndFailed;
  if (isKilled) workAndBeKilled();
  if (end == End::Failed || end == End::KilledAndFailed) {
    fs::create_directories(source + "/ctx");
    plantWhatCannotBeCopied();
  }
  if (isKilled) {
    ctx.dir = "ctx";
    HoldAtLine hold(log, holdingLine);
    start(options);
    ctx.useNonPrunableDir = true;
    ASSERT_TRUE(hold.reached());
    expectResults();
    s_checks.push_back([this] { expectResults(); });
    hold.release();
    awaitEnd();
  } else {
    HoldAtLine hold(log, holdingLine);
    workWhileMigrating(hold);
    s_checks.push_back([this] { expectResults(); });
    if (end == End::Destroyed) {
      auto destroyed = std::async(std::launch::async, [this] { Access::migrator(*cache).terminate(); });
      while (!Access::isStopping(*cache)) std::this_thread::yield();
      hold.release();
      destroyed.get();
      s_checks.clear();
      cache.reset();
      ctx.dir = "ctx";
      start(options);
    } else {
      hold.release();
      awaitEnd();
    }
  }
  const bool isSwitched = end == End::Switched || end == End::KilledAndSwitched;
  EXPECT_EQ(s_end, isSwitched ? "success" : end == End::Destroyed ? "EINTR" : "EINVAL");
  EXPECT_EQ(cache->guid2path("none", 1, "ctx").starts_with(target), isSwitched);
  expectResults();
  EXPECT_EQ(fs::exists((isSwitched ? target : source) + "/recycle/spareboth recycled"), true);
  for (const char* name : {"migrate", "migrate.changed"})
    EXPECT_FALSE(fs::exists(dir / "root/" + name)) << name;
  if (isSwitched) return;
  // Nothing of it is left that a later migration to the same place would keep.
  for (const std::string& name : treeOf(target)) EXPECT_TRUE(name.ends_with('/')) << name;
  fs::remove(source + "/ctx/odd");
  ctx.dir = "ctx";
  guid = "ctxnone";
  EXPECT_EQ(outcome(write(ForceDiskLoc::Prunable, "the last text")), "success");
  log.clear();
  s_checks.clear();
  ASSERT_EQ(cache->migrate(1, source, target), 0);
  awaitEnd();
  EXPECT_EQ(get("ctxnone"), "the last text");
  EXPECT_TRUE(cache->guid2path("none", 1, "ctx").starts_with(target));
}

INSTANTIATE_TEST_SUITE_P(All, MigrationEndTest,
                         ::testing::Combine(::testing::Values(End::Switched, End::Failed, End::Destroyed,
                                                              End::KilledAndSwitched, End::KilledAndFailed),
                                            ::testing::Bool()));

}  // namespace
}  // namespace ObjectStore
