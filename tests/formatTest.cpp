// Section records: changing them in place, finding the last one, room for new ones, and what is accounted.
#include <sys/stat.h>

#include <future>
#include <tuple>

#include "diskcache/diskcacheSpace.h"
#include "diskcache/segmentRecords.h"
#include "support/perfCounters.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

class FormatTest : public EngineTest {
 protected:
  std::string write(const std::string& text, int32_t subType, uint64_t offset) {
    return outcome(
        cache->writeSections(ctx, "abcd", {section(0, text, subType, offset)}, false, ForceDiskLoc::Default));
  }
};

TEST_F(FormatTest, ModifyingKeepsTheLengthOrExtendsAndRefusesAnotherSubType) {
  // the call that fails and which of them, sub-type, offset; result, payload up to the stored length, file size
  const std::tuple<std::string, size_t, int32_t, uint64_t, std::string, std::string, size_t> cases[] = {
      {"", 0, 7, 2, "success", "01abcd6789", 162},  {"", 0, 7, 8, "success", "01234567abcd", 164},
      {"", 0, 8, 8, "EINVAL", "01234567ab", 164},   {"pwrite", 1, 7, 2, "EIO", "0123456789", 162},
      {"pread", 1, 7, 2, "EIO", "01abcd6789", 162}, {"pwrite", 2, 7, 8, "EIO", "01234567ab", 164}};
  start();
  for (const auto& [failing, nth, subType, offset, expected, payload, size] : cases) {
    SCOPED_TRACE(failing + ' ' + expected + ' ' + payload);
    ASSERT_EQ(outcome(create("abcd", {section(0, "0123456789", 7)})), "success");
    log.clear();
    {
      FaultPlan plan;
      if (nth != 0) plan.fail(failing, nth, EIO);
      EXPECT_EQ(write("abcd", subType, offset), expected);
    }
    EXPECT_EQ(log.has(LogLevel::Error, "Error: writing different section 0/8->07"), expected == "EINVAL");
    EXPECT_EQ(get("abcd"), payload);
    EXPECT_EQ(bytesOf("abcd").size(), size);
    (void)cache->deleteSegment(ctx, "abcd", false, false, Recycle::No);
  }
}

TEST_F(FormatTest, PayloadIsOverwrittenWithoutTheSegmentsLock) {
  start();
  put("abcd", "0123456789");
  ThrdPerfCounter counter;  // logs, and so can be held, right behind the data write
  counter.enable(true);
  counter.logEachStop(true);
  g_object_store_counter = &counter;
  g_object_store_enable_perf = true;
  HoldAtLine hold(log, "DiskCacheDiskWrite");
  auto written = std::async(std::launch::async, [this] { return write("abcd", 0, 2); });
  ASSERT_TRUE(hold.reached());
  SegmentHandle handle;
  EXPECT_EQ(outcome(cache->openSegment(handle, "abcd")), "success");
  OpenSegmentInfo& segment = *cache->segInfoFromHandle(handle);
  segment.lock.enter(true);  // for good, if it were not given up
  hold.release();
  EXPECT_EQ(written.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  segment.lock.leave();
  EXPECT_EQ(written.get(), "success");
  cache->closeSegment(handle);
  g_object_store_enable_perf = false;
  g_object_store_counter = nullptr;
  EXPECT_EQ(get("abcd"), "01abcd6789");
}

TEST_F(FormatTest, TheLastSectionIsTheFurthestOfTypesZeroToFour) {
  const std::tuple<std::array<uint64_t, 6>, int, uint64_t> cases[] = {{{}, -1, 0},
                                                                      {{136, 0, 200, 180, 0, 900}, 2, 200},
                                                                      {{0, 136, 136, 0, 0, 0}, 1, 136},
                                                                      {{0, 0, 0, 0, 0, 136}, -1, 0}};
  for (const auto& [offsets, expectedType, expectedAt] : cases) {
    SegmentHeader header;
    header.sectionOffset = offsets;
    int type = 77;
    uint64_t at = 77;
    (void)findLastSection(&type, &at, header);
    EXPECT_EQ(std::pair(type, at), std::pair(expectedType, expectedAt));
  }
}

TEST_F(FormatTest, OnlyModeRandomWaitsOneSecondForRoom) {
  for (const PruningMode mode : {PruningMode::Random, PruningMode::Lru}) {
    EngineOptions options;
    options.mode = mode;
    start(options);
    // Not enabled: the pruner that is woken must not measure the volume anew.
    Access::changeVolume(*cache, 1, [](Volume& volume) { volume.allow = false, volume.free = 2; });
    FaultPlan plan;
    plan.skipSleeps();
    EXPECT_EQ(outcome(Access::records(*cache).appendSection(-1, VolIndex{1}, section(0, "abc"))), "ENOSPC");
    EXPECT_TRUE(log.has(LogLevel::NoSpace, "Error: out of space"));
    const size_t seconds = mode == PruningMode::Random ? 1 : 0;
    EXPECT_EQ(plan.sleeps(), std::vector<std::chrono::nanoseconds>(seconds, std::chrono::seconds(1)));
    EXPECT_EQ(Access::space(*cache).stats().errOutOfSpace.value(), 1U);
  }
}

TEST_F(FormatTest, AllocatedBytesAreAccounted) {
  start();
  const auto allocated = [this] {
    struct stat status {};
    return stat(pathOf("abcd").c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_blocks) * 512 : 0;
  };
  const uint64_t before = Access::space(*cache).used();
  put("abcd", std::string(5'000, 'a'));
  EXPECT_EQ(Access::space(*cache).used() - before, allocated());
  EXPECT_EQ(write(std::string(90'000, 'b'), 0, 0), "success");
  EXPECT_EQ(Access::space(*cache).used() - before, allocated());
  EXPECT_EQ(Access::space(*cache).segments(), 1U);
  cache->setOutOfSpace(true);
  log.clear();
  EXPECT_EQ(outcome(create("abce", {})), "ENOSPC");
  EXPECT_TRUE(log.has(LogLevel::Segment, "simulating out of space"));
  EXPECT_EQ(Access::space(*cache).used() - before, allocated());
}

}  // namespace
}  // namespace ObjectStore
