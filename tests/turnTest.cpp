// Who waits for whom at one segment: writers in place, and all who must not see half of their bytes.
#include <algorithm>
#include <future>
#include <thread>

#include "diskcache/diskcacheOpen.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

constexpr const char* GUID = "abcdef";

class TurnTest : public EngineTest {
 protected:
  void SetUp() override {
    start();
    ctx.useNonPrunableDir = true;
    writeFile(volumes[0] + "/spare/x", "");  // the fourth directory: a migration leaves none behind
    put(GUID, "0123456789");
  }
  std::string write(const Section& one, ForceDiskLoc force = ForceDiskLoc::Default) {
    return outcome(EngineTest::write(GUID, {one}, force));
  }
  // Whether so many wait at the segment. Asked under its lock, which nobody who waits may hold.
  bool areWaiting(size_t count) {
    AutoOpenSegment open(Access::openTable(*cache), GUID);
    OpenSegmentInfo& segment = *open.getSegInfo();
    for (const auto end = std::chrono::steady_clock::now() + LONGEST_WAIT;;) {
      const KxCriticalSectionLock lock(&segment.lock);
      if (segment.gate.waiting() == count) return true;
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
  }

  const std::string text = "text";
};

TEST_F(TurnTest, WhoWaitsComesBeforeThoseWhoComeLaterAndKeepsItsEntriesOfTheLock) {
  const struct {
    std::string name, call;  // the latter shows that its work is done, all before the last writer's
    std::function<std::string()> perform;
  } cases[] = {
      {"dirty", "rename", [&] { return outcome(cache->markDirty(ctx, GUID, false)); }},
      {"prunable", "rename", [&] { return outcome(cache->moveToPrunable(ctx, GUID)); }},
      {"truncated", "ftruncate", [&] { return outcome(cache->truncateSection(ctx, GUID, 0, 0, 12)); }},
      {"forced", "rename", [&] { return write(section(0, text), ForceDiskLoc::NonPrunable); }},
      {"appended", "lseek", [&] { return write(section(1, text)); }},
      {"migrated", "", [&] { return outcome(cache->migrate(1, volumes[0], dir / "new")); }},
  };
  for (const auto& [name, call, perform] : cases) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(name != "forced" || outcome(cache->moveToPrunable(ctx, GUID)) == "success");
    FaultPlan plan;
    plan.hold("pwrite", 1);
    auto first = std::async(std::launch::async, [this] { return write(section(0, "ab", 0, 0)); });
    EXPECT_TRUE(plan.held());
    auto waiting =
        std::async(std::launch::async,
                   [&, &work = perform, isLocked = name != "migrated"]() DC_NO_THREAD_SAFETY_ANALYSIS {
                     if (!isLocked) return work();  // not to be called with a segment's lock held
                     AutoOpenSegment open(Access::openTable(*cache), GUID);
                     KxCriticalSection& lock = open.getSegInfo()->lock;
                     const KxCriticalSectionLock once(&lock), twice(&lock);
                     return work();
                   });
    EXPECT_TRUE(areWaiting(1));
    EXPECT_LE(plan.count("opendir"), 1U) << "a migration lists its directories again after the wait";
    auto later = std::async(std::launch::async, [this] { return write(section(0, "cd", 0, 4)); });
    EXPECT_TRUE(areWaiting(2));
    plan.takeTrace();
    plan.release();
    for (auto* done : {&first, &waiting, &later}) EXPECT_EQ(done->get(), "success");
    const std::vector<std::string> calls = plan.trace();
    const auto checked = std::find(calls.rbegin(), calls.rend(), "pread");  // the last writer's, of the front
    EXPECT_TRUE(call.empty() || std::find(checked, calls.rend(), call) != calls.rend());
    EXPECT_TRUE(areWaiting(0));
  }
  EXPECT_EQ(get(GUID, 1), text);
}

// Neither deleting a segment nor making it again waits for a turn.
TEST_F(TurnTest, WhoAppendsLooksAtTheSegmentAnewAfterItsWait) {
  FaultPlan plan;
  plan.hold("pwrite", 1);
  auto extending = std::async(std::launch::async, [this] { return write(section(0, text, 0, 10)); });
  EXPECT_TRUE(plan.held());
  auto appending = std::async(std::launch::async, [this] { return write(section(1, text)); });
  EXPECT_TRUE(areWaiting(1));
  EXPECT_EQ(outcome(remove(GUID)), "success");
  put(GUID, "another");
  plan.release();
  EXPECT_EQ(extending.get() + appending.get(), "successsuccess");
  EXPECT_EQ(get(GUID) + ' ' + get(GUID, 1), "another text");
}

}  // namespace
}  // namespace ObjectStore
