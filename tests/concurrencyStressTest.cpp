// Many threads on the same segments, while volumes and watermarks change and segments are given up;
// DISKCACHE_SOAK=N does N times as much.
#include <atomic>
#include <random>
#include <set>
#include <thread>

#include "tests/support/engineFixture.h"
#include "tests/support/segmentWork.h"
#include "tests/support/soak.h"

namespace ObjectStore {
namespace {

constexpr size_t THREADS = 4;

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
  static uint16_t letterOf(size_t id) { return static_cast<uint16_t>('a' + id); }  // all of a segment's bytes
  // What another thread's work may make of an operation is no fault.
  void performAsUsual(SegmentWork::Operation operation, const DiskCacheContext& own, size_t id) {
    static const std::set<std::string> usual{"success", "ENOENT", "EEXIST", "EIO", "error 0"};
    const CZuError error = SegmentWork{operation, letterOf(id)}.perform(*cache, own, guidOf(id));
    EXPECT_TRUE(usual.contains(outcome(error))) << "operation " << operation << ": " << error.AsString();
  }
  CZuError readRight(const DiskCacheContext& own, size_t id) {
    std::string buffer(2 * FULL, '\0');
    std::vector<Section> asked{section(0, buffer)};
    const CZuError error = cache->readSections(own, guidOf(id), asked, id % 2 == 0);
    if (error.IsError() || asked[0].status != 0) return error;
    ++m_reads;
    buffer.resize(asked[0].len);
    EXPECT_EQ(buffer, std::string(buffer.size(), static_cast<char>(letterOf(id)))) << guidOf(id);
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
        const auto operation =
            static_cast<SegmentWork::Operation>(random() % (SegmentWork::NUM_OPERATIONS + 1));
        const size_t id = random() % 24;
        if (operation < SegmentWork::NUM_OPERATIONS) performAsUsual(operation, own, id);
        if (operation == SegmentWork::NUM_OPERATIONS) (void)readRight(own, id);
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
  performAsUsual(SegmentWork::CREATE, ctx, 1);
  std::atomic<bool> stop = false;
  std::jthread mover([&, own = ctx]() mutable {
    for (size_t i = 0; !stop; ++i)
      performAsUsual(i % 2 == 0 ? SegmentWork::TO_PRUNABLE : SegmentWork::MOVE_DIRTY, own, 1);
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
