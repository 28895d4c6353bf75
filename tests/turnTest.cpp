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
enum Waiter { TO_DIRTY, TO_PRUNABLE, TRUNCATE, FORCED, APPEND, MIGRATE };

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
  std::string perform(int waiter) {
    switch (waiter) {
      case TO_DIRTY: return outcome(cache->markDirty(ctx, GUID, false));
      case TO_PRUNABLE: return outcome(cache->moveToPrunable(ctx, GUID));
      case TRUNCATE: return outcome(cache->truncateSection(ctx, GUID, 0, 0, 12));
      case FORCED: return write(section(0, text), ForceDiskLoc::NonPrunable);
      case APPEND: return write(section(1, text));
      default: return outcome(cache->migrate(1, volumes[0], dir / "new"));
    }
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
  // The call that shows that its work is done, all before the last writer's.
  const std::pair<int, std::string> cases[] = {{TO_DIRTY, "rename"},    {TO_PRUNABLE, "rename"},
                                               {TRUNCATE, "ftruncate"}, {FORCED, "rename"},
                                               {APPEND, "lseek"},       {MIGRATE, ""}};
  for (const auto& [waiter, call] : cases) {
    SCOPED_TRACE(waiter);
    EXPECT_TRUE(waiter != FORCED || outcome(cache->moveToPrunable(ctx, GUID)) == "success");
    FaultPlan plan;
    plan.hold("pwrite", 1);
    auto first = std::async(std::launch::async, [this] { return write(section(0, "ab", 0, 0)); });
    EXPECT_TRUE(plan.held());
    auto waiting = std::async(std::launch::async, [this, waiter = waiter]() DC_NO_THREAD_SAFETY_ANALYSIS {
      if (waiter == MIGRATE) return perform(waiter);  // not to be called with a segment's lock held
      AutoOpenSegment open(Access::openTable(*cache), GUID);
      KxCriticalSection& lock = open.getSegInfo()->lock;
      const KxCriticalSectionLock once(&lock), twice(&lock);
      return perform(waiter);
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
