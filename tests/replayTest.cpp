// diskcachectl replay and curve: what a trace gives with a cache of some size, compared with a plain list.
#ifdef DISKCACHECTL_PATH
#include <map>
#include <random>

#include "tests/support/toolFixture.h"

namespace ObjectStore {
namespace {

using Trace = std::vector<std::pair<std::string, uint64_t>>;  // identifiers and sizes

// What a list of those last asked for, newest last, makes of a trace; it is as slow as it is plain.
std::map<std::string, uint64_t> simulateLru(const Trace& trace, size_t maxEntries,
                                            uint64_t maxBytes = UINT64_MAX) {
  std::map<std::string, uint64_t> counts;
  Trace recent;
  uint64_t bytes = 0;
  for (const auto& asked : trace) {
    const bool isHit = std::count(recent.begin(), recent.end(), asked) != 0;
    ++counts[isHit ? "hits" : "misses"];
    counts[isHit ? "bytes_read" : "bytes_written"] += asked.second;
    std::erase_if(recent, [&](const auto& other) {
      bytes -= other.first == asked.first ? other.second : 0;
      return other.first == asked.first;
    });
    recent.push_back(asked);
    for (bytes += asked.second; recent.size() > maxEntries || bytes > maxBytes; ++counts["pruned"]) {
      bytes -= recent.front().second;
      recent.erase(recent.begin());
    }
  }
  return counts;
}

struct ReplayTest : ToolTest {
  std::string withCache(const std::string& arguments) const {
    return "replay " + root + on("on/a") + on("on/b") + arguments;
  }
  int replay(const std::string& arguments) { return run(withCache(arguments)); }
  // What a replay tells of itself.
  nlohmann::json replayed(const std::string& arguments) {
    EXPECT_EQ(replay(arguments + " --json -"), 0) << err;
    return nlohmann::json::parse(out, nullptr, false);
  }
  std::vector<std::string> blocks() {
    std::vector<std::string> names = treeOf(dir / "on");
    std::erase_if(names, [](const std::string& name) { return name.size() - name.rfind('/') != 41; });
    return names;
  }

  // Popular objects and a loop just longer than the bound, of which now and then one is replaced by another of its
  // name; or of as many sizes; or so that after all have been asked for once there is nothing new.
  enum Kind { Replaced, Sized, Settled };
  Trace writeTrace(size_t requests, size_t bound, Kind kind) {
    Trace made;
    std::string text = "# id,size\n";
    std::mt19937 random(20);
    for (size_t i = 0; i < requests; ++i) {
      const size_t object[] = {random() % (bound / 2 + 1), i % (bound + 2), random() % (2 * bound)};
      const size_t chosen = kind != Settled ? object[i % 3] : i < bound ? i : object[0];
      const bool isReplaced = kind == Replaced && random() % 50 == 0;
      made.emplace_back("object-" + std::to_string(chosen), 100 + isReplaced + (kind == Sized ? chosen : 0));
      text += made.back().first + ',' + std::to_string(made.back().second) + ",17\n";
    }
    writeFile(dir / "trace", text);
    return made;
  }

