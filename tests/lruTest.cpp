// The recency list; and its container, grown, shrunk, out of memory, and with identifiers chosen to hurt it.
#include "diskcache/diskcacheLru.h"

#include <malloc.h>

#include <iostream>
#include <iterator>
#include <list>
#include <map>
#include <new>
#include <random>
#include <set>
#include <sstream>

#include "diskcache/diskcacheSpace.h"
#include "diskcache/guidHash.h"
#include "diskcache/recencyTable.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

class LruTest : public EngineTest {
 protected:
  void startWith(const PrunerCallback& callback, PruningMode mode = PruningMode::Lru) {
    start({.mode = mode, .maxLruEntries = 5, .prunerCallback = callback});
  }
  CZuError add(const guid_t& guid) { return list().addToLru(guid, ctx.volume, ctx.dir); }
  // The identifiers in a row, newest first.
  std::string order() {
    EXPECT_TRUE(list().CheckInvariants());
    std::ostringstream printed;
    std::streambuf* const before = std::cout.rdbuf(printed.rdbuf());
    list().dumpLru();
    std::cout.rdbuf(before);
    std::string guids = printed.str().substr(printed.str().find('\n'));
    std::erase(guids, '\n');
    return guids;
  }
};

TEST_F(LruTest, BehavesAsItsModel) {
  const auto givesUp = [](const std::string& guid) { return guid != "a" && guid != "e"; };
  for (const PruningMode mode : {PruningMode::Random, PruningMode::Lru}) {
    startWith([&](auto&, auto&, auto& guid) { return givesUp(guid); }, mode);
    log.setLevel(LogLevel::Error);
    for (unsigned bound = 1; bound <= 8; ++bound) {
      SCOPED_TRACE(testing::Message() << "mode " << static_cast<int>(mode) << ", bound " << bound);
      list().clearLru();
      list().init(bound);
      std::mt19937 random(bound);
      std::string model;  // newest first
      uint64_t counter = 0;
      for (int step = 0; step < 1000; ++step) {
        const guid_t guid(1, "abcdefghijkl"[random() % 12]);
        const size_t at = model.find(guid);
        const bool known = at != model.npos;
        const auto choice = random() % 100;
        if (choice == 0) {
          list().clearLru();
          model.clear();
          counter = 0;
        } else if (choice < 20) {
          list().removeFromLru(guid);
          if (known) model.erase(at, 1), --counter;
        } else if (choice < 50) {
          const uint64_t hits = space().stats().lruHits, misses = space().stats().lruMisses;
          const bool touch = choice < 35;
          ASSERT_EQ(list().isInLru(guid, touch), known);
          if (known && touch) model = guid + model.erase(at, 1);
          ASSERT_EQ(space().stats().lruHits - hits, known ? 1U : 0U);
          ASSERT_EQ(space().stats().lruMisses - misses, known ? 0U : 1U);
        } else {
          bool refused = false;
          if (known) {
            model.erase(at, 1);
          } else if (counter++ >= bound && !model.empty()) {
            const std::string oldest(1, model.back());
            refused = mode == PruningMode::Lru && !givesUp(oldest);
            model.pop_back();
            if (refused) model = oldest + model;
            if (mode == PruningMode::Lru) --counter;
          }
          ASSERT_EQ(outcome(add(guid)), refused ? "ENOSPC" : "success");
          if (!refused) model = guid + model;
        }
        // Looked at each time for a while, then after many.
        ASSERT_EQ(step % 50 > 25 || step % 50 == 0 ? order() : model, model);
        std::map<std::string, std::string> status;
        list().getStatus(status);
        ASSERT_EQ(status["DC.LRUEntriesCur"], std::to_string(counter));
      }
    }
  }
}

TEST_F(LruTest, CallbacksMayFailOrComeBack) {
  const auto add = [&](const char* guid) { return outcome(LruTest::add(guid)); };
  const auto remove = [&](const guid_t& guid) { list().removeFromLru(guid); };
  const auto touch = [&](const guid_t& guid) { return list().isInLru(guid, true); };
  const std::tuple<std::string, PrunerCallback, std::string, std::string> cases[] = {
      // How it ends to add f to edcba, and the order after it.
      {"none", {}, "ENOSPC", "aedcb"},
      {"gives up", [&](auto&, auto& path, auto&) { return path == pathOf("a"); }, "success", "fedcb"},
      {"throws", [](auto&...) -> bool { throw 1; }, "ENOSPC", "aedcb"},
      {"unregisters", [&](auto&...) { return !cache->unregisterContext(ctx).IsError(); }, "success", "fedcb"},
      {"removes, refuses", [&](auto&, auto&, auto& guid) { return remove(guid), false; }, "success", "fed"},
      {"adds another", [&](auto&...) { return add("g") == "success"; }, "ENOSPC", "aedcb"},
      {"adds the same", [&](auto&...) { return remove("a"), add("f") == "success" && touch("c"); }, "success",
       "fcedb"},
      {"clears", [&](auto&...) { return list().clearLru(), true; }, "success", "f"},
  };
  for (const auto& [name, callback, result, after] : cases) {
    SCOPED_TRACE(name);
    startWith(callback);
    EXPECT_TRUE(list().testLru());
    for (const char* guid : {"a", "b", "c", "d", "e"}) EXPECT_EQ(add(guid), "success");
    EXPECT_EQ((log.clear(), add("f")), result);
    EXPECT_EQ(order(), after);
    EXPECT_TRUE(log.has(LogLevel::Segment, "addToLru: [f] num=5 max=5"));
    EXPECT_EQ(log.has(LogLevel::Segment, "successfully pruned: [a]"), result == "success" && after != "fed");
    EXPECT_EQ(log.has(LogLevel::Error, "Error: Can't find [ctx]: No such file or directory (2)"), !callback);
    log.clear(), (void)add("h");
    EXPECT_EQ(log.has(LogLevel::Error, "Error: pruning callback of [ctx] threw"), name == "throws");
  }
}

