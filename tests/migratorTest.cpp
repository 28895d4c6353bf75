// The migration of a volume: what is copied, the file that tells of it, failures, and the segments meanwhile.
#include "diskcache/diskcacheMigrator.h"

#include <sys/stat.h>

#include <array>
#include <future>
#include <optional>

#include "diskcache/diskcacheSpace.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"
#include "tests/support/segmentWork.h"
#include "tests/support/smallFileSystem.h"

namespace ObjectStore {
namespace {

using namespace std::literals;

class MigratorTest : public InMemory, public EngineTest {
 protected:
  using Works = std::vector<SegmentWork>;
  enum End { Switched, Failed, Cleared, Destroyed };
  // Where a segment is beside a migration: not copied yet, or copied to there.
  enum Place { Source, SameDisk, OtherDisk };

  void SetUp() override {
    log.setLevel(LogLevel::Copy);
    s_ends.clear();
    options.migrationCallback = [](int error, const std::string& from, const std::string& to) {
      s_ends.push_back(outcome(error) + ' ' + from + ' ' + to);
      EXPECT_TRUE(fs::exists(fs::path(from).parent_path() / "root/migrate")) << "until the client knows";
      std::error_code absent;
      s_nothingWasLeft = fs::is_empty(to, absent);
    };
  }
  // An engine whose volume has four top-level directories, so that all of them are copied.
  void startWithFour() {
    cache.reset();
    for (const std::string& old : {dir / "vol1", target, otherDisk / "new", file}) fs::remove_all(old);
    start();
    source = volumes[0];
    for (const char* name : {"/noprune-ctx/f", "/spare/f"}) writeFile(source + name, "of the source");
    put("kept", "the old text");
    log.clear();
  }
  // Instead of its file this directory has one that cannot be copied.
  void spoil(const std::string& top = "/spare") const {
    fs::remove(source + top + "/f");
    EXPECT_EQ(::mkfifo((source + top + "/odd").c_str(), 0600), 0);
  }
  // How the migration ended, once its threads have too: every call of the callback.
  Texts ends() {
    log.waitFor("cache: migration finished");
    Access::migrator(*cache).terminate();
    return std::exchange(s_ends, {});
  }
  Texts ended(const std::string& how, const std::string& to) { return {how + ' ' + source + ' ' + to}; }
  void perform(const SegmentWork& work) {
    EXPECT_EQ(outcome(work.perform(*cache, ctx, "abcd-segment")), "success");
    copies = work.leaves(copies);
  }
  // Begins a migration that is held where it comes to this directory, when its other threads have ended.
  void migrateUpTo(const std::string& heldAt, const std::string& to) {
    holding.emplace(log, "copying directory [" + source + heldAt + ']');
    EXPECT_EQ(cache->migrate(1, source, to), 0);
    EXPECT_TRUE(holding->reached() && log.waitFor("exiting migration thread numJobs=1"));
  }
  // The same with an engine of its own. All but the first half of the changes are made
  // beside it, the last one not yet.
  void begin(const Works& works, const std::string& heldAt, bool fails, const std::string& to) {
    startWithFour();
    if (fails) spoil(heldAt);
    copies = {};
    for (size_t i = 0; i < works.size() / 2; ++i) perform(works[i]);
    migrateUpTo(heldAt, to);
    for (size_t i = works.size() / 2; i + 1 < works.size(); ++i) perform(works[i]);
  }
  // Readers of the two directories find what the changes have left.
  void expectCopies() {
    const DiskCacheContext both = ctx;
    ctx.useNonPrunableDir = false;
    EXPECT_EQ(get("abcd-segment"), copies.regular.shown());
    ctx.dir = both.nonprunableDir;
    EXPECT_EQ(get("abcd-segment"), copies.override.shown());
    ctx = both;
  }
  // Lets it end this way after the last change; how many system calls that one made.
  size_t endAfter(const Works& works, End end, Place place) {
    const std::string to = place == OtherDisk ? otherDisk / "new" : target;
    begin(works, place == Source ? "/ctx" : "/spare", end == Failed, to);
    const size_t calls = [&] {
      const FaultPlan plan;
      perform(works.back());
      return plan.count(FaultPlan::ANY);
    }();
    if (end == Cleared || end == Destroyed) {
      DiskCache& ending = *cache;
      auto stopped = std::async(std::launch::async, [&] {
        if (end == Destroyed) return cache.reset();
        EXPECT_EQ(outcome(cache->clearCache()), "success");
        copies = {};
      });
      while (!Access::isStopping(ending)) std::this_thread::yield();
      holding->release();
      stopped.get();
      if (end == Destroyed) start();
    }
    holding->release();
    EXPECT_EQ(ends(), ended(std::array{"success", "EINVAL", "EINTR", "EINTR"}[end], to));
    expectCopies();
    EXPECT_EQ(cache->guid2path("none", 1, "ctx").starts_with(to), end == Switched);
    EXPECT_FALSE(fs::exists(file) || fs::exists(file + ".changed"));
    EXPECT_TRUE(end == Switched || s_nothingWasLeft) << "a later migration keeps what it finds";
    return calls;
  }
  // Lets it fail while the last change is at its nth system call.
  void failWithin(const Works& works, size_t nth) {
    begin(works, "/spare", true, target);
    const uint32_t running = Access::migrator(*cache).generation();
    FaultPlan plan;
    plan.hold(FaultPlan::ANY, nth + 1);  // the first starts the thread
    std::future<void> worked = std::async(std::launch::async, [&] { perform(works.back()); });
    EXPECT_TRUE(plan.held());
    holding->release();
    while (Access::migrator(*cache).generation() == running) std::this_thread::yield();  // returning
    plan.release();
    worked.get();
    EXPECT_EQ(ends(), ended("EINVAL", target));
    expectCopies();
  }
  bool isSwitched() { return cache->guid2path("none", 1, "ctx").starts_with(target); }

