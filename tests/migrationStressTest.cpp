// Volumes that move again and again, to the end or not, while every operation goes on; DISKCACHE_SOAK=N moves them
// N times as often.
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <random>
#include <thread>

#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcachePruner.h"
#include "support/config.h"
#include "tests/support/engineFixture.h"
#include "tests/support/segmentWork.h"
#include "tests/support/soak.h"

namespace ObjectStore {
namespace {

namespace fs = std::filesystem;

constexpr size_t THREADS = 3;
constexpr size_t SEGMENTS = 20;  // of each thread

class MigrationStressTest : public EngineTest {
 protected:
  void SetUp() override {
    log.setLevel(LogLevel::Error - 1);
    ConfigStore::set(CONFIG_SECTION, "DiskCacheLowWMBytes", "1");  // the pruner's walk goes everywhere
    ctx.useNonPrunableDir = true;
    options.migrationCallback = [](int error, auto&, auto&) { s_ended.set_value(error); };
    start(options);
    for (const char* top : {"/ctx", "/noprune-ctx", "/spare"}) fs::create_directories(volumes[0] + top);
  }
  void TearDown() override {
    cache.reset();
    ConfigStore::clear();
  }

  // One random operation on a segment that no other thread changes: what it tells and leaves is known.
  void work(const guid_t& guid, Copies& now, std::minstd_rand& random) {
    const SegmentWork change = SegmentWork::any(random);
    const std::string expected = change.result(now);
    const CZuError error = change.perform(*cache, ctx, guid);
    // An empty directory may go while a file is being put there.
    const bool hadNoPlace = outcome(error) == "ENOENT" && change.operation != SegmentWork::TRUNCATE;
    EXPECT_TRUE(outcome(error) == expected || hadNoPlace)
        << "operation " << change.operation << ": " << error.AsString();
    if (!error.IsError()) now = change.leaves(now);
    expectLeft(guid, now, change.operation);
    ++operations;
  }
  void expectLeft(const guid_t& guid, const Copies& copies, unsigned operation) {
    EXPECT_EQ(get(guid), copies.inUse().shown()) << guid << " after operation " << operation;
  }

  static inline std::promise<int> s_ended;
  EngineOptions options;
  std::atomic<size_t> operations{0};
};

TEST_F(MigrationStressTest, NoOperationIsLostAndNoMigrationFails) {
  const int migrations = static_cast<int>(soaked(12));
  std::atomic<bool> done{false};
  std::vector<std::jthread> clients;
  std::vector<std::vector<Copies>> copies(THREADS, std::vector<Copies>(SEGMENTS));
  for (unsigned t = 0; t < THREADS; ++t) {
    clients.emplace_back([&, t, random = std::minstd_rand(t + 1)]() mutable {
      for (; !done; std::this_thread::yield()) {
        const size_t i = random() % SEGMENTS;
        work("ab" + std::to_string(100 * t + i) + "-segment", copies[t][i], random);
      }
    });
  }
  std::string source = volumes[0];
  std::vector<std::string> wrong;
  for (int i = 1; i <= migrations && !HasFailure(); ++i) {
    const std::string target = dir / "new" + std::to_string(i), odd = source + "/spare/odd";
    const bool mustFail = i % 4 == 2, mayBeEnded = i % 4 == 3;
    ASSERT_TRUE(!mustFail || mknod(odd.c_str(), S_IFIFO | 0600, 0) == 0);
    s_ended = {};
    std::future<int> ended = s_ended.get_future();
    ASSERT_EQ(cache->migrate(1, source, target), 0);
    Access::pruner(*cache).deletePrunableSegments();  // removes the directories that it finds empty
    for (const size_t before = operations; operations < before + 30;) std::this_thread::yield();
    if (mayBeEnded) Access::migrator(*cache).terminate();
    ASSERT_EQ(ended.wait_for(2 * LONGEST_WAIT), std::future_status::ready);
    const std::string how = outcome(ended.get());
    if (how != (mustFail ? "EINVAL" : "success") && !(mayBeEnded && how == "EINTR")) wrong.push_back(how);
    Access::migrator(*cache).terminate();  // joins its threads
    if (mustFail) fs::remove(odd);
    fs::remove_all(how == "success" ? std::exchange(source, target) : target);
  }
  done = true;
  clients.clear();
  EXPECT_EQ(wrong, std::vector<std::string>());
  EXPECT_GT(operations, 30U * static_cast<unsigned>(migrations));
  for (unsigned t = 0; t < THREADS; ++t) {
    for (size_t i = 0; i < SEGMENTS; ++i)
      expectLeft("ab" + std::to_string(100 * t + i) + "-segment", copies[t][i], 99);
  }
}

}  // namespace
}  // namespace ObjectStore
