// diskcachectl replay, run as a process against caches on directories of the test's own.
#ifdef DISKCACHECTL_PATH
#include <algorithm>
#include <filesystem>
#include <map>
#include <random>

#include "tests/support/toolFixture.h"

namespace ObjectStore {
namespace {

using Trace = std::vector<std::pair<std::string, uint64_t>>;  // identifiers and sizes

// What a list of the `bound` last asked for, newest last, makes of a trace; it is as slow as it is plain.
std::map<std::string, uint64_t> simulateLru(const Trace& trace, size_t bound) {
  std::map<std::string, uint64_t> counts;
  Trace recent;
  for (const auto& asked : trace) {
    const bool isHit = std::count(recent.begin(), recent.end(), asked) != 0;
    ++counts[isHit ? "hits" : "misses"];
    counts[isHit ? "bytes_read" : "bytes_written"] += asked.second;
    std::erase_if(recent, [&](const auto& other) { return other.first == asked.first; });
    recent.push_back(asked);
    if (recent.size() <= bound) continue;
    recent.erase(recent.begin());
    ++counts["pruned"];
  }
  return counts;
}

struct ReplayTest : ToolTest {
  std::string withCache(const std::string& arguments) const {
    return "replay --root " + (dir / "root --volume ") + (dir / "on/a --volume ") + (dir / "on/b ") +
           arguments;
  }
  int replay(const std::string& arguments) { return run(withCache(arguments)); }
  void expectReplayFailure(const std::string& arguments, int status, const std::string& message) {
    expectFailure(withCache(arguments), status, message);
  }
  std::vector<std::string> segments() {
    std::vector<std::string> names = treeOf(dir / "on");
    std::erase_if(names, [](const std::string& name) { return name.back() == '/'; });
    return names;
  }