TEST_F(LruTest, OperationsTouchTheListFirstOrNotAtAll) {
  std::string asked;
  startWith([&](auto& name, auto& path, auto&) { return asked = name + ' ' + path, false; });
  std::vector<SegmentOperation> operations = operationsOn("abcd");
  operations.push_back({"questions", false, [&] {
                          (void)cache->doesSegmentExist(ctx, "abcd");
                          (void)cache->getOverriddenSegment(ctx, "abcd");
                          (void)cache->IsSegmentOpened("abcd");
                          return CZuError();
                        }});
  for (const auto& [name, touches, run] : operations) {
    SCOPED_TRACE(name);
    list().clearLru();
    if (!isCached("abcd")) put("abcd", "text");
    for (const char* guid : {"abcd", "newer"}) (void)add(guid);
    (void)run();
    EXPECT_EQ(order(), touches ? "abcdnewer" : "newerabcd");
    list().clearLru();
    (void)run();
    list().init(1);
    asked.clear();
    (void)add("full");
    EXPECT_EQ(asked, touches ? "ctx " + pathOf("abcd") : "") << "what it enters is the context's";
    list().clearLru();
    (void)add("kept");
    log.clear();
    const FaultPlan plan;
    EXPECT_EQ(outcome(run()) == "ENOSPC", touches);
    EXPECT_EQ(order(), "kept");
    list().init(5);
    if (!touches) continue;
    EXPECT_EQ(plan.count("open") + plan.count("access"), 0U);
    const std::string pushed = name == "createSegment" ? "t insert into LRU: [abcd]" : "t add [abcd] to LRU";
    EXPECT_NE(log.takeTexts(LogLevel::Error).back().find(pushed + ": Error: No prunable"), std::string::npos);
  }
  list().init(1);
  ctx.volume = 7;
  EXPECT_EQ(outcome(create("another", {})), "ENOSPC");
  EXPECT_EQ(ctx.volume, 1) << "chosen before";
}

TEST_F(LruTest, AnEntryTakesAtMost96Bytes) {
  const auto heap = [] {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
  };
  const size_t empty = heap();
  if (const std::vector<char> probe(1 << 20); heap() - empty < probe.size()) {
    GTEST_SKIP() << "a sanitizer's allocator does not tell";
  }
  constexpr size_t COUNT = 400'000;
  log.setLevel(LogLevel::Error);
  startWith({});
  list().init(COUNT);
  const std::string rest(36, 'x');
  const size_t before = heap();
  for (size_t i = 0; i < COUNT; ++i)
    ASSERT_EQ(outcome(add(std::to_string(10'000'000 + i) + rest)), "success");
  EXPECT_LE((heap() - before + list().mappedBytes()) / COUNT, 96U);
}

// The first block of entries is full, so one more needs memory, which nothing may be given up for in vain.
TEST_F(LruTest, WithoutMemoryNothingIsDroppedOrAsked) {
  constexpr size_t FULL = 32'768;
  log.setLevel(LogLevel::Error);
  for (const PruningMode mode : {PruningMode::Random, PruningMode::Lru}) {
    size_t asked = 0;
    startWith([&](auto&...) { return ++asked; }, mode);
    list().init(FULL);
    for (size_t i = 0; i < FULL; ++i) ASSERT_EQ(outcome(add(std::to_string(i))), "success");
    const std::string before = order();
    {
      FaultPlan plan;
      plan.fail("mmap", 1, ENOMEM);
      EXPECT_EQ(outcome(add("new")), "ENOMEM");
    }
    EXPECT_TRUE(log.has(LogLevel::Error, "Error: out of memory"));
    EXPECT_EQ(order(), before);
    EXPECT_EQ(asked, 0U);
    EXPECT_EQ(outcome(add("new")), "success");
  }
}

class RecencyTableTest : public ::testing::Test {
 protected:
  RecencyTable::Key key(const std::string& guid) const { return {guid, hash(guid)}; }
  void push(const std::string& guid, VolIndex volume = 1, const std::string& dir = "dir") {
    table.reserve(guid, dir);
    table.pushFront(key(guid), volume);
  }

  const GuidHash hash;
  RecencyTable table;
};