  static inline Texts s_ends;
  static inline bool s_nothingWasLeft = false;  // at the destination, as the callback saw it
  const SmallFileSystem otherDisk{16};
  Copies copies;
  std::optional<HoldAtLine> holding;
  std::string source = dir / "vol1";
  const std::string target = dir / "new", file = dir / "root/migrate";
};

TEST_F(MigratorTest, FourWorkersDivideTheDirectoriesWithGaps) {
  source = dir / "from";
  for (char c = 'a'; c < 'a' + 11; ++c) writeFile(source + '/' + c + "/sub/file", "x");
  start();
  std::vector<fs::path> names;
  for (const auto& entry : fs::directory_iterator(source)) names.push_back(entry.path().filename());
  writeFile(source + "/file", "at the top"), fs::create_directory_symlink("a", source + "/link");
  EXPECT_EQ(cache->migrate(1, source, target), 0);
  EXPECT_EQ(ends(), ended("success", target));
  for (const std::string& line :
       Texts{"1 migrating vol=1 src=[" + source + "] dst=[" + target + ']', "5 m_numJobs = 4",
             "3 cache: migration finished",
             "3 cache: entering migration thread [" + source + "] [" + target + "] 8 10",
             "3 Calling user migration callback with error code 0"})
    EXPECT_TRUE(log.has(line[0] - '0', line.substr(2))) << line;
  EXPECT_EQ(readFile(dir / "root/volume_info"), target + ",1\n") << "though volumes do not persist";
  EXPECT_FALSE(fs::exists(target + "/file"));
  for (size_t i = 0; i < names.size(); ++i)
    EXPECT_EQ(fs::exists(fs::path(target) / names[i] / "sub/file"), i != 4 && i != 7) << i;
  EXPECT_TRUE(fs::exists(target + "/recycle")) << "which the source has not";
}

TEST_F(MigratorTest, AReplacementIsKeptWhereNoWorkerComes) {
  startWithFour();
  for (const char* more : {"/fifth", "/sixth"}) fs::create_directory(source + more);
  // Of six the third lies behind the second worker's share and before the third one's.
  ctx.dir = std::next(fs::directory_iterator(source), 2)->path().filename();
  ASSERT_EQ(outcome(cache->registerContext(ctx)), "success");
  put("unseen", "the old text");
  {
    HoldAtLine hold(log, "copying directory [");
    ASSERT_EQ(cache->migrate(1, source, target), 0);
    ASSERT_TRUE(hold.reached());
    EXPECT_EQ(outcome(cache->replaceSegment(ctx, "unseen", {section(0, "the new text")})), "success");
  }
  EXPECT_EQ(ends(), ended("success", target));
  EXPECT_EQ(get("unseen"), "the new text");
}

// Beside the bytes of the segments: empty directories and such that look like leftovers, but no leftover files.
TEST_F(MigratorTest, EveryDirectoryIsCopiedAndLeftoverFilesAreNot) {
  startWithFour();
  fs::create_directories(source + "/empty");
  for (const char* name : {"/a/x.copying/f", "/b.copying/f", "/c/f"})
    writeFile(source + name, "of the source");
  const guid_t longest(NAME_MAX, 'x'), aside = std::to_string(std::hash<std::string>()(longest));
  const std::string left = "ctx/xx/xx/" + aside + ".temp", text = "the new text";
  for (const auto& name : {"c/h.copying"s, "c/g.temp"s, left}) writeFile(source + '/' + name, "of a crash");
  holding.emplace(log, "copying [" + source + '/' + left + ']');
  EXPECT_EQ(cache->migrate(1, source, target), 0);
  EXPECT_TRUE(holding->reached() && cache->IsSegmentOpened(aside + ".temp") && cache->IsSegmentOpened(aside));
  const auto replace = [&] { return outcome(cache->replaceSegment(ctx, longest, {section(0, text)})); };
  auto replaced = std::async(std::launch::async, replace);
  EXPECT_EQ(replaced.wait_for(100ms), std::future_status::timeout) << "which writes over it";
  holding->release();
  EXPECT_TRUE(replaced.get() == "success" && get(longest) == text);
  EXPECT_EQ(ends(), ended("success", target));
  fs::remove(pathOf(longest));
  Texts expected = treeOf(source);
  for (const std::string& gone : {"c/h.copying"s, left}) std::erase(expected, gone);
  EXPECT_EQ(treeOf(target), expected);
}

TEST_F(MigratorTest, AFileThatMakesNoSenseIsRefused) {
  startWithFour();
  const Texts contents{"2\n/a\n", "2\n\n/b\n", "x1\n/a\n/b", "65536\n/a\n/b", std::string(17 << 20, '1')};
  for (const std::string& content : contents) {
    cache = std::make_unique<DiskCache>(PersistentVolumes::No);
    writeFile(file, content);
    log.clear();
    const CZuError error = cache->init(dir / "root", volumes, 9, 9, 9, 5, nullptr, PruningMode::Lru);
    EXPECT_EQ(outcome(error), "EINVAL") << content.substr(0, 20);
    EXPECT_EQ(log.takeTexts(-1),
              (Texts{"migrate file has incorrect parameters", "Error: Can't init migrator (22)"}));
  }
}

TEST_F(MigratorTest, AFailureLeavesTheVolumeWhereItWas) {
  fs::create_directory_symlink(source, dir / "link");
  for (const std::string& to : {dir / "root/../vol1/.", dir / "link/new", dir.path(), target}) {
    SCOPED_TRACE(to);
    startWithFour();
    if (to == target) {
      spoil(), writeFile(source + "/noprune-ctx/g", "");
      for (const char* name : {"/noprune-ctx/f", "/noprune-ctx/g"}) writeFile(target + name, "of the target");
      fs::last_write_time(target + "/noprune-ctx/g", fs::last_write_time(source + "/noprune-ctx/g"));
    }  // one has the length of the source's, the other its time
    const Texts tree = treeOf(source);
    EXPECT_EQ(cache->migrate(1, source, to), 0);
    EXPECT_EQ(ends(), ended("EINVAL", to));
    EXPECT_EQ(treeOf(source), tree);
    EXPECT_FALSE(isSwitched() || fs::exists(file) || fs::exists(target + "/spare/odd"));
    EXPECT_TRUE(log.has(-1, "Error: Migration error detected (22), migration aborted"));
  }
  fs::remove(source + "/spare/odd");
  log.clear();
  EXPECT_EQ(cache->migrate(1, source, target), 0);
  EXPECT_EQ(ends(), ended("success", target)) << "of the failure before nothing is left";
  for (const char* name : {"/noprune-ctx/f", "/noprune-ctx/g"})
    EXPECT_EQ(readFile(target + name), "of the target") << "neither removed nor replaced";
}

TEST_F(MigratorTest, EachFailingCallOfACopyOfOneSegment) {
  const std::pair<int, Texts> cases[] = {
      {EIO,
       {"told success: unlink", "EINVAL: open write", "told success: close", "EINVAL: rename",
        "EIO: opendir readdir fstatat readdir stat", "told EIO: opendir readdir fstatat readdir",
        "told EINVAL: thread",
        "told EIO: mkdir opendir readdir fstatat access open fstat open copy_file_range close",
        "told success: close access", "told EIO: renameat2 readdir stat",
        "told success: mkdir open write close unlink"}},
      {ENOENT,  // what is gone by then was deleted by clients
       {"told success: unlink", "EINVAL: open write", "told success: close", "EINVAL: rename",
        "ENOENT: opendir readdir", "told success: fstatat", "ENOENT: readdir stat",
        "told ENOENT: opendir readdir", "told success: fstatat", "told ENOENT: readdir",
        "told EINVAL: thread", "told success: mkdir", "told ENOENT: mkdir", "told success: opendir",
        "told ENOENT: readdir",
        "told success: fstatat access open fstat open copy_file_range close access renameat2",
        "told ENOENT: readdir stat", "told success: mkdir open fstat read close unlink"}}};
  for (const auto& [number, expected] : cases) {
    Texts calls;
    Texts outcomes;  // "how it ended: which calls failed", in turn; a run of equal calls is told once
    for (size_t nth = 0; nth <= calls.size(); ++nth) {  // 0: nothing fails
      SCOPED_TRACE(testing::Message() << number << ' ' << nth);
      startWithFour();
      source = dir / "from";
      writeFile(source + "/d/segment", "bytes");
      FaultPlan plan;
      if (nth > 0) plan.fail(FaultPlan::ANY, nth, number);
      std::string how = outcome(cache->migrate(1, source, target));
      if (how == "success") {
        const Texts told = ends();
        ASSERT_EQ(told.size(), 1U);
        how = "told " + told[0].substr(0, told[0].find(' '));
      }
      const std::string copy = target + "/d/segment";
      EXPECT_TRUE(fs::exists(copy) ? readFile(copy) == "bytes" : number == ENOENT || how != "told success");
      EXPECT_FALSE(fs::exists(copy + ".copying") || fs::exists(file + ".new"));
      EXPECT_EQ(isSwitched(), how == "told success");
      if (nth == 0) calls = plan.takeTrace();
      if (nth == 0) continue;
      how += ':';
      if (outcomes.empty() || !outcomes.back().starts_with(how)) outcomes.push_back(how);
      const std::string call = ' ' + calls[nth - 1];
      if (!outcomes.back().ends_with(call)) outcomes.back() += call;
    }
    EXPECT_EQ(outcomes, expected);
  }
}

// As when the destination's disk turns read-only: its files can be read, but not removed.
TEST_F(MigratorTest, WhatTheDestinationDoesNotLetGoIsBackAllTheSame) {
  SKIP_WITHOUT(otherDisk);
  begin({}, "/ctx", true, otherDisk / "new");
  put("made", "the text");
  EXPECT_EQ(outcome(cache->replaceSegment(ctx, "kept", {section(0, "the new text")})), "success");
  FaultPlan plan;
  plan.fail("unlink", 1, EROFS);  // of what has been copied home
  holding->release();
  EXPECT_EQ(ends(), ended("EINVAL", otherDisk / "new"));
  plan.clearFaults();
  EXPECT_EQ(get("made"), "the text");
  EXPECT_EQ(get("kept"), "the new text");
}

TEST_F(MigratorTest, AChangeThatCannotBeNotedFailsTheMigration) {
  const Works works{{SegmentWork::CREATE, 'a'}, {SegmentWork::REPLACE, 'c'}};
  options.persistent = PersistentVolumes::Yes;
  begin(works, "/spare", false, target);
  EXPECT_EQ(outcome(cache->migrate(1, source, "/x")), "EEXIST");
  EXPECT_TRUE(log.has(-1, "Migration already in progress (from [" + source + "] to [" + target + "])"));
  FaultPlan plan;
  plan.fail("open", 1, ENOSPC);  // of "migrate.changed"
  perform(works.back());
  holding->release();
  EXPECT_EQ(ends(), ended("ENOSPC", target));
  expectCopies();
  EXPECT_EQ(outcome(cache->migrate(0, source, target)), "EINVAL");
  for (const std::string& bad : Texts{"", target + '\n'}) {
    EXPECT_EQ(outcome(cache->migrate(1, source, bad)), "EINVAL");
    EXPECT_EQ(outcome(cache->migrate(1, bad, target)), "EINVAL");
  }
  EXPECT_EQ(outcome(cache->migrate(1, source, target + ',')), "EINVAL");
  EXPECT_EQ(outcome(DiskCache(PersistentVolumes::No).migrate(1, source, target)), "EINVAL") << "before init";
}

TEST_F(MigratorTest, NoNameOfAChangeContinuesOneThatWasCutShort) {
  const std::string path = dir / "changes", whole = "one\0three\0"s;
  MigrationChanges changes;
  changes.begin(path);
  FaultPlan plan;
  plan.shortTransfer("write", 2, 2);
  const int told[] = {changes.add("one"), changes.add("two"), changes.add("three")};
  EXPECT_EQ(outcome(told[0]) + outcome(told[1]) + outcome(told[2]), "successENOSPCsuccess");
  EXPECT_EQ(readFile(path), whole);
  writeFile(path, whole + "by a ki");
  EXPECT_EQ(changes.resume(path), 0);
  EXPECT_EQ(changes.add("four"), 0);
  EXPECT_EQ(readFile(path), whole + "four\0"s);
  EXPECT_EQ(changes.names().size(), 3U);
  changes.end();
  EXPECT_FALSE(fs::exists(path));
}

// Whatever way it ends, and when it fails at each system call of each change; what a change takes away at the
// destination must not show again from the source.
TEST_F(MigratorTest, AChangeIsKeptWholeWhenTheMigrationEndsWithinIt) {
  ctx.useNonPrunableDir = true;
  const Works befores[] = {
      {{SegmentWork::CREATE, 'a'}, {SegmentWork::WRITE, 'c'}},
      {{SegmentWork::CREATE, 'b'}, {SegmentWork::WRITE, 'd'}},
      {{SegmentWork::CREATE, 'a'}, {SegmentWork::REPLACE, 'c'}},
      {{SegmentWork::CREATE, 'a'},
       {SegmentWork::WRITE_NON_PRUNABLE, 'b'},
       {SegmentWork::WRITE_PRUNABLE, 'c'},
       {SegmentWork::WRITE, 'd'}},
  };
  for (const Works& before : befores) {
    for (uint32_t operation = SegmentWork::WRITE; operation < SegmentWork::NUM_OPERATIONS; ++operation) {
      if (operation == SegmentWork::WRITE_PRUNABLE && before[0].letter == 'b') continue;  // no such copy
      SCOPED_TRACE("before " + std::to_string(before.size()) + static_cast<char>(before[0].letter) +
                   " operation " + std::to_string(operation));
      Works works = before;
      works.push_back({static_cast<SegmentWork::Operation>(operation), 'e'});
      size_t calls = 0;
      for (const End end : {Switched, Cleared, Destroyed, Failed}) {
        for (const Place place : {Source, OtherDisk, SameDisk}) {
          SCOPED_TRACE(testing::Message() << "end " << end << " place " << place);
          calls = endAfter(works, end, place);
        }
      }
      for (size_t nth = 1; nth <= calls && !HasFailure(); ++nth) {
        SCOPED_TRACE("call " + std::to_string(nth));
        failWithin(works, nth);
      }
    }
  }
}

// As when the source's disk is taken away: what is not there any more was not deleted by clients.
// It began before the end, and where the volume was nothing can be made any more.
TEST_F(MigratorTest, ACreationGoesWhereTheVolumeIsByThen) {
  startWithFour();
  FaultPlan plan;
  plan.hold("mkdir", 1);
  auto making = std::async(std::launch::async, [&] { return outcome(create("made", {})); });
  ASSERT_TRUE(plan.held());
  EXPECT_EQ(cache->migrate(1, source, target), 0);
  EXPECT_EQ(ends(), ended("success", target));
  fs::remove_all(source);
  writeFile(source, "no directory");
  plan.release();
  EXPECT_EQ(making.get(), "success");
  EXPECT_TRUE(fs::exists(target + "/ctx/ma/de/made"));
}

TEST_F(MigratorTest, AnotherDirectoryInTheSourcesPlaceFailsTheMigration) {
  startWithFour();
  migrateUpTo("/spare", target);
  EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
  EXPECT_EQ(readFile(file), "1\n" + source + '\n' + target + '\n');
  fs::rename(source, dir / "taken away");
  fs::create_directory(source);
  holding->release();
  EXPECT_EQ(ends(), ended("ENOENT", target));
  EXPECT_FALSE(isSwitched());
}

TEST_F(MigratorTest, WhatReturnsOutlivesTheRemovalOfItsEmptyDirectory) {
  SKIP_WITHOUT(otherDisk);
  for (const std::string& to : {target, otherDisk / "new"}) {
    SCOPED_TRACE(to);
    begin({}, "/spare", true, to);
    put("made", "the text");
    FaultPlan plan;
    plan.hold("rename", 1);
    holding->release();
    ASSERT_TRUE(plan.held());
    EXPECT_TRUE(fs::remove(source + "/ctx/ma/de"));  // as the pruner does with what it finds empty
    plan.release();
    EXPECT_EQ(ends(), ended("EINVAL", to));
    EXPECT_EQ(get("made"), "the text");
  }
}

TEST_F(MigratorTest, AReaderWhomAMigrationOvertakesIsNotShownWhatAnOverrideHides) {
  startWithFour();
  const std::string text = "the override";
  ctx.useNonPrunableDir = true;
  ASSERT_EQ(outcome(write("kept", {section(0, text)}, ForceDiskLoc::NonPrunable)), "success");
  FaultPlan plan;
  migrateUpTo("/noprune-ctx", target);
  plan.hold("access", 2);  // it is not at the destination; the source is asked next
  std::future<std::string> read = std::async(std::launch::async, [&] { return get("kept"); });
  ASSERT_TRUE(plan.held());
  holding->release();
  EXPECT_EQ(ends(), ended("success", target));
  fs::remove_all(source);
  plan.release();
  EXPECT_EQ(read.get(), text);
}

// After its copy has been made, before it appears, or while it does: then a removal waits.
TEST_F(MigratorTest, WhatIsRemovedBesideItsCopyStaysAway) {
  for (const std::string call : {"", "copy_file_range", "renameat2"}) {
    SCOPED_TRACE(call);
    startWithFour();
    migrateUpTo(call.empty() ? "/spare" : "/ctx", target);
    FaultPlan plan;
    if (!call.empty()) plan.hold(call, 1), holding->release();
    ASSERT_TRUE(call.empty() || plan.held());
    auto removed = std::async(std::launch::async, [&] { return outcome(remove("kept")); });
    const auto state = removed.wait_for(call == "renameat2" ? std::chrono::milliseconds(100) : LONGEST_WAIT);
    EXPECT_EQ(state == std::future_status::timeout, call == "renameat2");
    plan.release();
    EXPECT_EQ(removed.get(), "success");
    EXPECT_EQ(get("kept"), "[ENOENT]");
    holding->release();
    EXPECT_EQ(ends(), ended("success", target));
    EXPECT_EQ(get("kept"), "[ENOENT]");
    EXPECT_EQ(space().segments(), 0U);
  }
}

TEST_F(MigratorTest, WhatBeganBeforeAMigrationIsDoneOnItsOtherSide) {
  startWithFour();
  FaultPlan plan;
  plan.hold("stat", 1);  // of the file at the source
  auto removed = std::async(std::launch::async, [&] { return outcome(remove("kept")); });
  ASSERT_TRUE(plan.held());
  HoldAtLine hold(log, "Opening disk segment for [fresh]");  // at the source's path, which is looked up again
  auto created = std::async(std::launch::async, [&] { put("fresh", "text"); });
  ASSERT_TRUE(hold.reached());
  EXPECT_EQ(cache->migrate(1, source, target), 0);
  EXPECT_EQ(ends(), ended("success", target));
  hold.release();
  plan.release();
  created.get();
  EXPECT_EQ(removed.get(), "success");
  EXPECT_EQ(get("fresh") + get("kept"), "text[ENOENT]");
  EXPECT_EQ(space().segments(), 1U) << "one more, one less";
}

}  // namespace
}  // namespace ObjectStore
