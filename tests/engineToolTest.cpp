// diskcachectl put, get, rm, exists, status and migrate, which run an engine; help, man page and completion.
#ifdef DISKCACHECTL_PATH
#include <fstream>
#include <regex>
#include <set>

#include "diskcache/segmentFormat.h"
#include "tests/support/metricsFault.h"
#include "tests/support/process.h"
#include "tests/support/smallFileSystem.h"
#include "tests/support/toolFixture.h"

namespace ObjectStore {
namespace {

using nlohmann::json;

struct EngineToolTest : ToolTest {
  std::string segment(const std::string& id) const { return cache + "--context ctx " + id; }
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
  const std::string cache = root + on("a") + on("b");
};

TEST_F(EngineToolTest, WhatIsPutIsReadBackUntilItIsRemoved) {
  EXPECT_EQ(put("0011first", "one"), 0) << err;
  EXPECT_EQ(put("0022second", "two", "--sync --type 3"), 0) << err;
  EXPECT_NE(pathOf("0011first").find(dir / "a/ctx/00/11"), pathOf("0022second").find(dir / "b/ctx/00/22"))
      << "on one volume";
  EXPECT_EQ(get("0011first"), "one");
  EXPECT_EQ(get("0022second", "--type 3"), "two");
  const std::string failing = "LD_PRELOAD=" FAILING_FSYNC_PATH " " DISKCACHECTL_PATH " put ";
  const std::string second = segment("0022second --type 3 ") + (dir / "in >") + (dir / "out 2>&1");
  EXPECT_EQ(std::system((failing + second).c_str()), 0);
  EXPECT_NE(std::system((failing + "--sync " + second).c_str()), 0);
  expectFailure("get " + segment("0022second"), 1, "there is no section 0");

  // Of the last section every length, of another one only its own.
  const std::string other(352, 'o');  // so long that the tool's first look cuts the next record's front
  for (const std::string& text : {std::string("a longer text"), std::string("short"), other}) {
    EXPECT_EQ(put("0011first", text), 0) << err;
    EXPECT_EQ(get("0011first"), text);
  }
  EXPECT_EQ(put("0011first", "behind it", "--type 1"), 0) << err;
  for (const std::string& text : {other + other, other.substr(7)}) {
    EXPECT_EQ(put("0011first", text), 2) << text;
    expectSaid("section 0 has 352 bytes");
  }
  EXPECT_EQ(put("0011first", other), 0) << err;
  EXPECT_EQ(get("0011first") + get("0011first", "--type 1"), other + "behind it");
  writeFile(dir / "z" + pathOf("0011first").substr((dir / "a").size()), "of a volume that is none");
  EXPECT_NE(parsed("exists " + on("z") + segment("0011first"))["volume"], 0);

  writeFile(dir / "target", ""), fs::create_symlink("target", dir / "copy");
  fs::permissions(dir / "target", fs::perms(0622));  // more than the mask gives to a new file
  EXPECT_EQ(parsed("get " + segment("0022second --type 3 ") + (dir / "copy"))["bytes"], 3);
  EXPECT_EQ(readFile(dir / "target"), "two");
  EXPECT_EQ(fs::status(dir / "target").permissions(), fs::perms(0622));
  // Nor is a file written over, or in the way, that has the name a temporary one would have.
  const std::string inPlace =
      ">.$$.0.part; exec " DISKCACHECTL_PATH " get " + segment("0022second --type 3 ");
  EXPECT_EQ(std::system(("cd " + dir.path() + "; echo mine " + inPlace + "other").c_str()), 0);
  EXPECT_EQ(std::system(("cd " + dir.path() + "; grep -q mine .*.part && grep -q two other").c_str()), 0);
  const auto numberOf = [&](const std::string& path) { return path.starts_with(dir / "a/") ? 1 : 2; };
  for (const bool isNew : {true, false}) {
    const json made = parsed("put --type 3 " + segment("0044piped") + " <" + (dir / "copy"));
    const std::string path = pathOf("0044piped");
    expectFields(made,
                 {{"volume", numberOf(path)}, {"path", path}, {"type", 3}, {"bytes", 3}, {"created", isNew}});
  }
  EXPECT_EQ(get("0044piped", "--type 3"), "two");

  EXPECT_EQ(put("0055kept", "protected", "--nonprunable keep"), 0) << err;
  EXPECT_EQ(get("0055kept"), "[1]");
  EXPECT_EQ(get("0055kept", "--nonprunable keep"), "protected");
  for (const auto& [id, options] :
       {std::pair{"0011first", ""}, {"0022second", "--recycle"}, {"0055kept", "--nonprunable keep"}}) {
    const json removed = parsed("rm " + segment(id) + ' ' + options);
    const std::string path = removed["deleted"][0]["path"], volume = path.substr(0, (dir / "a").size());
    const json gone = {{"volume", numberOf(path)}, {"directory", volume}, {"path", path}};
    expectFields(removed,
                 {{"recycled", options[0] == '-' && options[2] == 'r'}, {"deleted", json::array({gone})}});
    EXPECT_EQ(parsed("exists " + segment(id), 1)["exists"], false);
  }
  EXPECT_EQ(parsed("verify " + (dir / "a ") + (dir / "b"))["recycled"], 1);
}

TEST_F(EngineToolTest, WhatIsNotAsItShouldBeIsToldAndKept) {
  ASSERT_EQ(put("0011first", "one"), 0) << err;
  // Another spelling is the same volume.
  const std::string known = readFile(dir / "root/volume_info");
  EXPECT_EQ(run("put --volume " + (dir / "a/. ") + segment("0011first ") + (dir / "in")), 0) << err;
  EXPECT_EQ(readFile(dir / "root/volume_info"), known);

  fs::resize_file(pathOf("0011first"), SEGMENT_HEADER_SIZE);
  EXPECT_EQ(get("0011first"), "[1]") << "no front is not an empty section";
  writeFile(pathOf("0011first"), "damaged");
  EXPECT_EQ(get("0011first"), "[1]");
  EXPECT_EQ(put("0011first", "new"), 1) << "what is damaged is left to be looked at";
  fs::rename(dir / "b", dir / "gone");
  EXPECT_EQ(run("volumes " + root), 1) << "one is missing";
  EXPECT_EQ(run("exists " + segment("0011none")), 1);
  EXPECT_NE(err.find("b: No such file or directory, left out"), std::string::npos) << err;

  writeFile(dir / "root/migrate", "1\n" + (dir / "a\n") + (dir / "c\n"));
  for (const std::string& command : {"put " + segment("0011x ") + (dir / "in"), "verify --remove " + root})
    expectFailure(command, 3, "volume 1 is moving");
  EXPECT_EQ(readFile(dir / "root/migrate").substr(0, 2), "1\n");
}

TEST_F(EngineToolTest, LargeSectionsAndThoseOfOtherProgramsComeBackWhole) {
  // More than put holds in memory at a time, from a file and through a pipe.
  writeFile(dir / "large", "front");
  fs::resize_file(dir / "large", 256 << 20);
  std::ofstream(dir / "large", std::ios::app) << "behind";
  ASSERT_EQ(run("put " + segment("0011large ") + (dir / "large")), 0) << err;
  fs::create_directory(dir / "spool");
  const std::string tool = " | TMPDIR=" + (dir / "spool ") + DISKCACHECTL_PATH " put --json ";
  ASSERT_EQ(run("--version; cat " + (dir / "large") + tool + segment("0022piped")), 0) << err;
  expectSaid("\"bytes\": " + std::to_string((256 << 20) + 6));
  EXPECT_TRUE(fs::is_empty(dir / "spool"));
  for (const char* id : {"0011large ", "0022piped "}) {
    ASSERT_EQ(run("get " + segment(id) + (dir / "copy")), 0) << err;
    EXPECT_EQ(std::system(("cmp " + (dir / "large ") + (dir / "copy")).c_str()), 0) << id;
  }

  const std::string touched = pathOf("0011large");
  run("get " + segment("0011large ") + "| { head -c 1; touch " + touched + "; cat; } >/dev/null");
  EXPECT_NE(err.find(touched + ": was changed while it was read"), std::string::npos) << err;
  run("get " + segment("0011large ") + "| head -c 1 >/dev/null");
  EXPECT_EQ(err, "") << "who has seen enough is told nothing";

  // A sub-type is its owner's, and stays.
  ASSERT_EQ(put("0033typed", "one"), 0) << err;
  std::string whole = readFile(pathOf("0033typed"));
  whole[SEGMENT_HEADER_SIZE + offsetof(SectionDesc, subType)] = 7;
  writeFile(pathOf("0033typed"), whole);
  EXPECT_EQ(put("0033typed", "two"), 0) << err;
  EXPECT_EQ(get("0033typed"), "two");
  // Type 5 is never taken for the last section: it grows where it is, and is not cut.
  for (const auto& [text, status] : {std::pair{"first", 0}, {"longer", 0}, {"few", 2}})
    EXPECT_EQ(put("0033typed", text, "--type 5"), status) << text;
  EXPECT_EQ(get("0033typed", "--type 5"), "longer");
}

TEST_F(EngineToolTest, AFullDiskIsOneLine) {
  const SmallFileSystem disk(4);
  SKIP_WITHOUT(disk);
  ASSERT_EQ(put("0022big", std::string(8 << 20, 'x')), 0) << err;
  const std::string small =
      "--root " + (dir / "other ") + "--volume " + (disk / "v") + " --context ctx 0011big ";
  expectFailure("put " + small + (dir / "in"), 3, "No space left");
  EXPECT_EQ(run("exists " + small), 1) << "half of it stayed";
  writeFile(dir / "old", "old");
  ASSERT_EQ(run("put " + small + (dir / "old")), 0) << err;
  expectFailure("put " + small + (dir / "in"), 3, "No space left");
  EXPECT_EQ(run("get " + small + '-'), 0) << err;
  EXPECT_EQ(out, "old");
  const auto before = treeOf(disk.path());
  expectFailure("get " + segment("0022big ") + (disk / "copy"), 3, "No space left");
  EXPECT_EQ(treeOf(disk.path()), before) << "a part of it stayed";
}

TEST_F(EngineToolTest, StatusInEachFormat) {
  ASSERT_EQ(put("0011first", "one"), 0) << err;
  writeFile(dir / "b/ctx/00/22/0022second", "counted, not read");
  writeFile(pathOf("0011first") + ".temp", "left over");
  const json status = parsed("status --mode lru " + cache);
  EXPECT_EQ(status["segments"], 2) << "one on each volume";
  EXPECT_EQ(parsed("status " + cache)["segments"], nullptr);
  EXPECT_EQ(status["status"].at("DC.SegmentsInCache"), nullptr);
  EXPECT_EQ(status["counters"].at("DC.errOutOfSpace"), nullptr);
  EXPECT_EQ(status["status"]["DC.TotalCache"],
            status["volumes"][0]["total"].get<uint64_t>() + status["volumes"][1]["total"].get<uint64_t>());
  expectFields(status["volumes"][1], {{"directory", dir / "b"}, {"index", 2}});
  std::ofstream(dir / "root/volume_info", std::ios::app) << (dir / "\\\"q,7\n");
  fs::create_directory(dir / "\\\"q");
  ASSERT_EQ(run("status --format prometheus " + root), 0) << err;
  expectSaid("\ndiskcache_volume_free_bytes{index=\"7\",directory=\"" + (dir / "\\\\\\\"q\"} "));
  EXPECT_EQ(faultOf(out), "");
}

TEST_F(EngineToolTest, MigrateSaysWhatStaysBehindAndCanTakeItAlong) {
  ASSERT_EQ(put("0011first", "one"), 0) << err;  // beside "ctx" and "recycle"
  for (const char* top : {"w", "x", "y", "z"}) writeFile(dir / "a/" + top + "/0a/0b/0a0b" + top, top);
  writeFile(dir / "a/top", "a file of its own");
  const std::string migrate = "migrate " + cache + "--index 1 --to " + (dir / "c ");
  expectFailure(migrate, 2, "would leave behind");
  EXPECT_FALSE(fs::exists(dir / "c"));

  for (const char* leftover : {"top", "ctx/x", "recycle/x", "w/x", "x/x", "y/x", "z/x"})
    writeFile(dir / "a/" + leftover + ".copying", "cut");
  const json moved = parsed(migrate + "--complete"), last = moved["copied_before"].at(1);
  expectFields(moved, {{"index", 1}, {"source", dir / "a"}, {"destination", dir / "c"}});
  expectFields(moved, {{"left_behind", json::array()}, {"files", last == "recycle" ? 5 : 4}});
  EXPECT_EQ(moved["copied_before"], (json{"top", last}));
  EXPECT_EQ(std::system(("diff -r -x '*.copying' " + (dir / "a ") + (dir / "c")).c_str()), 0);
  EXPECT_EQ(std::system(("find " + (dir / "c") + " -name '*.copying' | grep -q .").c_str()), 256);
  EXPECT_FALSE(fs::exists(dir / "root/migrate"));
}

TEST_F(EngineToolTest, AMigrationThatIsInterruptedFailsAndOneThatIsKilledGoesOn) {
  ASSERT_EQ(put("0011first", "one"), 0) << err;
  for (int i = 0; i < 6000; ++i)
    writeFile(dir / "a/x" + std::to_string(i % 6) + "/" + std::to_string(i), std::string(20000, 'x'));
  const std::string migrate = "migrate " + cache + "--index 1 --to " + (dir / "c");
  for (const int signal : {SIGINT, SIGKILL}) {
    fs::remove_all(dir / "c"), fs::remove(dir / "said");
    Process migrating({"/bin/sh", "-c", "exec " DISKCACHECTL_PATH " " + migrate}, dir / "said");
    EXPECT_TRUE(eventually([&] { return fs::exists(dir / "c/x0") || fs::exists(dir / "c/x1"); }));
    const int status = migrating.end(signal);
    if (status == 0) GTEST_SKIP() << "the migration was too fast to be interrupted";
    if (signal == SIGINT) {
      EXPECT_EQ(status, 3);
      EXPECT_EQ(readFile(dir / "said"), "diskcachectl: interrupted: the volume stays at " + (dir / "a\n"));
      EXPECT_FALSE(fs::exists(dir / "root/migrate"));
      EXPECT_EQ(readFile(dir / "root/volume_info"), (dir / "a,1\n") + (dir / "b,2\n"));
    }
  }
  EXPECT_EQ(run(migrate), 0) << err;
  EXPECT_EQ(readFile(dir / "root/volume_info"), (dir / "c,1\n") + (dir / "b,2\n"));
  EXPECT_EQ(std::system(("diff -r -x '*.copying' " + (dir / "a ") + (dir / "c")).c_str()), 0);
}

// What the first group of an expression matches, each once.
std::set<std::string> matchesOf(const std::string& text, const std::string& expression) {
  const std::regex regex(expression);
  std::set<std::string> found;
  for (std::sregex_iterator match(text.begin(), text.end(), regex); match != std::sregex_iterator(); ++match)
    found.insert((*match)[1]);
  return found;
}

using HelpToolTest = ToolTest;

TEST_F(HelpToolTest, HelpManPageAndCompletionAgree) {
  const std::string manual = readFile(DISKCACHE_SOURCE_DIR "/docs/diskcachectl.1.scd");
  // What each shell offers behind "diskcachectl WORDS", of which the last one is not complete.
  const auto expectOffered = [&](const std::string& words, const std::set<std::string>& expected) {
    const std::string asked = DISKCACHECTL_PATH " " + words;
    const std::string file = ". " DISKCACHE_SOURCE_DIR "/tools/diskcachectl/completion.";
    const std::pair<std::string, std::string> scripts[] = {
        {"bash", file + "bash\nCOMP_WORDS=(" + asked +
                     ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                     "_diskcachectl diskcachectl \"${COMP_WORDS[-1]}\" \"${COMP_WORDS[-2]}\"\n"
                     "printf '%s\\n' \"${COMPREPLY[@]}\"\n"},
        {"zsh",
         "compadd() { shift; print -l -- $@ }\nwords=(" + asked + ")\nCURRENT=$#words\n" + file + "zsh"},
        {"fish", file + "fish\ncomplete -C \"" + asked + '"'}};
    for (const auto& [shell, script] : scripts) {
      if (std::system(("command -v " + shell + " >" + (dir / "path")).c_str()) != 0) continue;
      writeFile(dir / "ask", script);
      const std::string ask = "HOME=" + dir.path() + ' ' + shell + ' ' + (dir / "ask >") + (dir / "answer");
      EXPECT_EQ(std::system(ask.c_str()), 0);
      EXPECT_EQ(matchesOf(readFile(dir / "answer"), "(.+)\n"), expected) << shell << ": " << words;
    }
  };
  ASSERT_EQ(run("--help"), 0);
  std::set<std::string> commands = matchesOf(out.substr(out.find("Subcommands:")), "\\n  ([a-z]+) ");
  EXPECT_EQ(commands.size(), 19U);
  EXPECT_EQ(commands, matchesOf(manual, "\\n## ([a-z]+) "));
  for (const std::string& command : commands) {
    ASSERT_EQ(run(command + " --help"), 0);
    EXPECT_NE(out.find("\nExample:\n  diskcachectl " + command), std::string::npos) << command;
    std::set<std::string> options = matchesOf(out, "\\n  (?:-h,)?(--[a-z-]+)");
    EXPECT_TRUE(options.contains("--json")) << command;
    expectOffered(command + " --", options);
    options.erase("--help");
    const size_t begin = manual.find("\n## " + command + ' ');
    const std::string section = manual.substr(begin, manual.find("\n#", begin + 1) - begin);
    EXPECT_EQ(matchesOf(section, "\\*(--[a-z-]+)\\*"), options) << command;
  }
  commands.insert({"--help", "--version"});
  expectOffered("''", commands);
  expectOffered("replay --mode ''", {"lru", "random"});
}

}  // namespace
}  // namespace ObjectStore
#endif
