// Many threads on the same segments, while volumes and watermarks change and segments are given up;
// DISKCACHE_SOAK=N does N times as much.
#include <atomic>
#include <random>
#include <set>
#include <thread>

#include "tests/support/engineFixture.h"
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
    options.prunerCallback = [this](auto&, auto&, const std::string& guid) {
      const std::string told = outcome(cache->deleteSegment(ctx, guid, false, true, Recycle::No));
      return told == "success" || told == "ENOENT";  // another thread was faster
    };
  }
  void TearDown() override {
    EXPECT_EQ(Access::openSegments(*cache), 0U);
    cache.reset();
    EXPECT_LE(openDescriptors(), m_descriptors);
  }
  static guid_t guidOf(size_t id) { return std::to_string(1000000 + id * 7919 % 1000000); }
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

  std::atomic<size_t> m_reads{0};
  const size_t m_descriptors = openDescriptors();
};

TEST_F(ConcurrencyStressTest, EverySegmentOperationOnTheSameIdentifiers) {
  options.volumes = 3;
  options.maxLruEntries = 16;  // segments are given up all the time
  ctx.volume = 1;              // the pruner's
  start();
  const size_t operations = soaked(4000);
  std::atomic<size_t> working{THREADS};
  std::vector<std::jthread> clients;
  for (unsigned t = 0; t < THREADS; ++t) {
    clients.emplace_back([&, own = ctx, random = std::minstd_rand(t + 1)]() mutable {
      for (size_t i = 0; i < operations; ++i) {
        own.volume = static_cast<VolIndex>(1 + random() % 3);
        own.useNonPrunableDir = random() % 2 == 0;
        own.moveOnWrite = random() % 2 == 0;
        performAsUsual(static_cast<Operation>(random() % (MARK_DIRTY + 1)), own, random() % 24, i);
      }
      --working;
    });
  }
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
  clients.clear();
  EXPECT_GT(m_reads, operations / 20);
}

// A segment that is always there, though now in one place and now in the other, is never a miss.
TEST_F(ConcurrencyStressTest, ReadersFindASegmentThatMovesToAndFro) {
  ctx.useNonPrunableDir = true;
  start();
  performAsUsual(CREATE, ctx, 1, 1);
  std::atomic<bool> stop = false;
  std::jthread mover([&, own = ctx]() mutable {
    for (size_t i = 0; !stop; ++i) performAsUsual(i % 2 == 0 ? TO_PRUNABLE : MARK_DIRTY, own, 1, 0);
  });
  std::vector<SegmentOperation> readers = operationsOn(guidOf(1));
  readers.resize(5);
  const size_t reads = soaked(10'000);
  size_t misses = 0;
  for (size_t i = 0; i < reads; ++i) {
    misses += readRight(ctx, 1).IsError();
    misses += !cache->doesSegmentExist(ctx, guidOf(1));
    misses += readers[i % readers.size()].run().IsError();
  }
  stop = true;
  EXPECT_EQ(misses, 0U) << "of " << reads;
}

}  // namespace
}  // namespace ObjectStore
