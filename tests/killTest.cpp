// Death by SIGKILL at a system call, and what the next engine finds.
//
// A child process dies; the kernel lives on with every byte that it was given. So a call counts as done when it
// has returned, synced or not, and what a crash of the machine leaves is not seen here.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <map>
#include <random>

#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;
using Sections = std::array<std::string, 2>;  // what those of type 0 and 1 read as

constexpr size_t NEVER = 0;
std::promise<int> g_migrationEnd;

const std::string ABSENT = "[ENOENT]";

// How an operation that is cut short may show: not at all, byte by byte, or in a section that readers refuse
// until its record is whole.
enum How { WHOLE, BYTES, REFUSED };

struct Step {
  How how;
  guid_t guid;
  Sections after;
  std::function<CZuError()> run;
};

bool isRefused(const std::string& reading) { return reading.empty() || reading[0] == '['; }

bool isMixOf(const std::string& a, const std::string& b, const std::string& reading) {
  for (size_t i = 0; i < reading.size(); ++i) {
    if ((i >= a.size() || reading[i] != a[i]) && (i >= b.size() || reading[i] != b[i])) return false;
  }
  return reading.size() == a.size() || reading.size() == b.size();
}

class KillTest : public EngineTest {
 protected:
  struct Report {
    std::atomic<size_t> calls{0};  // of a child that came to its end
    std::atomic<size_t> steps{0};  // that the child has behind it
  };

  void SetUp() override {
    log.setLevel(LogLevel::Error);
    ctx.useNonPrunableDir = true;
    options.persistent = PersistentVolumes::Yes;
    options.migrationCallback = [](int error, const std::string&, const std::string&) {
      g_migrationEnd.set_value(error);
    };
    void* page = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    report = new (page) Report;
    if (const char* factor = std::getenv("DISKCACHE_SOAK"))
      soak = std::max(1UL, std::strtoul(factor, nullptr, 10));
  }
  void TearDown() override { munmap(report, sizeof(Report)); }

  // Runs `body` in a child that is killed at its nth system call; false when it came to its end before. What
  // fails there fails here. This process has no other thread meanwhile.
  bool isKilled(size_t nth, const std::function<void()>& body) {
    const pid_t child = fork();
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      std::cout.rdbuf(nullptr);
      FaultPlan plan;
      if (nth != NEVER) plan.killAt(nth);
      try {
        body();
        report->calls = plan.count(FaultPlan::ANY);
      } catch (const std::exception& error) {
        ADD_FAILURE() << error.what();
      }
      _exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
    }
    int status = -1;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    EXPECT_TRUE(killed || status == 0) << "the child's status is " << status;
    return killed;
  }
  void forget(const Texts& made) {
    for (const std::string& name : made) fs::remove_all(dir / name);
  }
  size_t pick(size_t n) { return random() % n; }
  std::string text(char letter) { return std::string(1000 + pick(5000), letter); }

  // A section by each reader that gives bytes: its text or the outcome in brackets.
  Texts readings(const guid_t& guid, int32_t type) {
    const auto shown = [](const CZuError& error, const std::string& found) {
      return error.IsError() ? '[' + outcome(error) + ']' : found;
    };
    std::string buffer(20'000, '?');
    std::vector<Section> asked{section(type, buffer)};
    const CZuError one = cache->readSections(ctx, guid, asked, false);
    buffer.resize(asked[0].len);
    std::vector<SectionV> sections;
    const CZuError all = cache->readAllSections(ctx, guid, sections);
    std::string among = ABSENT;
    for (const SectionV& s : sections) {
      if (s.type == type) among.assign(s.data.begin(), s.data.end());
    }
    const std::string whole = get(guid, type);
    uint64_t size = 0;
    const bool isSized = !cache->getSectionSize(size, ctx, guid, type, 0).IsError();
    const bool isThere = cache->doesSegmentExist(ctx, guid);
    EXPECT_TRUE(isRefused(whole) || (isThere && isSized && size == whole.size())) << guid << ' ' << size;
    return {whole, shown(one, asked[0].status == ENOENT ? ABSENT : buffer), shown(all, among)};
  }

  // The segment is as it was before or after an operation, or shows that this was cut short.
  void expectLeft(const guid_t& guid, const Sections& before, const Sections& after, How how) {
    for (size_t type = 0; type < before.size(); ++type) {
      const std::string &a = before[type], &b = after[type];
      const Texts texts = readings(guid, static_cast<int32_t>(type));
      for (const std::string& found : texts) {
        const bool byAll = &found == &texts.back();  // gives every section or none
        EXPECT_TRUE(found == a || found == b || (how == BYTES && isMixOf(a, b, found)) ||
                    (how == REFUSED && isRefused(found) && (byAll || a == ABSENT || a != b)))
            << guid << " section " << type << " by reader " << &found - texts.data() << ": " << found;
      }
    }
  }

  EngineOptions options;
  std::mt19937 random{20};  // the same kills every time
  size_t soak = 1;
  Report* report = nullptr;
};

