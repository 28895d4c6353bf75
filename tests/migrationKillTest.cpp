// Several threads change their segments while the volume moves again and again, to the end or not: beside the pruner;
// and with deaths by SIGKILL, and what the next engine finds while it goes on with the migration, at its end and
// afterwards. DISKCACHE_SOAK=N migrates and kills more often.
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <fstream>
#include <future>
#include <random>
#include <thread>

#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcachePruner.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"
#include "tests/support/process.h"
#include "tests/support/segmentWork.h"
#include "tests/support/smallFileSystem.h"
#include "tests/support/soak.h"

namespace ObjectStore {
namespace {

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
  std::array<char, 4096> problem;  // the first that was met
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

  // The source of the migration that is left, if one is: the file's second line.
  std::string sourceLeft() {
    std::ifstream file(dir / "root/migrate");
    std::string line;
    for (int i = 0; i < 2; ++i) std::getline(file, line);
    return line;
  }
  // Where the volume is, as the engine's own file has it. A kill while it is written leaves it empty.
  size_t sideInUse() {
    std::string line;
    std::ifstream file(dir / "root/volume_info");
    std::getline(file, line);
    const auto place =
        std::find(sides.begin(), sides.end(), line.empty() ? sourceLeft() : line.substr(0, line.rfind(',')));
    return place == sides.end() ? 0 : static_cast<size_t>(place - sides.begin());
  }
  void startOn(size_t side) {
    options.volumesIn = fs::path(sides[side]).parent_path();
    start();
  }
  std::string awaitEnd() {
    std::future<int> ended = s_ended.get_future();
    if (ended.wait_for(2 * LONGEST_WAIT) != std::future_status::ready) return "never";
    Access::migrator(*cache).terminate();  // joins its threads
    return outcome(ended.get());
  }
  // From a side that holds what cannot be copied no migration comes to its end.
  void plant(const std::string& side) {
    if (mknod((side + "/spare/odd").c_str(), S_IFIFO | 0600, 0) != 0) tell("no FIFO");
  }
  void removePlanted() {
    for (const std::string& side : sides) fs::remove(side + "/spare/odd");
  }