TEST_F(RecencyTableTest, BehavesAsItsModelWhileItGrowsAndShrinks) {
  struct Known {
    std::string guid, dir;
    VolIndex volume;
  };
  std::list<Known> model;
  std::map<std::string, std::list<Known>::iterator> places;
  std::mt19937 random(1);
  const auto drop = [&](std::list<Known>::iterator at) {
    places.erase(at->guid);
    model.erase(at);
  };
  const auto check = [&] {
    ASSERT_TRUE(table.CheckInvariants());
    ASSERT_EQ(table.size(), model.size());
    std::set<std::string> dirs;
    RecencyTable::Position at = table.newest();
    for (const Known& known : model) {
      ASSERT_EQ(table.guid(at), known.guid);
      ASSERT_EQ(table.dir(at), known.dir);
      ASSERT_EQ(table.volume(at), known.volume);
      dirs.insert(known.dir);
      at = table.older(at);
    }
    ASSERT_EQ(table.dirs(), dirs.size()) << "each as long as an entry came with it";
  };
  size_t most = 0;
  // Each phase: how many steps, and of 100 how many add.
  for (const auto& [steps, adds] :
       {std::pair{200, 50}, {150'000, 90}, {230'000, 10}, {30'000, 70}, {40'000, 5}}) {
    for (int step = 0; step < steps; ++step) {
      // Around the length up to which identifiers lie in place, and far beyond; and the empty one.
      const std::string number = std::to_string(random() % 400'000);
      const std::string guid =
          number == "7" ? "" : number + std::string(random() % 8 == 0 ? 40 + number.size() : 9, 'x');
      const auto place = places.find(guid);
      const RecencyTable::Position found = table.find(key(guid));
      ASSERT_EQ(found != RecencyTable::NONE, place != places.end()) << guid;
      if (place != places.end()) {
        model.splice(model.begin(), model, place->second);
        table.moveToFront(found);
      } else if (static_cast<int>(random() % 100) < adds) {
        const std::string dir = "dir" + std::to_string(random() % 9 == 0 ? random() % 50 : 0);
        const auto volume = static_cast<VolIndex>(random());
        push(guid, volume, dir);
        model.push_front({guid, dir, volume});
        places[guid] = model.begin();
      } else if (!model.empty()) {  // the oldest, or the newest
        const bool isOldest = random() % 4 != 0;
        drop(isOldest ? std::prev(model.end()) : model.begin());
        table.erase(isOldest ? table.oldest() : table.newest());
      }
      if (step % 20'000 == 0) check();
    }
    check();
    most = std::max(most, table.mappedBytes());
  }
  EXPECT_GT(most, 8U << 20);
  EXPECT_LT(model.size(), 30'000U);
  EXPECT_LE(table.mappedBytes(), 4U << 20) << "what a shorter list does not need has gone back";
  while (!model.empty()) drop(model.begin()), table.erase(table.newest());
  check();
  EXPECT_EQ(table.oldest(), RecencyTable::NONE);
}

// What hurts hashes without a secret: long common parts, one character's difference, words swapped, multiples.
TEST_F(RecencyTableTest, ChosenIdentifiersAreFoundAsFastAsOthers) {
  constexpr size_t COUNT = 250'000;
  const auto word = [](uint64_t value) { return std::string(reinterpret_cast<char*>(&value), sizeof value); };
  const std::function<std::string(uint64_t)> families[] = {
      [](uint64_t i) { return std::string(36, 'a') + std::to_string(10'000'000 + i); },
      [](uint64_t i) { return std::to_string(10'000'000 + i) + std::string(36, '\0'); },
      [&](uint64_t i) { return word(i << 40) + word(~(i << 40)) + word(i << 40) + word(i); },
      [&](uint64_t i) { return word(i % 500) + word(i / 500) + word(i / 500) + word(i % 500) + "tail"; },
      [&](uint64_t i) { return std::string(96, 'b') + word(i * 0x100000001) + word(i * 0x100000001); }};
  for (const auto& family : families) {
    RecencyTable().swap(table);
    for (uint64_t i = 0; i < COUNT; ++i) push(family(i));
    EXPECT_LE(table.longestSearch(), 64U) << &family - families;
    ASSERT_TRUE(table.CheckInvariants());
  }
}

TEST_F(RecencyTableTest, FailedMemoryChangesNothing) {
  FaultPlan plan;
  size_t failures = 0;
  for (size_t i = 0; i < 140'000; ++i) {  // over several blocks, and tables of slots
    const std::string guid = std::to_string(i);
    if (plan.takeTrace(); i % 2 == 0) plan.clearFaults(), plan.fail("mmap", 1, ENOMEM);
    try {
      push(guid);
    } catch (const std::bad_alloc&) {
      ++failures;
      ASSERT_EQ(table.size(), i);
      ASSERT_TRUE(table.CheckInvariants());
      plan.clearFaults();
      push(guid);
    }
    plan.clearFaults();
  }
  EXPECT_GE(failures, 3U);
  // Shrinking needs memory too, and does without.
  plan.failAlways("mmap", ENOMEM);
  while (!table.empty()) table.erase(table.oldest());
  EXPECT_TRUE(table.CheckInvariants());
}

}  // namespace
}  // namespace ObjectStore
