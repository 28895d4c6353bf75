// The list's container against a model, grown, shrunk, out of memory, and with identifiers chosen to hurt it.
#include "diskcache/recencyTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <new>
#include <random>
#include <set>
#include <string>
#include <utility>

#include "diskcache/guidHash.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

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
  plan.fail("mmap", 1, ENOMEM);
  EXPECT_THROW(table.reserve("first", "dir"), std::bad_alloc);
  table.dropReserve();
  EXPECT_EQ(table.dirs(), 0U);
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
