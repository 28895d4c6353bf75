// Every operation on a segment with its nth system call failing or cut short, once and for good, or with the process's
// death in its place. DISKCACHE_SOAK=N runs more of the combinations, 60 all of them.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <future>
#include <thread>

#include "diskcache/diskcacheMigrator.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"
#include "tests/support/segmentWork.h"
#include "tests/support/soak.h"

namespace ObjectStore {
namespace {

constexpr Copy REGULAR{'r', FULL}, OVERRIDE{'o', FULL};
constexpr std::array FAULTS{EIO, ENOSPC, EMFILE, EINTR, EACCES, 0};  // 0: two bytes move
constexpr unsigned ALL = 60;

// Where the operation finds the volume; beside a migration, which of the two copies is at the destination already.
enum Place { ONE, TWO, OVERRIDE_IS_COPIED, REGULAR_IS_COPIED };

// A reader, and what it may tell of a copy's text besides an error.
struct Reader {
  std::function<std::string(const guid_t&)> read;
  std::function<bool(const std::string& told, const Copy& stored)> isRight;
};

struct SweepTest : InMemory, EngineTest, ::testing::WithParamInterface<std::tuple<Place, bool>> {
  SweepTest() {
    log.setLevel(LogLevel::Copy);
    options.migrationCallback = [](int error, auto&, auto&) { s_ended.set_value(error); };
    for (const char* top : {"/ctx", "/noprune-ctx", "/spare"}) fs::create_directories(sides[0] + top);
    begin();
  }
  bool migrates() const { return place >= OVERRIDE_IS_COPIED; }

