// Section records: changing them in place, finding the last one, room for new ones, and what is accounted.
#include <sys/stat.h>

#include <functional>
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
  // sub-type, offset; result, payload up to the stored length, file size
  const std::tuple<int32_t, uint64_t, std::string, std::string, size_t> cases[] = {
      {7, 2, "success", "01abcd6789", 162},
      {7, 8, "success", "01234567abcd", 164},
      {8, 8, "EINVAL", "01234567ab", 164}};
  start();
  for (const auto& [subType, offset, expected, payload, size] : cases) {
    ASSERT_EQ(outcome(create("abcd", {section(0, "0123456789", 7)})), "success");
    log.clear();
    EXPECT_EQ(write("abcd", subType, offset), expected);
    EXPECT_EQ(log.has(LogLevel::Error, "Error: writing different section 0/8->07"), expected == "EINVAL");
    EXPECT_EQ(get("abcd"), payload);
    EXPECT_EQ(bytesOf("abcd").size(), size);
    (void)cache->deleteSegment(ctx, "abcd", false, false, Recycle::No);
  }
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
    for (const VolIndex volume : {VolIndex{1}, VolIndex{7}}) {  // the second is none
      const Section tooLong = section(0, "abc");
      EXPECT_EQ(outcome(Access::records(*cache).appendSection(-1, volume, tooLong)), "ENOSPC");
    }
    EXPECT_TRUE(log.has(LogLevel::NoSpace, "Error: out of space"));
    const size_t seconds = mode == PruningMode::Random ? 2 : 0;
    EXPECT_EQ(plan.sleeps(), std::vector<std::chrono::nanoseconds>(seconds, std::chrono::seconds(1)));
    EXPECT_EQ(Access::space(*cache).stats().errOutOfSpace.value(), 2U);
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

// How often each operation starts and stops each counter, on a segment of types 3 and 0, then 1 as well.
TEST_F(FormatTest, OperationsTimeTheirCallsUnderTheCountersTheyAreKnownBy) {
  const std::string text = "0123456789";
  std::vector<Section> one{section(0, text)};
  const std::vector<Section> two{section(3, text), section(0, text)}, other{section(1, text)};
  std::vector<SectionV> all;
  std::vector<unsigned char> data;
  uint64_t size = 0;
  const std::pair<std::function<CZuError()>, const char*> cases[] = {
      {[&] { return cache->createSegment(ctx, "abcd", two, true, false, false); },
       "Sync 1 DiskWrite 7 Open 1 Seek 2 Close 1 "},
      {[&] { return cache->writeSections(ctx, "abcd", one, false, ForceDiskLoc::Default); },
       "diskWrite 1 DiskRead 2 DiskWrite 2 Open 1 Close 1 "},
      {[&] { return cache->writeSections(ctx, "abcd", other, true, ForceDiskLoc::Default); },
       "diskWrite 1 Sync 1 DiskRead 1 DiskWrite 3 Open 1 Seek 1 Close 1 "},
      {[&] { return cache->readSections(ctx, "abcd", one, true); }, "diskRead 1 DiskRead 3 Open 1 "},
      {[&] { return cache->readAllSections(ctx, "abcd", all); },  // the header's read counts as a write
       "diskRead 1 DiskRead 6 DiskWrite 1 Open 1 Seek 3 "},
      {[&] { return cache->readCompleteSection(ctx, "abcd", 0, data); }, "diskRead 1 DiskRead 3 Open 1 "},
      {[&] { return cache->getSectionSize(size, ctx, "abcd", 0, 0); }, "DiskRead 2 Open 1 "},
      {[&] { return cache->doesSegmentExist(ctx, "abcd") ? CZuError() : CZuError(); }, ""},
      {[&] { return cache->truncateSection(ctx, "abcd", 1, 0, 4); },  // reads the front that it may put back
       "DiskRead 2 DiskWrite 2 Open 1 Close 1 "},
      {[&] { return cache->syncSegment(ctx, "abcd"); }, "Sync 1 Open 1 Close 1 "},
      {[&] { return cache->replaceSegment(ctx, "abcd", one); }, "DiskWrite 4 Open 1 Seek 1 Close 1 "},
      {[&] { return cache->deleteSegment(ctx, "abcd", false, false, Recycle::No); }, "Fstat 1 "}};
  start();
  for (const auto& [call, timed] : cases) {
    ThrdPerfCounter counter;
    counter.enable(true);
    g_object_store_counter = &counter;
    g_object_store_enable_perf = true;
    EXPECT_EQ(outcome(call()), "success") << timed;
    g_object_store_enable_perf = false;
    g_object_store_counter = nullptr;
    std::string seen;
    for (const auto& row : counter.table())
      seen +=
          row.name.substr(row.name.starts_with("DiskCache") ? 9 : 0) + ' ' + std::to_string(row.count) + ' ';
    EXPECT_EQ(seen, timed);
  }
}

// Both forms of a header's writer write the same bytes, and tell when they cannot.
TEST_F(FormatTest, TheHeaderIsWrittenAlikeToAStream) {
  start();
  const std::string path = dir / "header";
  std::FILE* stream = std::fopen(path.c_str(), "wb");
  ASSERT_TRUE(stream);
  EXPECT_EQ(outcome(writeSegmentHeader(stream)), "success");
  std::fclose(stream);
  EXPECT_EQ(readFile(path), std::string("\xdc\xdc\x01\0", 4) + std::string(132, '\0'));
  EXPECT_EQ(outcome(create("empty", {})), "success");
  EXPECT_EQ(bytesOf("empty"), readFile(path));
  stream = std::fopen(path.c_str(), "rb");
  ASSERT_TRUE(stream);
  EXPECT_EQ(outcome(writeSegmentHeader(stream)), "EBADF");
  std::fclose(stream);
  EXPECT_EQ(log.takeTexts(LogLevel::Error), std::vector<std::string>{"Error: Can't write header (9)"});
  EXPECT_TRUE(cache->checkAccess(ctx, "empty", 0, nullptr) && cache->checkAccess(ctx, "none", ~0U, nullptr));
  EXPECT_EQ(outcome(cache->setSparseFileAttribute(ctx, "none")), "success");
}

}  // namespace
}  // namespace ObjectStore