  // ---- What goes on until death, or without one ----
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
    // An empty directory may be pruned while a file is being put there.
    const bool hadNoPlace = isPruned && outcome(error) == "ENOENT" && work.operation != SegmentWork::TRUNCATE;
    if ((outcome(error) != work.result(before) && !hadNoPlace) || is != wanted) {
      tell(guid + ": operation " + std::to_string(work.operation) + " told " + error.AsString() +
           " and left " + is.substr(0, 20) + ", wanted " + wanted.substr(0, 20));
    }
  }
  std::vector<std::jthread> startClients(unsigned seed) {
    std::vector<std::jthread> clients;
    for (unsigned t = 0; t < THREADS; ++t) {
      clients.emplace_back(
          [this, t, random = std::minstd_rand(seed + t)](const std::stop_token& stop) mutable {
            while (!stop.stop_requested()) change(t * SEGMENTS + random() % SEGMENTS, random);
          });
    }
    return clients;
  }
  // Moves the volume on from this side, to where it is afterwards. What a failed migration leaves behind is there for
  // the next one to take for copies.
  void moveFrom(size_t& side, unsigned i) {
    const size_t next = (side + 1) % sides.size();
    const std::string& source = sides[side];
    const bool mustFail = i % 4 == 2, mayBeEnded = i % 4 == 3;
    if (mustFail) plant(source);
    s_ended = {};
    model->isMigrating = true;
    if (cache->migrate(1, source, sides[next]) != 0) tell("no migration");
    if (isPruned) {
      Access::pruner(*cache).deletePrunableSegments();  // removes the directories that it finds empty
      for (const uint64_t last = model->operations + 30; model->operations < last;) std::this_thread::yield();
    }
    if (mayBeEnded) Access::migrator(*cache).terminate();
    const std::string how = awaitEnd();
    model->isMigrating = false;
    if (how != (mustFail ? "EINVAL" : "success") && !(mayBeEnded && how == "EINTR"))
      tell("migration: " + how);
    removePlanted();
    if (how != "success") return;
    side = next;
    // Clients whose work began before the switch may be making directories there.
    const bool isGone = eventually([&] {
      std::error_code error;
      fs::remove_all(source, error);
      return !error;
    });
    if (!isGone) tell("cannot remove " + source);
  }
  [[noreturn]] void live(unsigned seed) {
    size_t side = sideInUse();
    startOn(side);
    const std::vector<std::jthread> clients = startClients(seed);
    for (unsigned i = seed;; ++i) moveFrom(side, i);
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
    expectKilled(status);
  }
  void expectKilled(int status) {
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
  // Starts the next engine, which goes on with the migration.
  void resume(bool mustFail) {
    if (mustFail) plant(sourceLeft());
    s_ended = {};
    {
      HoldAtLine hold(log, "entering migration thread");
      startOn(sideInUse());
      ASSERT_TRUE(hold.reached());
      expectModel("beside the resumed migration");
    }
    EXPECT_EQ(awaitEnd(), mustFail ? "EINVAL" : "success");
    expectModel("after the resumed migration");
  }
  // A child that goes on with the migration and dies at that system call of it, if it makes so many.
  void killResuming(size_t call) {
    const pid_t child = fork();
    if (child == 0) {
      FaultPlan plan;
      plan.killAt(call);
      s_ended = {};
      startOn(sideInUse());
      const std::string how = awaitEnd();
      plan.clearFaults();
      _exit(how == "never" ? EXIT_FAILURE : EXIT_SUCCESS);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0) expectKilled(status);
  }
  // What was under way may have been left in a state that the model does not know.
  void forgetWhatWasUnderWay() {
    for (size_t i = 0; i < model->slots.size(); ++i) {
      Slot& slot = model->slots[i];
      if (!slot.isUnderWay.exchange(false)) continue;
      EXPECT_EQ(outcome(remove(guidOf(i))), "success");
      slot.now = Copies();
      EXPECT_EQ(get(guidOf(i)), "[ENOENT]");
    }
  }

  static inline std::promise<int> s_ended;
  // As large as the first: a volume that has moved keeps the reserve that was measured before.
  const SmallFileSystem otherDisk{static_cast<unsigned>(fs::space(dir.path()).capacity >> 20)};
  const std::array<std::string, 3> sides{dir / "a/vol1", dir / "b/vol1",
                                         (otherDisk.available() ? otherDisk.path() : dir.path()) + "/c/vol1"};
  bool isPruned = false;
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
    removePlanted();
    const auto isLeft = [this] { return fs::exists(dir / "root/migrate"); };
    while (isLeft() && random() % 3 > 0) {
      ++resumptionsKilled;
      if (random() % 2 == 0) plant(sourceLeft());
      killResuming(1 + random() % 1000);
      removePlanted();
    }
    if (isLeft()) {
      resume(++resumed % 2 == 0);
      removePlanted();
    }
    startOn(sideInUse());
    expectModel("after a restart");
    forgetWhatWasUnderWay();
    cache.reset();
    for (const std::string& side : sides)
      if (side != sides[sideInUse()]) fs::remove_all(side);
  }
  EXPECT_GE(resumed + resumptionsKilled, wanted / 3);
}

using MigrationStressTest = MigrationKillTest;

TEST_F(MigrationStressTest, NoOperationIsLostAndNoMigrationFails) {
  const auto migrations = static_cast<unsigned>(soaked(12));
  log.setLevel(LogLevel::Error - 1);
  isPruned = true;
  options.lowWM = 0;                                              // the pruner's walk goes everywhere
  options.mode = PruningMode::Random, options.maxLruEntries = 5;  // and most segments are in no list
  size_t side = 0;
  startOn(side);
  DiskCacheContext overrides = makeContext(ctx.nonprunableDir);
  overrides.prunerCallback = [this](auto&, auto& path, auto&) { return tell("asked for " + path), false; };
  (void)cache->registerContext(overrides);
  std::vector<std::jthread> clients = startClients(1);
  for (unsigned i = 1; i <= migrations && model->problem[0] == '\0'; ++i) moveFrom(side, i);
  clients.clear();
  EXPECT_STREQ(model->problem.data(), "");
  EXPECT_GE(model->operations, uint64_t{30} * migrations);
  expectModel("in the end");
}

}  // namespace
}  // namespace ObjectStore
