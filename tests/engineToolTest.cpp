// The subcommands of diskcachectl that run an engine: put, get, rm, exists, status, migrate; and what all
// share: help, man page and completion.
#ifdef DISKCACHECTL_PATH
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "tests/support/smallFileSystem.h"
#include "tests/support/toolFixture.h"

namespace ObjectStore {
namespace {

using nlohmann::json;

struct EngineToolTest : ToolTest {
  std::string cache() const {
    return "--root " + (dir / "root") + " --volume " + (dir / "a") + " --volume " + (dir / "b ");
  }
  std::string segment(const std::string& id) const { return cache() + "--context ctx " + id; }
  int put(const std::string& id, const std::string& text, const std::string& options = "") {
    writeFile(dir / "in", text);
    return run("put " + options + ' ' + segment(id) + ' ' + (dir / "in"));
  }
  // The section's bytes, or the exit status in brackets.
  std::string get(const std::string& id, const std::string& options = "") {
    const int status = run("get " + options + ' ' + segment(id));
    return status == 0 ? out : '[' + std::to_string(status) + ']';
  }
  std::string pathOf(const std::string& id) {
    return run("exists " + segment(id)) == 0 ? out.substr(0, out.size() - 1) : "";
  }
};

TEST_F(EngineToolTest, WhatIsPutIsReadBackUntilItIsRemoved) {
  EXPECT_EQ(put("0011first", "one"), 0) << err;
  EXPECT_EQ(put("0022second", "two", "--sync --type 3"), 0) << err;
  EXPECT_NE(pathOf("0011first").find(dir / "a/ctx/00/11"), pathOf("0022second").find(dir / "b/ctx/00/22"))
      << "on one volume";
  EXPECT_EQ(get("0011first"), "one");
  EXPECT_EQ(get("0022second", "--type 3"), "two");
  EXPECT_EQ(get("0022second"), "[1]");
  EXPECT_EQ(get("0033third"), "[1]");

  // Of the last section every length, of another one only its own.
  for (const std::string text : {"a much longer text", "short", "other"}) {
    EXPECT_EQ(put("0011first", text), 0) << err;
    EXPECT_EQ(get("0011first"), text);
  }
  EXPECT_EQ(put("0011first", "behind it", "--type 1"), 0) << err;
  for (const char* text : {"longer", "few"}) {
    EXPECT_EQ(put("0011first", text), 2) << text;
    EXPECT_NE(err.find("section 0 has 5 bytes"), std::string::npos) << err;
  }
  EXPECT_EQ(put("0011first", "again"), 0) << err;
  EXPECT_EQ(get("0011first") + get("0011first", "--type 1"), "againbehind it");

  ASSERT_EQ(run("get " + segment("0022second --type 3 ") + (dir / "copy") + " --json"), 0) << err;
  EXPECT_EQ(json::parse(out)["bytes"], 3);
  EXPECT_EQ(readFile(dir / "copy"), "two");
  EXPECT_EQ(run("put " + segment("0044piped") + " <" + (dir / "copy")), 0) << err;
  EXPECT_EQ(get("0044piped"), "two");

  EXPECT_EQ(put("0055kept", "protected", "--nonprunable keep"), 0) << err;
  EXPECT_EQ(get("0055kept"), "[1]");
  EXPECT_EQ(get("0055kept", "--nonprunable keep"), "protected");
  for (const auto& [id, options] :
       {std::pair{"0011first", ""}, {"0022second", "--recycle"}, {"0055kept", "--nonprunable keep"}}) {
    EXPECT_EQ(run("rm " + segment(id) + ' ' + options), 0) << err;
    EXPECT_EQ(parsed("exists " + segment(id), 1)["exists"], false);
    expectFailure("rm " + segment(id), 1, id);
  }
  const std::string recycled = "/recycle/0022second";
  EXPECT_NE(std::filesystem::exists(dir / "a" + recycled), std::filesystem::exists(dir / "b" + recycled));
  EXPECT_EQ(parsed("verify " + (dir / "a ") + (dir / "b"))["recycled"], 1);
}

TEST_F(EngineToolTest, BadInputIsOneLineAndLosesNothing) {
  ASSERT_EQ(put("0011first", "one"), 0) << err;
  // Another spelling is the same volume.
  const std::string known = readFile(dir / "root/volume_info");
  EXPECT_EQ(run("put --volume " + (dir / "a/. ") + segment("0011first ") + (dir / "in")), 0) << err;
  EXPECT_EQ(readFile(dir / "root/volume_info"), known);

  writeFile(dir / "used/ctx/old", "older than what the volume has");
  const std::pair<std::string, std::string> refusals[] = {
      {"get " + segment("a/b"), "a/b"},
      {"put " + segment(".. ") + (dir / "in"), ".."},
      {"rm " + segment("ab..x"), "ab..x"},
      {"put " + segment("0011x.copying ") + (dir / "in"), "copying"},
      {"put " + segment("0011x ") + (dir / "nowhere"), "nowhere: No such file"},
      {"put " + segment("0011x ") + dir.path(), "Is a directory"},
      {"put " + segment("0011x </dev/null"), "empty"},
      {"put --type 6 " + segment("0011x ") + (dir / "in"), "--type"},
      {"get --context ../x " + cache() + "0011first", "../x"},
      {"status --format xml " + cache(), "--format"},
      {"exists --root " + (dir / "no") + " --volume " + (dir / "a --context ctx x"), "no: "},
      {"put --volume " + (dir / "x,y ") + segment("0011x ") + (dir / "in"), "x,y"},
      {"migrate " + cache() + "--index 1 --leave-behind --to " + (dir / "used"), "ctx/old: lies at"},
      {"migrate " + cache() + "--index 9 --to " + (dir / "c"), "no volume 9"}};
  for (const auto& [arguments, why] : refusals) expectFailure(arguments, 2, why);
  EXPECT_EQ(get("0011first"), "one");

  writeFile(pathOf("0011first"), "damaged");
  EXPECT_EQ(get("0011first"), "[1]");
  EXPECT_EQ(put("0011first", "new"), 1) << "what is damaged is left to be looked at";
  std::filesystem::rename(dir / "b", dir / "gone");
  EXPECT_EQ(run("exists " + segment("0011none")), 1);
  EXPECT_NE(err.find("b: No such file or directory, left out"), std::string::npos) << err;

  writeFile(dir / "root/migrate", "1\n" + (dir / "a\n") + (dir / "c\n"));
  expectFailure("put " + segment("0011x ") + (dir / "in"), 3, "volume 1 is moving");
  EXPECT_EQ(readFile(dir / "root/migrate").substr(0, 2), "1\n");
}

TEST_F(EngineToolTest, AFullDiskIsOneLine) {
  const SmallFileSystem disk(4);
  SKIP_WITHOUT(disk);
  writeFile(dir / "in", std::string(8 << 20, 'x'));
  const std::string segment =
      "--root " + (dir / "root") + " --volume " + disk.path() + "/v --context ctx 0011big ";
  expectFailure("put " + segment + (dir / "in"), 3, "No space left");
  EXPECT_EQ(run("exists " + segment), 1) << "half of it stayed";
}

TEST_F(EngineToolTest, StatusInEachFormat) {
  ASSERT_EQ(put("0011first", "one"), 0) << err;
  const json status = parsed("status --mode lru " + cache());
  EXPECT_EQ(status["segments"], 1);
  EXPECT_EQ(parsed("status " + cache())["segments"], nullptr);
  for (const char* key : {"DC.PruningMode", "DC.HighWM", "DC.LRUEntriesCur", "DC.SegmentsInCache"})
    EXPECT_EQ(status["status"].at(key), nullptr) << key;
  EXPECT_EQ(status["counters"].at("DC.errOutOfSpace"), nullptr);
  EXPECT_EQ(status["status"]["DC.TotalCache"],
            status["volumes"][0]["total"].get<uint64_t>() + status["volumes"][1]["total"].get<uint64_t>());
  EXPECT_EQ(status["volumes"][1]["directory"], dir / "b");
  EXPECT_EQ(status["volumes"][1]["index"], 2);
  ASSERT_EQ(run("status --format prometheus " + cache()), 0) << err;
  EXPECT_NE(out.find("\ndiskcache_volume_free_bytes{index=\"2\",directory=\"" + (dir / "b\"} ")),
            std::string::npos)
      << out;
  if (std::system("command -v promtool >/dev/null") == 0) {
    EXPECT_EQ(std::system(("promtool check metrics <" + (dir / "out") + " >" + (dir / "lint 2>&1")).c_str()),
              0)
        << readFile(dir / "lint");
  }
}

TEST_F(EngineToolTest, MigrateSaysWhatStaysBehindAndCanTakeItAlong) {
  ASSERT_EQ(put("0011first", "one"), 0) << err;  // beside "ctx" and "recycle"
  for (const char* top : {"w", "x", "y", "z"}) writeFile(dir / "a/" + top + "/0a/0b/0a0b" + top, top);
  writeFile(dir / "a/top", "a file of its own");
  const std::string migrate = "migrate " + cache() + "--index 1 --to " + (dir / "c ");
  expectFailure(migrate, 2, "would leave behind");
  EXPECT_FALSE(std::filesystem::exists(dir / "c"));

  const std::vector<std::string> source = treeOf(dir / "a");
  const json moved = parsed(migrate + "--complete");
  EXPECT_EQ(moved["left_behind"], json::array());
  EXPECT_EQ(moved["copied_before"].size(), 2U) << moved;  // one directory of six, and the file
  EXPECT_EQ(treeOf(dir / "c"), source);
  for (const std::string& name : source) {
    if (name.back() == '/') continue;
    EXPECT_EQ(readFile(dir / "c/" + name), readFile(dir / "a/" + name)) << name;
  }
  EXPECT_EQ(readFile(dir / "root/volume_info"), (dir / "c,1\n") + (dir / "b,2\n"));
  EXPECT_FALSE(std::filesystem::exists(dir / "root/migrate"));
}

TEST_F(EngineToolTest, AMigrationThatIsInterruptedFailsAndOneThatIsKilledGoesOn) {
  ASSERT_EQ(put("0011first", "one"), 0) << err;
  for (int i = 0; i < 6000; ++i)
    writeFile(dir / "a/x" + std::to_string(i % 6) + "/" + std::to_string(i), std::string(20000, 'x'));
  const std::vector<std::string> source = treeOf(dir / "a");
  const std::string command =
      std::string(DISKCACHECTL_PATH) + " migrate " + cache() + "--index 1 --to " + (dir / "c");
  for (const int signal : {SIGINT, SIGKILL}) {
    std::filesystem::remove_all(dir / "c");
    const pid_t child = fork();
    if (child == 0) {
      execl("/bin/sh", "sh", "-c", ("exec " + command + " >" + (dir / "out") + " 2>" + (dir / "err")).c_str(),
            nullptr);
      _exit(127);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!std::filesystem::exists(dir / "c/x0") && !std::filesystem::exists(dir / "c/x1") &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    kill(child, signal);
    int status = 0;
    waitpid(child, &status, 0);
    if (signal == SIGINT) {
      // It may have come to its end first.
      ASSERT_TRUE(WIFEXITED(status));
      if (WEXITSTATUS(status) == 0) GTEST_SKIP() << "the migration was too fast to be interrupted";
      EXPECT_EQ(WEXITSTATUS(status), 3);
      EXPECT_EQ(readFile(dir / "err"), "diskcachectl: interrupted: the volume stays at " + (dir / "a\n"));
      EXPECT_FALSE(std::filesystem::exists(dir / "root/migrate"));
      EXPECT_EQ(readFile(dir / "root/volume_info"), (dir / "a,1\n") + (dir / "b,2\n"));
    }
  }
  EXPECT_EQ(run(command.substr(std::string(DISKCACHECTL_PATH).size())), 0) << err;
  EXPECT_EQ(readFile(dir / "root/volume_info"), (dir / "c,1\n") + (dir / "b,2\n"));
  std::vector<std::string> moved = treeOf(dir / "c");
  std::erase_if(moved, [](const std::string& name) { return name.ends_with(".copying"); });
  EXPECT_EQ(moved, source);
}

TEST_F(EngineToolTest, ARecordedReplayIsATrace) {
  for (int i = 100; i < 130; ++i) writeFile(dir / "origin/" + std::to_string(i), std::to_string(i));
  const std::string replay = "replay --json - --requests 200 " + cache();
  ASSERT_EQ(run(replay + "--origin " + (dir / "origin") + " --record " + (dir / "trace")), 0) << err;
  const json first = json::parse(out);
  const std::string trace = readFile(dir / "trace");
  EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 200);
  for (const char* name : {"root", "a", "b"}) std::filesystem::remove_all(dir / name);
  ASSERT_EQ(run(replay + "--trace " + (dir / "trace")), 0) << err;
  EXPECT_EQ(json::parse(out)["hits"], first["hits"]);
}

// What the first group of an expression matches, each once.
std::set<std::string> matchesOf(const std::string& text, const std::string& expression) {
  const std::regex regex(expression);
  std::set<std::string> found;
  for (std::sregex_iterator match(text.begin(), text.end(), regex); match != std::sregex_iterator(); ++match)
    found.insert((*match)[1]);
  return found;
}

TEST_F(EngineToolTest, HelpManPageAndCompletionAgree) {
  const std::string manual = readFile(DISKCACHE_SOURCE_DIR "/docs/diskcachectl.1.scd");
  ASSERT_EQ(run("--help"), 0);
  const std::set<std::string> commands = matchesOf(out.substr(out.find("Subcommands:")), "\\n  ([a-z]+) ");
  EXPECT_EQ(commands.size(), 19U);
  EXPECT_EQ(commands, matchesOf(manual, "\\n## ([a-z]+) "));
  EXPECT_EQ(run("--version"), 0);

  const auto complete = [&](const std::string& words) {
    writeFile(
        dir / "ask",
        "PATH=" + std::filesystem::path(DISKCACHECTL_PATH).parent_path().string() +
            ":$PATH\n. " DISKCACHE_SOURCE_DIR
            "/tools/diskcachectl/completion.bash\nCOMP_WORDS=(diskcachectl " +
            words +
            ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_diskcachectl diskcachectl \"${COMP_WORDS[-1]}\" "
            "\"${COMP_WORDS[-2]}\"\nprintf '%s\\n' \"${COMPREPLY[@]}\" | sort\n");
    EXPECT_EQ(std::system(("bash " + (dir / "ask") + " >" + (dir / "answer")).c_str()), 0);
    std::istringstream answer(readFile(dir / "answer"));
    return std::set<std::string>{std::istream_iterator<std::string>(answer), {}};
  };
  std::set<std::string> topLevel = commands;
  topLevel.insert({"--help", "--version"});
  EXPECT_EQ(complete("''"), topLevel);
  EXPECT_EQ(complete("replay --mode ''"), (std::set<std::string>{"lru", "random"}));
  for (const std::string& command : commands) {
    ASSERT_EQ(run(command + " --help"), 0);
    EXPECT_NE(out.find("\nExample:\n  diskcachectl " + command), std::string::npos) << command;
    std::set<std::string> options = matchesOf(out, "\\n  (?:-h,)?(--[a-z-]+)");
    EXPECT_TRUE(options.contains("--json")) << command;
    EXPECT_EQ(complete(command + " --"), options) << command;
    options.erase("--help");
    const size_t begin = manual.find("\n## " + command + ' ');
    const std::string section = manual.substr(begin, manual.find("\n#", begin + 1) - begin);
    EXPECT_EQ(matchesOf(section, "\\*(--[a-z-]+)\\*"), options) << command;
  }
}

TEST_F(EngineToolTest, OtherShellsOfferTheSameAsBash) {
  const std::string front =
      "PATH=" + std::filesystem::path(DISKCACHECTL_PATH).parent_path().string() + ":$PATH ";
  const std::string script = DISKCACHE_SOURCE_DIR "/tools/diskcachectl/completion.";
  // What stands for the completion system takes the candidates behind "--".
  writeFile(dir / "zsh", "compadd() { shift; print -l -- \"$@\" }\n_files() { }\n. " + script + "zsh\n");
  const auto offered = [&](const std::string& shell, const std::string& words) {
    const std::string ask = shell == "fish"
                                ? "fish -c '. " + script + "fish; complete -C \"diskcachectl " + words + "\"'"
                                : "zsh -fc 'words=(diskcachectl " + words + " \"\"); CURRENT=$#words; " +
                                      (words.ends_with("--") ? "words[-1]=(); CURRENT=$#words; " : "") +
                                      ". " + (dir / "zsh") + "'";
    EXPECT_EQ(std::system((front + ask + " >" + (dir / "answer")).c_str()), 0) << ask;
    std::istringstream answer(readFile(dir / "answer"));
    return std::set<std::string>{std::istream_iterator<std::string>(answer), {}};
  };
  for (const std::string shell : {"zsh", "fish"}) {
    if (std::system(("command -v " + shell + " >/dev/null").c_str()) != 0) continue;
    EXPECT_TRUE(offered(shell, "").contains("prune")) << shell;
    EXPECT_EQ(offered(shell, "replay --mode "), (std::set<std::string>{"lru", "random"})) << shell;
    ASSERT_EQ(run("curve --help"), 0);
    EXPECT_EQ(offered(shell, "curve --"), matchesOf(out, "\\n  (?:-h,)?(--[a-z-]+)")) << shell;
  }
}

}  // namespace
}  // namespace ObjectStore
#endif