  const std::string trace = "--trace " + (dir / "trace ");
};

TEST_F(ReplayTest, EvictsAsAnExactLruDoesAlsoWhileAVolumeMoves) {
  const std::string move = "--migrate-to " + (dir / "on/moved");
  const std::tuple<size_t, int, std::string> runs[] = {
      {5, 1, ""}, {17, 1, ""}, {17, 1, move}, {64, 1, move}, {500, 2, move}};
  for (const auto& [bound, threads, options] : runs) {
    const Trace asked = writeTrace(6000, bound, threads == 1 ? Replaced : Settled);
    for (const char* name : {"root", "on"}) fs::remove_all(dir / name);
    const std::string clients = " --threads " + std::to_string(threads) + ' ';
    nlohmann::json json = replayed(trace + "--max-entries " + std::to_string(bound) + clients + options);
    auto expected = simulateLru(asked, bound);
    for (const auto& [name, count] : expected) EXPECT_EQ(json[name], count) << bound << options << name;
    EXPECT_EQ(json["verify_failures"], 0);
    EXPECT_DOUBLE_EQ(json["hit_ratio"], static_cast<double>(expected["hits"]) / 6000);
    const std::string first = dir / (options.empty() ? "on/a" : "on/moved");
    EXPECT_EQ(readFile(dir / "root/volume_info"), first + ",1\n" + (dir / "on/b,2\n"));
    if (!options.empty()) fs::remove_all(dir / "on/a");
    EXPECT_EQ(blocks().size(), bound) << options;
  }
}

// Of each size the hits, and the bytes of the smallest cache, bounded in bytes, that finds as much.
TEST_F(ReplayTest, ACurveTellsWhatEachSizeWouldFind) {
  for (const Kind kind : {Replaced, Sized}) {
    const Trace asked = writeTrace(2000, 40, kind);
    const nlohmann::json curve = parsed("curve " + trace);
    EXPECT_EQ(curve["points"].size(), curve["objects"]);
    for (size_t entries = 1; entries < curve["points"].size(); entries += 7) {
      const nlohmann::json& point = curve["points"][entries - 1];
      EXPECT_EQ(point["entries"], entries);
      const uint64_t hits = simulateLru(asked, entries)["hits"];
      EXPECT_DOUBLE_EQ(point["hit_ratio"], static_cast<double>(hits) / 2000) << entries;
      if (kind != Sized || hits == 0) continue;
      EXPECT_GE(simulateLru(asked, SIZE_MAX, point["bytes"])["hits"], hits) << point;
      EXPECT_LT(simulateLru(asked, SIZE_MAX, point["bytes"].get<uint64_t>() - 1)["hits"], hits) << point;
    }
  }
}

TEST_F(ReplayTest, ASampleTellsItsErrorAndCurvesAreDrawn) {
  writeTrace(50'000, 2'500, Sized);
  const nlohmann::json exact = parsed("curve " + trace)["points"];
  const nlohmann::json sample = parsed("curve --sample 0.25 " + trace)["points"];
  const nlohmann::json point = sample[sample.size() / 2];
  nlohmann::json there = exact[point["entries"].get<size_t>() - 1];
  const std::string told = err.substr(err.find("at most ") + 8);
  EXPECT_LT(std::stod(told), 15);
  EXPECT_NEAR(point["hit_ratio"].get<double>(), there["hit_ratio"], std::stod(told) / 50) << err;
  EXPECT_NEAR(point["bytes"].get<double>() / there["bytes"].get<double>(), 1, 0.2);
  ASSERT_EQ(run("curve --points 400 --sample 0.25 " + trace), 0) << err;
  EXPECT_NE(out.find(' ' + told), std::string::npos) << told << " is not the error of any of " << out;
  ASSERT_EQ(run("curve --points 3 " + trace), 0) << err;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2 + 3) << out;
  expectFailure("curve --trace /dev/null", 2, "holds no request");
}

TEST_F(ReplayTest, ByIdAnObjectKeepsTheSizeOfItsFirstRequest) {
  writeFile(dir / "trace", "a,1024\r\nb,7\na,5\na,2000\nb,7");
  const auto hitsAndBytes = [&](const std::string& option) {
    fs::remove_all(dir / "on");
    nlohmann::json json = replayed(trace + option);
    return std::pair(json["hits"].get<int>(), json["bytes_written"].get<int>());
  };
  EXPECT_EQ(hitsAndBytes(""), std::pair(1, 1024 + 7 + 5 + 2000));
  EXPECT_EQ(hitsAndBytes("--by-id"), std::pair(3, 1024 + 7));
  fs::rename(dir / "trace", dir / "<a>&b");
  const std::string curve = "curve --by-id --trace '" + (dir / "<a>&b' --picture \"") + (dir / "it's");
  EXPECT_EQ(parsed(curve + ".svg\"")["points"].dump(),
            R"([{"bytes":1024,"entries":1,"hit_ratio":0.2},{"bytes":1031,"entries":2,"hit_ratio":0.6}])");
  for (const char* part : {"/&lt;a&gt;&amp;b: 5 requests for 2 objects<", "'60.0,290.0 480.0,170.0 '",
                           ">1.0 KiB<", "'560.0,290.0 564.1,170.0 '"})
    EXPECT_NE(readFile(dir / "it's.svg").find(part), std::string::npos) << part;
  expectFailure(withCache("--by-id --origin " + dir.path()), 2, "--by-id");
}

TEST_F(ReplayTest, WhatTheToolHasMovedIsFoundWhereItIsAndRefusedWhereItWas) {
  writeTrace(100, 10, Settled);
  ASSERT_EQ(replay(trace), 0) << err;
  ASSERT_EQ(run("migrate " + root + "--index 1 --complete --to " + (dir / "on/c")), 0) << err;
  expectFailure(withCache(trace), 3, "on/a] was moved away");
  ASSERT_EQ(run("replay " + root + on("on/c") + on("on/b") + trace + "--json -"), 0) << err;
  EXPECT_EQ(nlohmann::json::parse(out)["misses"], 0);
}

TEST_F(ReplayTest, FindsWrongBytes) {
  writeFile(dir / "trace", "object,5000\n");
  // One wrong byte: the payload's first or last, the first of all, the trailer's last; and files cut short, as a kill
  // leaves them: of the frame, the payload or the trailer's front.
  constexpr size_t PAYLOAD = 152, TRAILER = PAYLOAD + 5000;
  const std::tuple<size_t, size_t, std::string> damages[] = {
      {PAYLOAD, SIZE_MAX, "wrong"}, {TRAILER - 1, SIZE_MAX, "wrong"},
      {0, SIZE_MAX, "broken"},      {SIZE_MAX, SIZE_MAX, "broken"},
      {PAYLOAD, 100, "cut"},        {PAYLOAD, 2000, "cut"},
      {PAYLOAD, TRAILER, "cut"}};
  for (const auto& [at, length, what] : damages) {
    for (const bool isVerified : {true, false}) {
      fs::remove_all(dir / "on");
      ASSERT_EQ(replay(trace), 0) << err;
      const std::string path = dir / ("on/" + blocks().at(0));
      std::string bytes = readFile(path);
      ++bytes.at(std::min(at, bytes.size() - 1));
      writeFile(path, bytes.substr(0, length));
      const std::string again = trace + (isVerified ? "" : "--no-verify ");
      if (what == "broken" || (what == "wrong" && isVerified)) {
        expectFailure(withCache(again), 1, path);
      } else {
        EXPECT_EQ(replayed(again)["misses"], what == "cut" ? 1 : 0) << at << ' ' << length;
      }
      EXPECT_EQ(replay(trace), what == "wrong") << at << ": what is no whole block was made anew";
    }
  }
}

TEST_F(ReplayTest, ExitStatusAndOneLineTellWhoseFaultItIs) {
  const std::pair<std::string, std::vector<std::string>> refusals[] = {
      {"there is no comma", {"object", ""}},
      {"the size \"", {"a,", "a,1x", "a,-1", "a, 1"}},
      {"the size is 0", {"a,0"}},
      {"the size is over", {"a,2147479553", "a,99999999999999999999"}},
      {"the identifier is empty", {",5"}},
      {"the identifier holds", {"a/b,5"}},
      {"the identifier would leave", {".,5", "..,5", "..x,5", "ab..,5"}},
      {"the identifier is longer", {std::string(256, 'x') + ",5"}}};
  for (const auto& [message, lines] : refusals) {
    for (const std::string& line : lines) {
      writeFile(dir / "trace", "# comment\nok,5,more\n" + line + '\n');
      expectFailure(withCache(trace), 2, (dir / "trace:3: ") + message);
      expectFailure("curve " + trace, 2, (dir / "trace:3: ") + message);
    }
  }
  EXPECT_FALSE(fs::exists(dir / "root"));

  writeFile(dir / "trace", "fine,5\r\n");
  expectFailure(withCache(""), 2, "--origin and --trace");
  expectFailure(withCache(trace + "--max-entries 4"), 2, "--max-entries");
  expectFailure(withCache(trace + "--mode random"), 2, "--budget");
  for (const auto& [budget, why] : {std::pair{"3Q", "\"3Q\" is no size"}, {"0K", "a budget of 0"}})
    expectFailure(withCache(trace + "--budget " + budget), 2, why);
  expectFailure(withCache("--origin " + (dir / "nowhere")), 2, "nowhere: No such file");
  expectFailure(withCache(trace + "--json " + (dir / "no/json")), 3, "no/json: No such file");
  expectFailure(withCache(trace + "--volume " + (dir / "trace")), 3, "trace: Not a directory");
  expectFailure(withCache(trace + ">/dev/full"), 3, "standard output");
  writeFile(dir / "used/file", "1"), writeFile(dir / "used/empty", "");
  ASSERT_EQ(replay("--quiet --json " + (dir / "json ") + trace), 0) << err;
  EXPECT_EQ(out, "");
  ASSERT_EQ(replay("--json " + (dir / "json ") + "--origin " + (dir / "used")), 0) << err;
  EXPECT_EQ(nlohmann::json::parse(readFile(dir / "json"))["requests"], 10) << "a file";
  EXPECT_NE(out.find("\nleft out: 1 files (empty"), std::string::npos) << out;
  expectFailure(withCache(trace + "--requests 9 --json - --migrate-to " + (dir / "used")), 3, "used: ");
  EXPECT_EQ(nlohmann::json::parse(out)["requests"], 9);
}

TEST_F(ReplayTest, ServesFilesToManyClientsInModeRandomAndRecordsATrace) {
  for (int i = 100; i < 400; ++i) writeFile(dir / "origin/" + std::to_string(i), std::to_string(i));
  const std::string random = "--mode random --budget 1G --requests 700 ";
  const std::string served = random + "--threads 4 --origin " + (dir / "origin ");
  nlohmann::json first = replayed(served + "--record " + (dir / "trace"));
  expectFields(first["status"], {{"DC.PruningMode", "random"}, {"DC.LRUEntriesMax", "5"}});
  const size_t stored = blocks().size();
  EXPECT_EQ(first["bytes_written"], 3 * stored);
  ASSERT_EQ(replay(served), 0) << err;
  EXPECT_TRUE(out.starts_with("requests                   700\nhits                       700\n")) << out;
  EXPECT_NE(out.find("\nhit ratio             100.00 %\n"), std::string::npos) << out;
  for (const char* name : {"root", "on"}) fs::remove_all(dir / name);
  EXPECT_EQ(replayed(random + trace)["misses"], stored);
}

}  // namespace
}  // namespace ObjectStore
#endif
