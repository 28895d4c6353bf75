// Many threads on the same segments, while volumes, watermarks, the pruner and a migration go their way;
// DISKCACHE_SOAK=N does N times as much.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <future>
#include <random>
#include <set>
#include <thread>

#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcachePruner.h"
#include "diskcache/diskcacheSpace.h"
#include "support/config.h"
#include "tests/support/engineFixture.h"
#include "tests/support/smallFileSystem.h"
#include "tests/support/soak.h"

namespace ObjectStore {
namespace {

constexpr size_t THREADS = 4;
constexpr size_t FULL = 3000;  // bytes of a payload; a truncated one has half of them

// Five bits of each byte tell the segment and the position, three who wrote it.
std::string written(size_t id, size_t writer) {
  std::string text(FULL, '\0');
  for (size_t i = 0; i < FULL; ++i)
    text[i] = static_cast<char>((id * 31 + i * 7 + i / 251) << 3 | (writer & 7));
  return text;
}

enum Operation { CREATE, REPLACE, TRUNCATE, WRITE_HALF, READ, DELETE, TO_PRUNABLE, MARK_DIRTY };

class ConcurrencyStressTest : public EngineTest {
 protected:
  void SetUp() override {
    log.setLevel(LogLevel::Error - 1);
    options.prunerCallback = [this](auto&, const std::string& path, const std::string& guid) {
      DiskCacheContext own = ctx;
      if (volumes.size() == 2) own.volume = path.starts_with(volumes[1]) ? 2 : 1;
      const std::string told = outcome(cache->deleteSegment(own, guid, false, true, Recycle::No));
      return told == "success" || told == "ENOENT";  // another thread was faster
    };
  }
  void TearDown() override {
    EXPECT_EQ(Access::openSegments(*cache), 0U);
    cache.reset();
    ConfigStore::clear();
    EXPECT_LE(openDescriptors(), m_descriptors);
  }
  static guid_t guidOf(size_t id) { return std::to_string(1000000 + id * 7919 % 1000000); }
  // Runs `work(number, context and random numbers of its own)` in four threads beside `beside`.
  template <typename Work, typename Beside>
  void run(Work work, Beside beside) {
    std::vector<std::jthread> threads;
    for (unsigned t = 0; t < THREADS; ++t)
      threads.emplace_back([=, own = ctx, rng = std::minstd_rand(t + 1)]() mutable { work(t, own, rng); });
    beside();
  }
  CZuError perform(Operation operation, DiskCacheContext& own, size_t id, size_t i) {
    const guid_t guid = guidOf(id);
    const std::string text = written(id, i), second = text.substr(FULL / 2);
    const std::vector<Section> whole{section(0, text)}, half{section(0, second, 0, FULL / 2)};
    const auto force = static_cast<ForceDiskLoc>(own.useNonPrunableDir ? i % 3 : 0);
    switch (operation) {
      case CREATE: return cache->createSegment(own, guid, whole, false, i % 2 == 0, false);
      case REPLACE: return cache->replaceSegment(own, guid, whole);
      case WRITE_HALF: return cache->writeSections(own, guid, half, i % 16 == 0, force);
      case TRUNCATE: return cache->truncateSection(own, guid, 0, 0, FULL / 2);
      case READ: return readRight(own, id);
      case DELETE: return cache->deleteSegment(own, guid, false, false, static_cast<Recycle>(i % 2));
      case TO_PRUNABLE: return cache->moveToPrunable(own, guid);
      default: return cache->markDirty(own, guid, i % 2 == 0);
    }
  }
  // With what another thread's work may make of an operation; anything else is a fault.
  void performAsUsual(Operation operation, DiskCacheContext& own, size_t id, size_t i) {
    static const std::set<std::string> usual{"success", "ENOENT", "EEXIST", "EIO", "error 0"};
    const CZuError error = perform(operation, own, id, i);
    EXPECT_TRUE(usual.contains(outcome(error))) << "operation " << operation << ": " << error.AsString();
  }
  CZuError readRight(const DiskCacheContext& own, size_t id) {
    std::string buffer(2 * FULL, '\0');
    std::vector<Section> asked{section(0, buffer)};
    const CZuError error = cache->readSections(own, guidOf(id), asked, id % 2 == 0);
    if (error.IsError() || asked[0].status != 0) return error;
    ++m_reads;
    buffer.resize(asked[0].len);
    for (char& byte : buffer) byte = static_cast<char>(byte & ~7);
    EXPECT_TRUE(written(id, 0).starts_with(buffer)) << "wrong byte in " << guidOf(id);
    return error;
  }

  bool isDirty(size_t id, VolIndex volume) {
    return std::filesystem::exists(cache->guid2path(guidOf(id), volume, ctx.nonprunableDir));
  }