  const std::string trace = "--trace " + (dir / "trace ");
};

TEST_F(ReplayTest, EvictsAsAnExactLruDoesAlsoWhileAVolumeMoves) {
  const std::string move = "--migrate-to " + (dir / "on/moved");
  // A volume moves while nothing is evicted or replaced: a file that vanishes from under the copy would end the
  // move, and what was made at its destination meanwhile would be missing.
  const std::tuple<size_t, int, std::string> runs[] = {
      {5, 1, ""}, {17, 1, ""}, {64, 1, ""}, {500, 1, move}, {500, 2, move}};
  for (const auto& [bound, threads, options] : runs) {
    Trace asked;
    std::string text;
    std::mt19937 random(20);
    for (size_t i = 0; i < 6000; ++i) {
      // Popular objects, a loop just longer than the bound, and now and then an object that was replaced.
      const size_t object[] = {random() % (bound / 2 + 1), i % (bound + 2), random() % (2 * bound)};
      const bool isReplaced = random() % 50 == 0;
      if (options.empty()) {
        asked.emplace_back("object-" + std::to_string(object[i % 3]), 100 + isReplaced);
      } else {
        asked.emplace_back("object-" + std::to_string(i < bound ? i : object[0]), 100);
      }
      text += asked.back().first + ',' + std::to_string(asked.back().second) + ",17\n";
    }
    writeFile(dir / "trace", text);
    for (const char* name : {"root", "on"}) std::filesystem::remove_all(dir / name);
    const std::string clients = " --threads " + std::to_string(threads) + " --json - ";
    ASSERT_EQ(replay(trace + "--max-entries " + std::to_string(bound) + clients + options), 0) << err;
    const auto json = nlohmann::json::parse(out);
    EXPECT_EQ(json["verify_failures"], 0);
    for (const auto& [name, count] : simulateLru(asked, bound))
      EXPECT_EQ(json[name], count) << bound << options << name;
    const std::string first = dir / (options.empty() ? "on/a" : "on/moved");
    EXPECT_EQ(readFile(dir / "root/volume_info"), first + ",1\n" + (dir / "on/b,2\n"));
    if (!options.empty()) std::filesystem::remove_all(dir / "on/a");
    EXPECT_EQ(segments().size(), bound) << options;
  }
}

TEST_F(ReplayTest, ByIdAnObjectKeepsTheSizeOfItsFirstRequest) {
  writeFile(dir / "trace", "a,100\nb,7\na,5\na,2000\nb,7\n");
  const auto hitsAndBytes = [&](const std::string& option) {
    std::filesystem::remove_all(dir / "on");
    EXPECT_EQ(replay(trace + option + " --json -"), 0) << err;
    const auto json = nlohmann::json::parse(out);
    return std::pair(json["hits"].get<int>(), json["bytes_written"].get<int>());
  };
  EXPECT_EQ(hitsAndBytes(""), std::pair(1, 100 + 7 + 5 + 2000));
  EXPECT_EQ(hitsAndBytes("--by-id"), std::pair(3, 100 + 7));
  expectReplayFailure("--by-id --origin " + dir.path(), 2, "--by-id");
}

TEST_F(ReplayTest, FindsWrongBytes) {
  writeFile(dir / "trace", "object,5000\n");
  // One wrong byte: the payload's first or last, or the first of all; and files cut short.
  const std::pair<size_t, size_t> damages[] = {{152, 5152}, {5151, 5152}, {0, 5152}, {152, 100}, {152, 2000}};
  for (const auto& [at, length] : damages) {
    std::filesystem::remove_all(dir / "on");
    ASSERT_EQ(replay(trace), 0) << err;
    const std::string path = dir / ("on/" + segments().at(0));
    std::string bytes = readFile(path);
    ++bytes.at(at);
    writeFile(path, bytes.substr(0, length));
    expectReplayFailure(trace, 1, path);
    EXPECT_EQ(replay(trace + "--no-verify"), at == 0 || length < 5152) << at << ' ' << length;
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
      {"the identifier is longer", {std::string(256, 'x') + ",5"}},
      {"the identifiers \"ok\"", {"okok1,5"}}};
  for (const auto& [message, lines] : refusals) {
    for (const std::string& line : lines) {
      writeFile(dir / "trace", "# comment\nok,5,more\n" + line + '\n');
      expectReplayFailure(trace, 2, (dir / "trace:3: ") + message);
    }
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "root"));

  writeFile(dir / "trace", "fine,5\n");
  expectReplayFailure("", 2, "--origin and --trace");
  expectReplayFailure(trace + "--max-entries 4", 2, "--max-entries");
  expectReplayFailure(trace + "--mode random", 2, "--budget");
  expectReplayFailure(trace + "--budget 3Q", 2, "\"3Q\" is no size");
  expectReplayFailure("--origin " + (dir / "nowhere"), 2, "nowhere: No such file");
  expectReplayFailure("--trace " + dir.path(), 2, "Is a directory");
  expectReplayFailure(trace + "--json " + (dir / "no/json"), 3, "no/json: No such file");
  expectReplayFailure(trace + "--volume " + (dir / "trace"), 3, "trace: Not a directory");
  expectReplayFailure(trace + ">/dev/full", 3, "standard output");
}

TEST_F(ReplayTest, ServesFilesToManyClientsInModeRandom) {
  for (int i = 100; i < 400; ++i) writeFile(dir / "origin/" + std::to_string(i), std::to_string(i));
  const std::string run =
      "--mode random --budget 1G --threads 4 --requests 700 --origin " + (dir / "origin ");
  ASSERT_EQ(replay(run + "--json -"), 0) << err;
  EXPECT_EQ(nlohmann::json::parse(out)["bytes_written"], 3 * segments().size());
  ASSERT_EQ(replay(run), 0) << err;
  EXPECT_EQ(out.find("requests                   700\nhits                       "), 0U) << out;
}

}  // namespace
}  // namespace ObjectStore
#endif