  void begin() {
    options.volumesIn = fs::path(sides[side]).parent_path();
    start();
    ctx.useNonPrunableDir = place != ONE;
    ctx.volume = 1;
    log.take();
  }
  // Makes the segment hold these copies, and its neighbours theirs.
  void fill(const Copies& copies) {
    for (const guid_t& guid : {touched, neighbour}) {
      const Copies wanted = guid == touched ? copies : Copies{REGULAR, place == ONE ? Copy() : OVERRIDE};
      ASSERT_EQ(outcome(remove(guid)), "success");
      fs::remove(pathOf(guid) + ".temp");  // of a replacement that failed
      ctx.useNonPrunableDir = false;
      if (wanted.regular.letter) put(guid, wanted.regular.shown());
      ctx.useNonPrunableDir = place != ONE;
      if (!wanted.override.letter) continue;
      const std::string text = wanted.override.shown();
      const std::vector<Section> whole{section(0, text)};
      const CZuError error = wanted.regular.letter
                                 ? write(guid, whole, ForceDiskLoc::NonPrunable)
                                 : cache->createSegment(ctx, guid, whole, false, true, false);
      ASSERT_EQ(outcome(error), "success");
    }
  }
  // Calls `work` with the nth of its calls failing; how many calls it made.
  size_t withFault(size_t nth, int errNo, bool forGood, const std::function<void()>& work) {
    FaultPlan plan;
    if (nth > 0) errNo ? plan.fail(FaultPlan::ANY, nth, errNo) : plan.shortTransfer(FaultPlan::ANY, nth, 2);
    if (forGood) plan.forGood();
    work();
    return plan.count(FaultPlan::ANY);
  }
  // Calls it in a child that dies at the nth of its calls; a new engine is to find what that left.
  void withDeath(size_t nth, const std::function<void()>& work) {
    const pid_t child = fork();  // this process has no other thread meanwhile
    if (child == 0) {
      FaultPlan plan;
      plan.killAt(nth);
      work();
      _exit(EXIT_SUCCESS);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    begin();
  }
  // The same within a migration that has copied one of the two directories, and that then ends as it may.
  size_t beside(size_t nth, int errNo, bool forGood, const std::function<void()>& work,
                const std::function<void()>& check) {
    if (!migrates()) {
      const size_t calls = withFault(nth, errNo, forGood, work);
      check();
      return calls;
    }
    const std::string source = sides[side], target = sides[1 - side];
    s_ended = {};
    std::future<int> ended = s_ended.get_future();
    HoldAtLine hold(
        log, "copying directory [" + source + (place == OVERRIDE_IS_COPIED ? "/ctx]" : "/noprune-ctx]"));
    log.take();
    EXPECT_EQ(cache->migrate(1, source, target), 0);
    EXPECT_TRUE(hold.reached() && log.waitFor("exiting migration thread numJobs=1"));
    const size_t calls = withFault(nth, errNo, forGood, work);
    check();
    if (nth % 2 == 0) {
      std::jthread ending([this] { Access::migrator(*cache).terminate(); });
      while (!Access::isStopping(*cache)) std::this_thread::yield();
      hold.release();
    }
    hold.release();
    const bool hasMoved = ended.get() == 0;
    Access::migrator(*cache).terminate();
    if (hasMoved) side = 1 - side;
    check();
    fs::remove_all(sides[1 - side]);
    return calls;
  }
  // Runs all faults of one operation; `run(nth, errNo, forGood)` tells how many calls it made.
  void sweep(const std::function<size_t(size_t, int, bool)>& run) {
    const size_t calls = run(0, 0, false);
    for (size_t nth = 1; nth <= calls && !HasFailure(); ++nth) {
      for (const int errNo : FAULTS) {
        for (const bool forGood : {false, true}) {
          if (errNo == EINTR && forGood) continue;  // no interruption lasts, and copies wait for its end
          if (++s_combinations % ALL >= share) continue;
          SCOPED_TRACE("call " + std::to_string(nth) + ' ' + (errNo ? outcome(errNo) : "short") +
                       (forGood ? " for good" : ""));
          run(nth, errNo, forGood);
          if (isCold) begin();
        }
      }
    }
  }
  std::string regularOf(const guid_t& guid) {
    ctx.useNonPrunableDir = false;
    const std::string text = get(guid);
    ctx.useNonPrunableDir = place != ONE;
    return text;
  }
  void expectNeighbour() {
    EXPECT_EQ(get(neighbour), (place == ONE ? REGULAR : OVERRIDE).shown());
    EXPECT_EQ(regularOf(neighbour), REGULAR.shown());
  }
  void sweepChange(const SegmentWork& work, const Copies& before) {
    const bool isRefused = work.result(before) != "success";
    const Copies after = isRefused ? before : work.leaves(before, place != ONE);
    sweep([&](size_t nth, int errNo, bool forGood) {
      fill(before);
      if (isCold) begin();
      CZuError error;
      const auto check = [&] {
        const std::string is = get(touched);
        EXPECT_TRUE(error.IsError() || !isRefused);
        if (error.IsError()) {
          EXPECT_TRUE(is[0] == '[' || work.mayShow(is, before, after)) << "was left as " << is;
        } else {
          EXPECT_EQ(is, after.inUse().shown());
          EXPECT_EQ(regularOf(touched), after.regular.shown());
        }
        expectNeighbour();
      };
      const auto perform = [&] { error = work.perform(*cache, ctx, touched); };
      const size_t calls = beside(nth, errNo, forGood, perform, check);
      for (size_t last = 1; nth == 0 && !migrates() && !isCold && last <= calls; ++last) {
        SCOPED_TRACE("death at call " + std::to_string(last));
        fill(before);
        withDeath(last, perform);
        EXPECT_TRUE(work.mayShow(get(touched), before, after)) << "was left as " << get(touched);
        expectNeighbour();
      }
      return calls;
    });
  }
  void sweepReader(const Reader& reader, const Copies& copies) {
    fill(copies);
    sweep([&](size_t nth, int errNo, bool forGood) {
      if (isCold) begin();
      std::string told;
      const auto check = [&] {
        EXPECT_TRUE((nth > 0 && told[0] == '[') || reader.isRight(told, copies.inUse())) << "told " << told;
        EXPECT_EQ(get(touched), copies.inUse().shown());
        expectNeighbour();
      };
      return beside(
          nth, errNo, forGood, [&] { told = reader.read(touched); }, check);
    });
  }

  static inline std::promise<int> s_ended;
  static inline size_t s_combinations = 0;
  const Place place = std::get<0>(GetParam());
  const bool isCold = std::get<1>(GetParam());
  const unsigned share = static_cast<unsigned>(soaked(1));
  const std::array<std::string, 2> sides{dir / "a/vol1", dir / "b/vol1"};
  size_t side = 0;
  const guid_t touched = "abcd-touched", neighbour = "abcd-neighbour";
};

TEST_P(SweepTest, AFailureLosesNothingAndNoneIsTakenForSuccess) {
  std::vector<Copies> states{{}, {REGULAR, {}}};
  if (place != ONE) states.insert(states.end(), {{{}, OVERRIDE}, {REGULAR, OVERRIDE}});
  const auto isExact = [](const std::string& told, const Copy& stored) { return told == stored.shown(); };
  // Without its front a section is empty, and no error.
  const auto isExactOrEmpty = [&](const std::string& told, const Copy& stored) {
    return told.empty() || isExact(told, stored);
  };
  const std::vector<Reader> readers = {
      {[this](const guid_t& guid) { return get(guid); }, isExact},
      {[this](const guid_t& guid) {
         std::string buffer(FULL, '?');
         std::vector<Section> asked{section(0, buffer)};
         const CZuError error = cache->readSections(ctx, guid, asked, true);
         return error.IsError() ? '[' + outcome(error) + ']' : buffer.substr(0, asked[0].len);
       },
       isExactOrEmpty},
      {[this](const guid_t& guid) {
         std::vector<SectionV> all;
         const CZuError error = cache->readAllSections(ctx, guid, all);
         if (error.IsError()) return '[' + outcome(error) + ']';
         return all.empty() ? std::string() : std::string(all[0].data.begin(), all[0].data.end());
       },
       isExactOrEmpty},
      // What cannot be looked at counts as there.
      {[this](const guid_t& guid) {
         return std::string(cache->doesSegmentExist(ctx, guid) ? "there" : "absent");
       },
       [](const std::string& told, const Copy& stored) { return told == "there" || !stored.letter; }}};
  for (const Copies& state : states) {
    const std::string where = " on " + state.regular.shown().substr(0, 1) + state.override.shown()[0];
    for (uint32_t operation = 0; operation < SegmentWork::NUM_OPERATIONS; ++operation) {
      for (const uint16_t letter : {uint16_t{'x'}, uint16_t{'y'}}) {
        if (letter == 'y' && operation != SegmentWork::CREATE) continue;
        const SegmentWork work{static_cast<SegmentWork::Operation>(operation), letter};
        SCOPED_TRACE("operation " + std::to_string(operation) + where);
        sweepChange(work, state);
      }
    }
    for (size_t i = 0; i < readers.size(); ++i) {
      SCOPED_TRACE("reader " + std::to_string(i) + where);
      sweepReader(readers[i], state);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Places, SweepTest,
                         ::testing::Combine(::testing::Values(ONE, TWO, OVERRIDE_IS_COPIED,
                                                              REGULAR_IS_COPIED),
                                            ::testing::Bool()));

}  // namespace
}  // namespace ObjectStore