  std::atomic<size_t> m_reads{0};
  size_t m_descriptors = openDescriptors();
  EngineOptions options;
};

TEST_F(ConcurrencyStressTest, EverySegmentOperationOnTheSameIdentifiers) {
  options.volumes = 3;
  options.maxLruEntries = 16;  // segments are given up all the time
  ctx.volume = 1;              // the pruner's
  start(options);
  const size_t operations = soaked(4000);
  std::atomic<size_t> working{THREADS};
  const auto client = [&](size_t, DiskCacheContext& own, auto& random) {
    for (size_t i = 0; i < operations; ++i) {
      own.volume = static_cast<VolIndex>(1 + random() % 3);
      own.useNonPrunableDir = random() % 2 == 0;
      own.moveOnWrite = random() % 2 == 0;
      performAsUsual(static_cast<Operation>(random() % (MARK_DIRTY + 1)), own, random() % 24, i);
    }
    --working;
  };
  run(client, [&] {
    std::map<std::string, std::string> status;
    for (int i = 0; working > 0; ++i) {
      EXPECT_EQ(cache->addVolume(volumes[2]), 0);
      EXPECT_EQ(cache->disableNewSegments(volumes[1]), 0);
      cache->getStatus(status);
      EXPECT_EQ(cache->enableNewSegments(volumes[1]), 0);
      (void)cache->updateWatermarks(1000 + i % 3, 1000, 1000);
      EXPECT_EQ(cache->refreshCacheUtilizationData(), 0);
      EXPECT_EQ(cache->removeVolume(volumes[2]), 0);
    }
  });
  EXPECT_GT(m_reads, operations / 20);
}

// A segment that is always there, though now in one place and now in the other, is never a miss.
TEST_F(ConcurrencyStressTest, ReadersFindASegmentThatMovesToAndFro) {
  ctx.useNonPrunableDir = true;
  start(options);
  performAsUsual(CREATE, ctx, 1, 1);
  std::atomic<bool> stop = false;
  std::jthread mover([&, own = ctx]() mutable {
    for (size_t i = 0; !stop; ++i) performAsUsual(i % 2 == 0 ? TO_PRUNABLE : MARK_DIRTY, own, 1, 0);
  });
  const size_t reads = soaked(20'000);
  size_t misses = 0;
  for (size_t i = 0; i < reads; ++i) {
    std::vector<unsigned char> data;
    std::vector<SectionV> all;
    uint64_t size = 0;
    switch (i % 5) {
      case 0: misses += readRight(ctx, 1).IsError(); break;
      case 1: misses += cache->readCompleteSection(ctx, guidOf(1), 0, data).IsError(); break;
      case 2: misses += cache->readAllSections(ctx, guidOf(1), all).IsError(); break;
      case 3: misses += cache->getSectionSize(size, ctx, guidOf(1), 0, 0).IsError(); break;
      default: misses += !cache->doesSegmentExist(ctx, guidOf(1));
    }
  }
  stop = true;
  EXPECT_EQ(misses, 0U) << "of " << reads;
}

TEST_F(ConcurrencyStressTest, ALivePrunerAndAMigrationInTheMiddle) {
  const SmallFileSystem disk(static_cast<unsigned>(soaked(128)));
  static std::promise<int> ended;
  options.volumesIn = disk.available() ? disk.path() : dir.path();
  options.volumes = 2;
  options.mode = PruningMode::Random;
  options.maxLruEntries = 50;
  options.migrationCallback = [](int error, auto&, auto&) { ended.set_value(error); };
  ctx.useNonPrunableDir = true;
  start(options);
  // With "recycle" four directories, so that all are copied; none may ever be empty. Volume 1 moves.
  for (const char* top : {"/ctx", "/noprune-ctx", "/spare"}) writeFile(volumes[0] + top + "/pinned", "");
  const unsigned pin = cache->openSegment("pinned");
  const uint64_t low = Access::space(*cache).used() + soaked(10 << 20);
  ConfigStore::set(CONFIG_SECTION, "DiskCacheLowWMBytes", std::to_string(low));
  ConfigStore::set(CONFIG_SECTION, "DiskCacheHighWMBytes", std::to_string(low + soaked(2 << 20)));

  const size_t each = soaked(2500);
  std::vector<std::atomic<VolIndex>> volumeOf(each * THREADS);
  std::set<size_t> dirty[THREADS];  // segments whose override copy is there and was not given up since
  std::atomic<size_t> halfway{0};
  const auto client = [&](size_t thread, DiskCacheContext& own, auto& random) {
    for (size_t i = 0; i < each; ++i) {
      halfway += i == each / 2;
      const size_t fresh = i * THREADS + thread;
      performAsUsual(CREATE, own, fresh, i);
      volumeOf[fresh] = own.volume;
      // Each thread changes only what it has made, as often a recent segment, not yet pruned, as any.
      const size_t id = fresh - random() % std::min<size_t>(i + 1, i % 2 == 0 ? i + 1 : 10) * THREADS;
      const auto operation = static_cast<Operation>(WRITE_HALF + random() % 5);
      if (operation == DELETE || operation == TO_PRUNABLE) dirty[thread].erase(id);
      const size_t target = operation == READ ? random() % (fresh + 1) : id;
      own.volume = volumeOf[target];
      performAsUsual(operation, own, target, i);
      if (isDirty(id, volumeOf[id])) dirty[thread].insert(id);
    }
  };
  run(client, [&] {
    while (halfway == 0) std::this_thread::yield();
    for (int result = ENOENT; result == ENOENT;) {  // what is deleted while it is copied may fail a run
      ended = {};
      std::future<int> end = ended.get_future();
      ASSERT_EQ(cache->migrate(1, volumes[0], options.volumesIn + "/new"), 0);
      ASSERT_EQ(end.wait_for(2 * LONGEST_WAIT), std::future_status::ready);
      result = end.get();
      EXPECT_TRUE(result == 0 || result == ENOENT) << outcome(result);
      if (result != 0) m_descriptors += 3;   // a worker that is stopped leaves its directory open
      Access::migrator(*cache).terminate();  // joins its threads
    }
  });
  cache->closeSegment(pin);
  Access::pruner(*cache).shutdown();
  EXPECT_GT(Access::space(*cache).stats().numPruned.value(), 0U);
  for (const std::set<size_t>& kept : dirty) {
    EXPECT_GT(kept.size(), each / 20);
    for (const size_t id : kept) {
      ctx.volume = volumeOf[id];
      EXPECT_TRUE(isDirty(id, ctx.volume)) << guidOf(id);
      EXPECT_EQ(outcome(readRight(ctx, id)), "success");
    }
  }
}

}  // namespace
}  // namespace ObjectStore
