// Truncating, syncing and deleting segments, and what is accounted of them.
#include "diskcache/diskcacheSpace.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

constexpr const char* GUID = "abcdef";

class TrimTest : public EngineTest {
 protected:
  void SetUp() override {
    start();
    ASSERT_EQ(outcome(create(GUID, {section(0, "first"), section(2, "second one", 3)})), "success");
    path = pathOf(GUID);
    override = nonPrunablePathOf(GUID);
    whole = readFile(path);
    whole.replace(32, 1, "\x9d").replace(48, 1, "\xff");  // 3 where 2 is, 5 behind: neither is the last
    log.clear();
  }
  std::string path, override, whole;  // the last is the segment's bytes: records at 136 and 157
};

TEST_F(TrimTest, TruncationSetsTheLengthOfTheLastSection) {
  const auto bytes = [&](uint64_t length, const std::string& payload) {
    const SectionDesc front{2, 9, length};
    return whole.substr(0, 157) + std::string(reinterpret_cast<const char*>(&front), sizeof(front)) + payload;
  };
  const std::string named = " [" + path + ']', all = "second one", cut = bytes(4, "seco");
  const std::string noHeader = "Error: invalid segment header for" + named;
  const std::string overHeader = std::string("\1\0\0\0\x9\0\0\0\4\0\0\0\0\0\0\0", 16) + whole.substr(16, 4);
  const struct {
    int32_t type;
    uint64_t size;
    const char* failing;
    std::string outcome, bytes;
    Texts failures = {};
  } cases[] = {
      {2, 4, "", "success", cut},
      {2, 14, "", "success", bytes(14, all + std::string(4, '\0'))},
      {0, 4, "", "EEXIST", whole, {"Error: 0 is not last section in" + named}},
      {1, 0, "", "success", whole},
      {1, 4, "", "success", overHeader, {"Error: zero length", "Error: can't append section to" + named}},
      {6, 4, "", "EINVAL", whole, {"Error: invalid section type (6)", "Error: can't find section" + named}},
      {2, ~0UL, "", "EINVAL", whole, {"Error: can't truncate" + named + " (22)"}},
      {2, 4, "open", "EIO", whole, {"Error: can't open file" + named + " (5)"}},
      {2, 4, "read", "EIO", whole, {"Error: can't read segment header, size=-1 (5)", noHeader}},
      {2, 4, "pwrite", "EIO", whole, {"Error: can't write to" + named + " (5)"}},
      {2, 4, "ftruncate", "EIO", whole, {"Error: can't truncate" + named + " (5)"}},
      {2, 4, "close", "success", cut},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.type << " to " << c.size << ' ' << c.failing);
    writeFile(path, whole);
    const size_t descriptors = openDescriptors();
    FaultPlan plan;
    if (*c.failing) plan.fail(c.failing, 1, EIO);
    EXPECT_EQ(outcome(cache->truncateSection(ctx, GUID, c.type, 9, c.size)), c.outcome);
    EXPECT_EQ(readFile(path), c.bytes);
    EXPECT_EQ(log.has(LogLevel::Segment, "empty section"), c.size == 0);
    EXPECT_EQ(log.has(LogLevel::Segment, "section 1.9 not found in" + named + ". Appending."),
              c.type == 1 && c.size > 0);
    EXPECT_EQ(log.takeTexts(LogLevel::Error), c.failures);
    EXPECT_EQ(openDescriptors(), descriptors + (c.outcome == "EEXIST")) << "only that one is left open";
    EXPECT_EQ(Access::openSegments(*cache), 0U);
  }
}

TEST_F(TrimTest, SyncingTellsOfTheCopyThatCounts) {
  ctx.useNonPrunableDir = true;
  const size_t descriptors = openDescriptors();
  // The copies, regular one first: '+' is there, '-' is not, '!' cannot be flushed, '#' nor closed.
  const std::pair<std::string, std::string> cases[] = {
      {"++", "success"}, {"+-", "success"}, {"+!", "success"}, {"-+", "success"},
      {"--", "ENOENT"},  {"-!", "EIO"},     {"!-", "EIO"},     {"#-", "ENOSPC"}};
  for (const auto& [copies, expected] : cases) {
    SCOPED_TRACE(copies);
    FaultPlan plan;
    for (size_t i = 0; i < 2; ++i) {
      const std::string& file = i == 0 ? path : override;
      fs::remove(file);
      if (copies[i] != '-') writeFile(file, whole);
      if (copies[i] == '!') plan.fail("fsync", copies[0] == '+' ? 2 : 1, EIO);
      if (copies[i] == '#') plan.fail("fsync", 1, EIO).fail("close", 1, ENOSPC);
    }
    log.clear();
    EXPECT_EQ(outcome(cache->syncSegment(ctx, GUID)), expected);
    EXPECT_EQ(log.has(LogLevel::Segment, "can't open file [" + path + "] (2)"), copies[0] == '-');
    EXPECT_EQ(log.has(LogLevel::Segment, "can't fsync file [" + path + "] (5)"), copies[0] == '!');
    EXPECT_EQ(openDescriptors(), descriptors);
  }
}

TEST_F(TrimTest, DeletionFollowsItsFlags) {
  const std::string recycled = volumes[0] + "/recycle/" + GUID;
  for (unsigned bits = 0; bits < 64; ++bits) {
    SCOPED_TRACE(bits);
    const auto bit = [&](unsigned n) { return (bits >> n & 1) != 0; };
    const bool nonPrun = bit(0), prun = bit(1), recycle = bit(2), regular = bit(3), overridden = bit(4);
    ctx.useNonPrunableDir = bit(5);
    for (const std::string& entry : {path, override, volumes[0] + "/recycle"}) fs::remove_all(entry);
    if (regular) writeFile(path, std::string(5000, 'r'));
    if (overridden) writeFile(override, std::string(100, 'o'));
    const bool takesRegular = regular && !nonPrun;
    const bool takesOverride = overridden && ctx.useNonPrunableDir && !prun;
    const uint64_t given = (takesRegular ? 8192U : 0U) + (takesOverride ? 4096U : 0U);  // whole blocks
    const uint64_t used = space().used(), segments = space().segments();
    EXPECT_EQ(outcome(cache->deleteSegment(ctx, GUID, nonPrun, prun, Recycle{recycle})), "success");
    EXPECT_EQ(fs::exists(path), regular && !takesRegular);
    EXPECT_EQ(fs::exists(override), overridden && !takesOverride);
    EXPECT_EQ(fs::exists(recycled), recycle && (takesRegular || takesOverride));
    EXPECT_EQ(used - space().used(), recycle ? 0 : given);
    EXPECT_EQ(segments - space().segments(), recycle ? 0U : unsigned{takesRegular} + takesOverride);
  }
}

}  // namespace
}  // namespace ObjectStore