TEST_F(KillTest, AMigrationGoesOnAtTheNextStart) {
  const std::string source = dir / "vol1", target = dir / "new/vol1", volumeInfo = dir / "root/volume_info";
  options.mode = PruningMode::Random;  // starts without a scan, which would take most of the kills
  const auto isLeft = [&] { return fs::exists(dir / "root/migrate"); };
  const auto isSwitched = [&] { return fs::exists(volumeInfo) && readFile(volumeInfo) == target + ",1\n"; };
  // Starts an engine on the volume where it was last seen; whether that goes on with a migration.
  const auto resume = [&] {
    const bool goesOn = isLeft();
    options.volumesIn = isSwitched() ? dir / "new" : "";
    g_migrationEnd = {};
    start(options);
    return goesOn;
  };
  const auto expectEnd = [] {
    std::future<int> end = g_migrationEnd.get_future();
    ASSERT_EQ(end.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(end.get(), 0);
  };
  const auto migrate = [&] {
    if (!resume()) {
      if (isSwitched()) return;
      ASSERT_EQ(cache->migrate(1, source, target), 0);
    }
    expectEnd();
    cache.reset();
  };
  const auto filesOf = [](const std::string& top) {
    std::map<std::string, std::string> files;
    for (const std::string& name : treeOf(top)) {
      if (name.back() != '/') files[name] = readFile(top + '/' + name);
    }
    return files;
  };
  const auto name = [](int i) { return "ab" + std::to_string(10 + i); };
  const auto texts = [&] {
    Texts all;
    for (int i = 0; i < 24; ++i) all.push_back(get(name(i)));
    return all;
  };

  resume();
  for (int i = 0; i < 24; ++i) {
    const std::string newer(64, static_cast<char>('A' + i));
    put(name(i), text(static_cast<char>('a' + i)));
    if (i % 2 == 0) cache->writeSections(ctx, name(i), {section(0, newer)}, false, ForceDiskLoc::NonPrunable);
    if (i % 5 == 3) cache->deleteSegment(ctx, name(i), false, false, Recycle::Yes);
  }
  const Texts before = texts();
  cache.reset();
  fs::copy(source + "/ctx", source + "/more", fs::copy_options::recursive);
  const auto files = filesOf(source);
  ASSERT_EQ(std::distance(fs::directory_iterator(source), {}), 4) << "of another number some stay behind";
  forget({"root", "new"});
  ASSERT_FALSE(isKilled(NEVER, migrate));
  const size_t calls = report->calls;
  for (size_t kills = 0; kills < 50 * soak && !HasFailure();) {
    SCOPED_TRACE(testing::Message() << "after kill " << kills);
    forget({"root", "new"});
    // Kills of one migration before it is left to end; 0 stands for a single one in its last calls.
    const size_t inTurn = pick(5);
    const auto nth = [&] { return inTurn == 0 ? calls - pick(6) : 1 + pick(calls / inTurn); };
    for (size_t i = 0; i < std::max<size_t>(inTurn, 1) && isKilled(nth(), migrate); ++i) kills += isLeft();

    const bool resumed = resume();
    EXPECT_EQ(texts(), before) << "beside the copying";
    if (resumed) {
      expectEnd();
      cache.reset();
      EXPECT_TRUE(isSwitched());
      EXPECT_FALSE(resume());
      EXPECT_EQ(texts(), before);
    }
    cache.reset();
    EXPECT_EQ(readFile(volumeInfo), (isSwitched() ? target : source) + ",1\n");
    EXPECT_TRUE(!isSwitched() || filesOf(target) == files);
  }
  EXPECT_EQ(filesOf(source), files);
}

TEST_F(KillTest, WhatHadReturnedIsLeftAndNothingForeign) {
  const guid_t S = "abcd-s", T = "abcd-t", U = "abcd-u";
  constexpr ForceDiskLoc HERE = ForceDiskLoc::Default, ASIDE = ForceDiskLoc::NonPrunable;
  const auto make = [&](const guid_t& guid, const std::string& part, bool sync, bool nonPrune) {
    return cache->createSegment(ctx, guid, {section(0, part)}, sync, nonPrune, false);
  };
  const auto write = [&](const guid_t& guid, int type, const std::string& part, size_t at, bool sync,
                         ForceDiskLoc place) {
    return cache->writeSections(ctx, guid, {section(type, part, 0, at)}, sync, place);
  };
  const auto over = [](std::string all, size_t at, const std::string& part) {
    return all.replace(at, part.size(), part);
  };
  size_t kills = 0;
  size_t partlyMade = 0;
  for (size_t round = 0; round < soak; ++round) {
    const std::string a = text('a'), b = text('b'), c(500, 'c'), d = text('d'), e = text('e'), f = text('f');
    const std::string ac = over(a, 100, c), bd = over(b, 900, d), de = over(d, 0, e), ec = over(e, 0, c);
    const std::string cut = bd.substr(0, 950), zeros = cut + std::string(50, '\0'), fd = over(f, 300, d);
    // Syncs come late: those that a child makes before it dies are what takes time.
    const std::vector<Step> script = {
        {REFUSED, S, {a, ABSENT}, [&] { return make(S, a, false, false); }},
        {REFUSED, S, {a, b}, [&] { return write(S, 1, b, 0, false, HERE); }},
        {BYTES, S, {ac, b}, [&] { return write(S, 0, c, 100, false, HERE); }},
        {BYTES, S, {ac, bd}, [&] { return write(S, 1, d, 900, false, HERE); }},
        {WHOLE, S, {ac, cut}, [&] { return cache->truncateSection(ctx, S, 1, 0, cut.size()); }},
        {REFUSED, S, {ac, zeros}, [&] { return cache->truncateSection(ctx, S, 1, 0, zeros.size()); }},
        {REFUSED, T, {e, ABSENT}, [&] { return make(T, e, false, true); }},
        {WHOLE, T, {e, ABSENT}, [&] { return cache->moveToPrunable(ctx, T); }},
        {WHOLE, S, {ac, zeros}, [&] { return cache->markDirty(ctx, S, false); }},
        {BYTES, S, {a, zeros}, [&] { return write(S, 0, a, 0, false, HERE); }},
        {WHOLE, S, {a, zeros}, [&] { return cache->moveToPrunable(ctx, S); }},
        {WHOLE,
         S,
         {f, d},
         [&] {
           return cache->replaceSegment(ctx, S, {section(0, f), section(1, d)});
         }},
        {BYTES, S, {f, de}, [&] { return write(S, 1, e, 0, false, ASIDE); }},
        {WHOLE, T, {e, ABSENT}, [&] { return cache->markDirty(ctx, T, true); }},
        {WHOLE, S, {f, de}, [&] { return cache->syncSegment(ctx, S); }},
        {BYTES, T, {ec, ABSENT}, [&] { return write(T, 0, c, 0, true, HERE); }},
        {WHOLE, T, {c, ABSENT}, [&] { return cache->truncateSection(ctx, T, 0, 0, c.size()); }},
        {REFUSED, U, {b, ABSENT}, [&] { return make(U, b, true, false); }},
        {WHOLE,
         U,
         {a, f},
         [&] {
           return cache->replaceSegment(ctx, U, {section(0, a), section(1, f)});
         }},
        {BYTES, U, {a, fd}, [&] { return write(U, 1, d, 300, true, ASIDE); }},
    };
    const auto play = [&] {
      start(options);
      for (const Step& step : script) {
        ASSERT_EQ(outcome(step.run()), "success") << "step " << report->steps;
        ++report->steps;
      }
    };
    bool killed = true;
    for (size_t nth = 1; killed && !HasFailure(); ++nth) {  // one thread: the same calls every time
      forget({"root", "vol1"});
      report->steps = 0;
      killed = isKilled(nth, play);
      kills += killed;
      const size_t done = report->steps;
      SCOPED_TRACE(testing::Message() << "round " << round << ", call " << nth << ", step " << done);
      std::map<guid_t, Sections> left;
      for (const guid_t& guid : {S, T, U}) left[guid] = {ABSENT, ABSENT};
      for (size_t i = 0; i < done; ++i) left[script[i].guid] = script[i].after;

      start(options);
      for (const auto& [guid, before] : left) {
        const bool isCut = done < script.size() && script[done].guid == guid;
        const Step step = isCut ? script[done] : Step{WHOLE, guid, before, nullptr};
        expectLeft(guid, before, step.after, step.how);
        if (isCut && step.how != REFUSED) {  // done again, it takes
          EXPECT_EQ(outcome(step.run()), "success");
          expectLeft(guid, step.after, step.after, WHOLE);
        }
        if (isCached(guid)) {
          partlyMade += before[0] == ABSENT;
          EXPECT_EQ(outcome(make(guid, a, false, false)), "EEXIST");
        }
        EXPECT_EQ(outcome(cache->deleteSegment(ctx, guid, false, false, Recycle::No)), "success");
        put(guid, a);
        EXPECT_EQ(get(guid), a);
      }
      cache.reset();
    }
  }
  EXPECT_GE(kills, 200 * soak);
  EXPECT_GT(partlyMade, 0U);
}

}  // namespace
}  // namespace ObjectStore
