// Death by SIGKILL at a system call, and what the next engine finds. The kernel keeps all that it was given,
// synced or not; what a crash of the machine leaves is not seen here.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <random>

#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

// How an operation that is cut short may show: not at all, within the old length, or in a section that
// readers refuse until its record is whole.
enum How { WHOLE, BYTES, REFUSED };

struct Step {
  How how;
  guid_t guid;
  std::function<CZuError()> run;
};

struct KillTest : InMemory, EngineTest {
  KillTest() { ctx.useNonPrunableDir = true; }
  // Runs `body` in a child that is killed at its nth system call; false when it came to its end before. What
  // fails there fails here. This process has no other thread meanwhile.
  static bool isKilled(size_t nth, const std::function<void()>& body) {
    const pid_t child = fork();
    if (child == 0) {
      FaultPlan plan;
      plan.killAt(nth);
      body();
      _exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
    }
    int status = -1;
    waitpid(child, &status, 0);
    const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    EXPECT_TRUE(killed || status == 0) << "the child's status is " << status;
    return killed;
  }
  std::string text(int letter) { return std::string(1000 + random() % 5000, static_cast<char>(letter)); }

  std::mt19937 random{20};  // the same kills every time
};

TEST_F(KillTest, WhatHadReturnedIsLeftAndNothingForeign) {
  const guid_t S = "abcd-s", T = "abcd-t", guids[] = {S, T};
  const std::string a = text('a'), b = text('b'), c(500, 'c'), d(6000, 'd'), e = text('e'), f = text('f');
  const std::vector<Section> A{section(0, a)}, B{section(1, b)}, C{section(0, c, 0, 100)},
      D{section(1, d, 0, 900)}, E{section(1, e)}, FD{section(0, f), section(1, d)};
  const std::vector<Step> script = {
      {REFUSED, S, [&] { return cache->createSegment(ctx, S, A, false, false, false); }},
      {REFUSED, S, [&] { return write(S, B); }},
      {BYTES, S, [&] { return write(S, C); }},
      {BYTES, S, [&] { return write(S, D); }},
      {WHOLE, S, [&] { return cache->truncateSection(ctx, S, 1, 0, 950); }},
      {REFUSED, S, [&] { return cache->truncateSection(ctx, S, 1, 0, 1000); }},
      {WHOLE, S, [&] { return cache->markDirty(ctx, S, false); }},
      {BYTES, S, [&] { return write(S, A); }},
      {WHOLE, S, [&] { return cache->moveToPrunable(ctx, S); }},
      {WHOLE, S, [&] { return cache->replaceSegment(ctx, S, FD); }},
      {BYTES, S, [&] { return write(S, E, ForceDiskLoc::NonPrunable); }},
      {REFUSED, T, [&] { return cache->createSegment(ctx, T, A, true, true, false); }},
      {WHOLE, T, [&] { return cache->moveToPrunable(ctx, T); }},
      {WHOLE, T, [&] { return cache->markDirty(ctx, T, true); }},
      {BYTES, T, [&] { return cache->writeSections(ctx, T, C, true, ForceDiskLoc::Default); }},
      {WHOLE, T, [&] { return remove(T, Recycle::Yes); }},
  };
  const auto play = [&](const std::function<void()>& afterStep) {
    for (const char* name : {"root", "vol1"}) fs::remove_all(dir / name);
    start();
    for (const Step& step : script) {
      EXPECT_EQ(outcome(step.run()), "success");
      afterStep();
    }
    cache.reset();
  };
  const std::string none = "[ENOENT]";
  std::vector<Texts> shown = {Texts(4, none)};  // sections 0 and 1 of each segment, between the steps
  play([&] {
    shown.emplace_back();
    for (int i = 0; i < 4; ++i) shown.back().push_back(get(guids[i / 2], i % 2));
  });
  EXPECT_EQ(shown.back(), (Texts{f, e + d.substr(e.size()), none, none}));
  std::vector<size_t> ends;  // the number of each step's last call, which is the same every time
  play([&, plan = std::make_shared<FaultPlan>()] { ends.push_back(plan->count(FaultPlan::ANY)); });
  for (size_t nth = 1, done = 0; nth <= ends.back() && !HasFailure(); ++nth, done += nth > ends[done]) {
    EXPECT_TRUE(isKilled(nth, [&] { play([] {}); }));
    start();
    for (size_t i = 0; i < 4; ++i) {
      const std::string &was = shown[done][i], &is = shown[done + 1][i], left = get(guids[i / 2], i % 2);
      const How how = guids[i / 2] == script[done].guid ? script[done].how : WHOLE;
      EXPECT_TRUE(left == was || left == is || (how == BYTES && left == is.substr(0, was.size())) ||
                  (how == REFUSED && (was == none || was != is) && (left.empty() || left[0] == '[')))
          << "section " << i % 2 << " of " << guids[i / 2] << " at call " << nth << ": " << left;
    }
    for (const guid_t& guid : guids) {
      EXPECT_EQ(outcome(remove(guid)), "success");
      put(guid, a);
      EXPECT_EQ(get(guid), a);
    }
    cache.reset();
  }
}

}  // namespace
}  // namespace ObjectStore
