// Death by SIGKILL while several threads change their segments and the volume moves again and again; and what the
// next engine finds while it goes on with the migration, at its end and afterwards. DISKCACHE_SOAK=N kills more often.
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <future>
#include <random>
#include <thread>

#include "diskcache/diskcacheMigrator.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"
#include "tests/support/inMemory.h"
#include "tests/support/segmentWork.h"
#include "tests/support/soak.h"

namespace ObjectStore {
namespace {

namespace fs = std::filesystem;

constexpr size_t THREADS = 3;
constexpr size_t SEGMENTS = 12;  // of each thread

// Seen by both processes.
struct Slot {
  std::atomic<Copies> now;
  std::atomic<SegmentWork> change;
  std::atomic<bool> isUnderWay;
};
static_assert(std::atomic<Copies>::is_always_lock_free && std::atomic<SegmentWork>::is_always_lock_free);

struct Model {
  std::array<Slot, THREADS * SEGMENTS> slots;
  std::atomic<uint64_t> operations;
  std::atomic<bool> isMigrating;
  std::array<char, 4096> problem;  // the first that the child met
};

guid_t guidOf(size_t i) { return "abcd-" + std::to_string(i); }

struct MigrationKillTest : InMemory, EngineTest {
  MigrationKillTest()
      : model(static_cast<Model*>(
            mmap(nullptr, sizeof(Model), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    ctx.useNonPrunableDir = true;
    options.persistent = PersistentVolumes::Yes;
    options.migrationCallback = [](int error, auto&, auto&) { s_ended.set_value(error); };
    log.setLevel(LogLevel::Info);
    for (const char* top : {"/ctx/ab/cd", "/noprune-ctx", "/spare"}) fs::create_directories(sides[0] + top);
  }
  ~MigrationKillTest() override { munmap(model, sizeof(Model)); }

  // Where the volume is, as the engine's own file has it.
  size_t sideInUse() {
    const std::string info = dir / "root/volume_info";
    return fs::exists(info) && readFile(info) == sides[1] + ",1\n" ? 1 : 0;
  }
  void startOn(size_t side) {
    options.volumesIn = fs::path(sides[side]).parent_path();
    start(options);
  }
  std::string awaitEnd(std::future<int>& ended) {
    if (ended.wait_for(2 * LONGEST_WAIT) != std::future_status::ready) return "never";
    Access::migrator(*cache).terminate();  // joins its threads
    return outcome(ended.get());
  }
  static std::string oddOf(const std::string& side) { return side + "/spare/odd"; }

  // ---- The child ----
  void tell(const std::string& problem) {
    static std::atomic<bool> told{false};
    if (!told.exchange(true)) problem.copy(model->problem.data(), model->problem.size() - 1);
  }
  void change(size_t i, std::minstd_rand& random) {
    Slot& slot = model->slots[i];
    const guid_t guid = guidOf(i);
    const Copies before = slot.now;
    const SegmentWork work = SegmentWork::any(random);
    slot.change = work;
    slot.isUnderWay = true;
    const CZuError error = work.perform(*cache, ctx, guid);
    if (!error.IsError()) slot.now = work.leaves(before);
    slot.isUnderWay = false;
    ++model->operations;
    const std::string is = get(guid), wanted = slot.now.load().inUse().shown();
    if (outcome(error) != work.result(before) || is != wanted) {
      tell(guid + ": operation " + std::to_string(work.operation) + " told " + error.AsString() +
           " and left " + is.substr(0, 20) + ", wanted " + wanted.substr(0, 20));
    }
  }
  [[noreturn]] void live(unsigned seed) {
    size_t side = sideInUse();
    startOn(side);
    std::vector<std::jthread> clients;
    for (unsigned t = 0; t < THREADS; ++t) {
      clients.emplace_back([this, t, random = std::minstd_rand(seed + t)]() mutable {
        for (;;) change(t * SEGMENTS + random() % SEGMENTS, random);
      });
    }
    for (unsigned i = seed;; ++i) {
      const std::string &source = sides[side], &target = sides[1 - side];
      const bool mustFail = i % 4 == 2, mayBeEnded = i % 4 == 3;
      if (mustFail && mknod(oddOf(source).c_str(), S_IFIFO | 0600, 0) != 0) tell("no FIFO");
      s_ended = {};
      std::future<int> ended = s_ended.get_future();
      model->isMigrating = true;
      if (cache->migrate(1, source, target) != 0) tell("no migration");
      if (mayBeEnded) Access::migrator(*cache).terminate();
      const std::string how = awaitEnd(ended);
      model->isMigrating = false;
      if (how != (mustFail ? "EINVAL" : "success") && !(mayBeEnded && how == "EINTR"))
        tell("migration: " + how);
      fs::remove(oddOf(source));
      fs::remove_all(how == "success" ? source : target);
      if (how == "success") side = 1 - side;
    }
  }

  // ---- The parent ----
  // A child that dies after so many operations of its threads, or at that system call.
  void killOne(unsigned seed, std::mt19937& random) {
    const uint64_t last = model->operations + random() % 300;
    const bool whileMigrating = seed % 3 == 0, atCall = seed % 3 == 1;
    const size_t call = 1 + random() % 6000;
    const pid_t child = fork();
    if (child == 0) {
      FaultPlan plan;
      if (atCall) plan.killAt(call);
      live(seed);
    }
    const auto isDue = [&] { return model->operations > last && (model->isMigrating || !whileMigrating); };
    int status = 0;
    pid_t ended = 0;
    while (ended == 0 && (atCall || !isDue())) {
      ended = waitpid(child, &status, WNOHANG);
      std::this_thread::yield();
    }
    if (ended == 0) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
    }
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the child's status is " << status;
    EXPECT_STREQ(model->problem.data(), "");
  }
  void expectModel(const std::string& when) {
    DiskCacheContext regular = ctx;
    regular.useNonPrunableDir = false;
    for (size_t i = 0; i < model->slots.size(); ++i) {
      const Slot& slot = model->slots[i];
      const Copies now = slot.now;
      const SegmentWork work = slot.change;
      const std::string is = get(guidOf(i));
      if (slot.isUnderWay) {
        EXPECT_TRUE(work.mayShow(is, now, work.leaves(now)))
            << guidOf(i) << ' ' << when << " within operation " << work.operation << ": " << is << "\nbefore "
            << now.regular.shown() << " | " << now.override.shown();
        continue;
      }
      EXPECT_EQ(is, now.inUse().shown()) << guidOf(i) << ' ' << when << " after operation " << work.operation;
      std::swap(ctx, regular);
      EXPECT_EQ(get(guidOf(i)), now.regular.shown()) << "the regular copy of " << guidOf(i) << ' ' << when;
      std::swap(ctx, regular);
    }
  }
  std::string migrationSource() {
    const std::string text = readFile(dir / "root/migrate");
    const bool isFirst = text.find("\n" + sides[0] + '\n') < text.find("\n" + sides[1] + '\n');
    return isFirst ? sides[0] : sides[1];
  }
  void plant(const std::string& side) { ASSERT_EQ(mknod(oddOf(side).c_str(), S_IFIFO | 0600, 0), 0); }
  // Starts the next engine, which goes on with the migration.
  void resume(bool mustFail) {
    if (mustFail) plant(migrationSource());
    s_ended = {};
    std::future<int> ended = s_ended.get_future();
    {
      HoldAtLine hold(log, "entering migration thread");
      startOn(sideInUse());
      ASSERT_TRUE(hold.reached());
      expectModel("beside the resumed migration");
    }
    EXPECT_EQ(awaitEnd(ended), mustFail ? "EINVAL" : "success");
    expectModel("after the resumed migration");
  }
  // A child that goes on with the migration and dies at that system call of it, if it makes so many.
  void killResuming(size_t call) {
    const pid_t child = fork();
    if (child == 0) {
      FaultPlan plan;
      plan.killAt(call);
      s_ended = {};
      std::future<int> ended = s_ended.get_future();
      startOn(sideInUse());
      if (awaitEnd(ended) == "never") tell("a resumed migration does not end");
      plan.clearFaults();
      _exit(EXIT_SUCCESS);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(status == 0 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)) << status;
    EXPECT_STREQ(model->problem.data(), "");
  }
  // What was under way may have been left in a state that the model does not know.
  void forgetWhatWasUnderWay() {
    for (size_t i = 0; i < model->slots.size(); ++i) {
      Slot& slot = model->slots[i];
      if (!slot.isUnderWay.exchange(false)) continue;
      EXPECT_EQ(outcome(cache->deleteSegment(ctx, guidOf(i), false, false, Recycle::No)), "success");
      slot.now = Copies();
      EXPECT_EQ(get(guidOf(i)), "[ENOENT]");
    }
  }

  static inline std::promise<int> s_ended;
  const std::array<std::string, 2> sides{dir / "a/vol1", dir / "b/vol1"};
  EngineOptions options;
  Model* const model;
};

TEST_F(MigrationKillTest, EverySegmentIsAsItsLastOperationLeftIt) {
  const auto wanted = static_cast<unsigned>(std::min<size_t>(soaked(50), 1000));
  std::mt19937 random{11};
  unsigned resumed = 0, resumptionsKilled = 0;
  for (unsigned kills = 0; kills < wanted && !HasFailure(); ++kills) {
    SCOPED_TRACE("kill " + std::to_string(kills));
    killOne(kills, random);
    model->isMigrating = false;
    log.take();
    for (const std::string& side : sides) fs::remove(oddOf(side));
    const auto isLeft = [this] { return fs::exists(dir / "root/migrate"); };
    while (isLeft() && random() % 3 > 0) {
      ++resumptionsKilled;
      if (random() % 2 == 0) plant(migrationSource());
      killResuming(1 + random() % 1000);
      for (const std::string& side : sides) fs::remove(oddOf(side));
    }
    if (isLeft()) {
      resume(++resumed % 2 == 0);
      for (const std::string& side : sides) fs::remove(oddOf(side));
    }
    startOn(sideInUse());
    expectModel("after a restart");
    forgetWhatWasUnderWay();
    cache.reset();
    fs::remove_all(sides[1 - sideInUse()]);
  }
  EXPECT_GE(resumed + resumptionsKilled, wanted / 3);
  RecordProperty("resumed", static_cast<int>(resumed));
  RecordProperty("killed again while resuming", static_cast<int>(resumptionsKilled));
}

}  // namespace
}  // namespace ObjectStore
