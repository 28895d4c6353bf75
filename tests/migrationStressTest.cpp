// Volumes that move again and again, to the end or not, while every operation goes on; DISKCACHE_SOAK=N moves them
// N times as often.
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <optional>
#include <random>
#include <thread>

#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcachePruner.h"
#include "support/config.h"
#include "tests/support/engineFixture.h"

namespace ObjectStore {
namespace {

namespace fs = std::filesystem;

constexpr size_t THREADS = 3;
constexpr size_t SEGMENTS = 20;  // of each thread
constexpr size_t FULL = 3000;    // bytes of a payload

// What the cache must hold of one segment: its regular copy and its override.
struct Copies {
  std::optional<std::string> regular, override;
  std::optional<std::string>& inUse() { return override ? override : regular; }
};

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
    DiskCacheContext own = ctx;
    const std::string text = std::string(FULL, static_cast<char>('a' + random() % 26));
    const std::vector<Section> whole{section(0, text)};
    Copies then = now;
    std::string expected = "success";
    CZuError error;
    const auto operation = static_cast<unsigned>(random() % 11);
    switch (operation) {
      case 0:
        if (now.inUse())
          expected = "EEXIST";
        else
          (text[0] % 2 == 0 ? then.override : then.regular) = text;
        error = cache->createSegment(own, guid, whole, false, text[0] % 2 == 0, false);
        break;
      case 1:
      case 2:
      case 3: {
        const auto force = static_cast<ForceDiskLoc>(operation - 1);
        if (force == ForceDiskLoc::NonPrunable && !then.override) then.override = then.regular;
        auto& place = force == ForceDiskLoc::Default       ? then.inUse()
                      : force == ForceDiskLoc::NonPrunable ? then.override
                                                           : then.regular;
        if (place)
          place = text;
        else
          expected = "ENOENT";
        error = cache->writeSections(own, guid, whole, false, force);
        break;
      }
      case 4:
        then.regular = text;
        error = cache->replaceSegment(own, guid, whole);
        break;
      case 5:
        if (then.inUse())
          then.inUse()->resize(FULL / 2);
        else
          expected = "ENOENT";
        error = cache->truncateSection(own, guid, 0, 0, FULL / 2);
        break;
      case 6:
      case 7:
        if (!then.override) {
          then.override = then.regular;
          if (operation == 7) then.regular.reset();
        }
        error = cache->markDirty(own, guid, operation == 7);
        break;
      case 8:
        if (then.override) then = {then.override, {}};
        error = cache->moveToPrunable(own, guid);
        break;
      default:
        then = {};
        error = cache->deleteSegment(own, guid, false, false, static_cast<Recycle>(operation - 9));
    }
    // An empty directory may go while a file is being put there.
    const bool hadNoPlace = outcome(error) == "ENOENT" && operation != 5;
    EXPECT_TRUE(outcome(error) == expected || hadNoPlace)
        << "operation " << operation << ": " << error.AsString();
    if (!error.IsError()) now = then;
    expectLeft(guid, now, operation);
    ++operations;
  }
  void expectLeft(const guid_t& guid, Copies& copies, unsigned operation) {
    EXPECT_EQ(get(guid), copies.inUse().value_or("[ENOENT]")) << guid << " after operation " << operation;
  }

  static inline std::promise<int> s_ended;
  EngineOptions options;
  std::atomic<size_t> operations{0};
};

TEST_F(MigrationStressTest, NoOperationIsLostAndNoMigrationFails) {
  const char* const factor = std::getenv("DISKCACHE_SOAK");
  const int migrations = 12 * (factor ? std::atoi(factor) : 1);
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
