// Override copies, and the table of open segments.

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheSpace.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

using MoveTest = EngineTest;

constexpr const char* GUID = "abcdef";

TEST_F(MoveTest, AnOverrideIsMadeOnceAndGivenUp) {
  start();
  const Texts files = {pathOf(GUID), nonPrunablePathOf(GUID)};
  const std::string bare = "Input/output error (5)", pushed = "Error: can't copy override: ";
  const auto between = [&](const char* first, size_t from) {
    return std::string(first) + '[' + files[from] + "] to [" + files[1 - from] + ']';
  };
  const std::string noCopy = between("Error: Can't copy file [abcdef] from ", 0) + ": " + bare;
  const std::string noSize = "Error: can't get file size for [" + files[1] + "]: [" + bare + "]: " + bare;
  const std::string noDir = "Error: Can't create directory for segment creation: [" + volumes[0];
  enum { COPY, MOVE, BACK };
  const struct {
    int operation;
    // What the regular and the non-prunable file hold, '-' for no file; "!" in front: no second directory.
    std::string before, after;
    const char* call = "";
    std::string error = "success", line = {};
    int errNo = EIO;
  } cases[] = {
      {COPY, "r-", "rr"},
      {MOVE, "r-", "-r"},
      {BACK, "!-o", "-o"},
      {COPY, "r-", "r-", "rename", pushed + noCopy},
      {COPY, "r-", "r-", "mkdir", pushed + bare, noDir + "/noprune-ctx/ab/cd]"},
      {BACK, "ro", "ro", "mkdir", bare, noDir + "/ctx/ab/cd]"},
      {COPY, "r-", "rr", "stat", pushed + noSize},
      {MOVE, "r-", "r-", "rename", pushed + bare, between("Error: can't rename ", 0)},
      {MOVE, "r-", "-r", "rename", "success", "", EXDEV},  // the sides are on two file systems
      {BACK, "ro", "o-", "unlink"},                        // the rename replaces it all the same
      {BACK, "ro", "-o", "rename", bare, between("Error: can't rename ", 1)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.operation << " of " << c.before << ' ' << c.call);
    ctx.useNonPrunableDir = c.before[0] != '!';
    for (size_t i = 0; i < 2; ++i) {
      fs::remove(files[i]);
      const std::string text = c.before.substr(c.before.size() - 2 + i, 1);
      if (text != "-") writeFile(files[i], text);
    }
    const uint64_t used = space().used(), segments = space().segments();
    log.clear();
    FaultPlan plan;
    if (*c.call) plan.fail(c.call, 1, c.errNo);
    const bool back = c.operation == BACK, move = c.operation == MOVE;
    const CZuError error = back ? cache->moveToPrunable(ctx, GUID) : cache->markDirty(ctx, GUID, move);
    EXPECT_EQ(error.AsString(), c.error);
    std::string after;
    for (const std::string& file : files) after += fs::exists(file) ? readFile(file) : "-";
    EXPECT_EQ(after, c.after);
    EXPECT_EQ(space().segments(), segments);
    EXPECT_EQ(space().used() - used, after == "rr" && c.error == "success" ? 1U : 0U);
    EXPECT_TRUE(c.line.empty() || log.has(LogLevel::Error, c.line));
    EXPECT_EQ(cache->getOverriddenSegment(ctx, GUID), files[ctx.useNonPrunableDir && after[1] != '-']);
  }
}

TEST_F(MoveTest, DescriptorsGoRound) {
  start();
  for (const unsigned expected : {1U, 2U, 3U}) EXPECT_EQ(cache->openSegment("a"), expected);
  cache->closeSegment(1U);
  EXPECT_TRUE(cache->IsSegmentOpened("a") && !cache->IsSegmentOpened("none"));
  EXPECT_EQ(cache->openSegment("b"), 4U) << "a number is not used again at once";
  EXPECT_TRUE(log.has(LogLevel::Segment, "opened disk segment 1"));
  Access::setNextHandle(*cache, 0xFFFFFFFE);
  for (const unsigned expected : {0xFFFFFFFEU, 1U, 5U}) EXPECT_EQ(cache->openSegment("c"), expected);
  log.clear();
  for (const unsigned closed : {0U, 0xFFFFFFFEU, 1U, 2U, 3U, 4U, 5U, 5U}) cache->closeSegment(closed);
  EXPECT_EQ(log.takeTexts(),
            (Texts{"-1 Error: Can't find descriptor 0", "-1 Error: Can't find descriptor 5"}));
  EXPECT_EQ(Access::openSegments(*cache), 0U);
  EXPECT_FALSE(cache->IsSegmentOpened("a"));
}

TEST_F(MoveTest, AChangeNeedsTheNameOfTheNonPrunableDirectory) {
  start();
  ctx.useNonPrunableDir = true;
  ctx.nonprunableDir.clear();
  Texts refused;
  FaultPlan plan;
  for (const auto& [name, touches, run] : operationsOn("abcd")) {
    list().clearLru(), log.clear(), plan.takeTrace();
    if (outcome(run()) != "EINVAL" || !log.has(LogLevel::Error, "Error: nonprunableDir not set")) continue;
    if (plan.trace().empty() && !list().isInLru("abcd", false)) refused.push_back(name);
  }
  EXPECT_EQ(refused, (Texts{"writeSections", "truncateSection", "markDirty", "moveToPrunable",
                            "deleteSegment, recycling", "deleteSegment"}));
  EXPECT_TRUE(!cache->createSegment(ctx, "new1", {}, false, true, false).IsError() && isCached("new1"));
}

}  // namespace
}  // namespace ObjectStore
