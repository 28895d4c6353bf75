// diskcachectl inspect, verify, ls, du, volumes and top, shown files and pages that are put together by hand.
#ifdef DISKCACHECTL_PATH
#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <map>
#include <sstream>

#include "tests/support/scriptedServer.h"
#include "tests/support/toolFixture.h"

namespace ObjectStore {
namespace {

using nlohmann::json;

std::string number(uint64_t value, size_t width) {
  std::string bytes;
  for (size_t i = 0; i < width; ++i) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}
std::string header(const std::array<uint64_t, 6>& offsets) {
  std::string bytes = "\xdc\xdc" + number(1, 2) + number(0, 4);
  for (const uint64_t offset : offsets) bytes += number(offset, 8);
  return bytes + std::string(80, '\0');
}
std::string record(uint32_t type, uint32_t subType, const std::string& payload) {
  return number(type, 4) + number(subType, 4) + number(payload.size(), 8) + payload;
}

struct LookingToolTest : ToolTest {
  // Writes a segment where its identifier leads.
  std::string writeSegment(const std::string& volume, const std::string& context, const std::string& id,
                           const std::string& bytes) {
    const std::string path =
        dir / volume + '/' + context + '/' + id.substr(0, 2) + '/' + id.substr(2, 2) + '/' + id;
    writeFile(path, bytes);
    return path;
  }

  // Type 0 at 136 was replaced by the one at 200; type 3 lies between them.
  const std::string sound = header({200, 0, 0, 157, 0, 0}) + record(0, 7, "first") +
                            record(3, 0, std::string(27, 'x')) + record(0, 7, "second");
};

TEST_F(LookingToolTest, InspectShowsEveryRecordInFileOrder) {
  writeFile(dir / "sound", sound);
  const auto file = parsed("inspect " + (dir / "sound"))[0];
  expectFields(file, {{"path", dir / "sound"}, {"bytes", 222}, {"version", 1}, {"dead_bytes", 21}});
  expectFields(file, {{"last_section", 0}, {"problems", json::array()}, {"holes", json::array()}});
  EXPECT_EQ(file["sections"].dump(), R"([{"length":5,"live":false,"offset":136,"subType":7,"type":0},)"
                                     R"({"length":27,"live":true,"offset":157,"subType":0,"type":3},)"
                                     R"({"length":6,"live":true,"offset":200,"subType":7,"type":0}])");
  ASSERT_EQ(run("inspect " + (dir / "sound")), 0);
  const char* shown =
      ", 21 B dead\n  version 1, last section 0\n  type  sub-type        offset        length\n"
      "     0         7           136             5  dead\n";
  EXPECT_NE(out.find(shown), std::string::npos) << out;
}

TEST_F(LookingToolTest, DamageOfEveryKindIsNamedAndFoundInAVolume) {
  const auto with = [&](size_t at, const std::string& bytes) {
    return std::string(sound).replace(at, bytes.size(), bytes);
  };
  const std::pair<std::string, std::string> damages[] = {
      {"", "the file is empty"},
      {sound.substr(0, 100), "cut within the header (100 of 136 bytes)"},
      {with(0, "\xdd"), "not a segment (it begins with 0xdcdd)"},
      {with(2, number(2, 2)), "of an unknown version (2)"},
      {with(8, number(5000, 8)), "section 0: its record at 5000 lies beyond the end"},
      {with(8, number(uint64_t{1} << 63, 8)),
       "section 0: its record at 9223372036854775808 lies beyond the end"},
      {with(8, number(100, 8)), "section 0: its record at 100 lies in the header"},
      {with(8, number(157, 8)), "section 0: the record at 157 is of type 3"},
      {sound.substr(0, 220), "section 0: of 6 bytes at 200 only 4 are there"},
      {with(208, number(~uint64_t{0}, 8)),
       "section 0: of 18446744073709551615 bytes at 200 only 6 are there"},
      {with(165, number(40, 8)), "section 0: its record at 200 lies in the one before it"},
      {with(136, number(9, 4)), "21 bytes at 136 belong to no record"},
      {sound + "tail", "4 bytes at 222 belong to no record"},
      {sound + std::string(64, '\0'), "64 bytes at 222 belong to no record"}};
  std::map<std::string, std::string> planted;  // on a volume whose name is no matter
  for (const auto& [bytes, problem] : damages) {
    const std::string path = writeSegment("recycle", "ctx", "dam" + std::to_string(planted.size()), bytes);
    planted[path] = problem;
    const json file = parsed("inspect " + path, 1)[0];
    EXPECT_EQ(file["problems"][0], problem);
    EXPECT_TRUE(run("inspect " + path) == 1 && out.find(problem) != std::string::npos) << out;
  }
  for (const char* id : {"sound1", "sound2", "sound3"}) writeSegment("recycle", "ctx", id, sound);
  writeFile(dir / "recycle/recycle/abcd", "no matter what");
  writeFile(dir / "recycle/ctx/ab/cd/abcd.temp", "half");
  writeFile(dir / "recycle/ctx/ab/cd/abcd.copying", "");
  writeFile(dir / "recycle/elsewhere", sound);
  fs::create_symlink("nowhere", dir / "recycle/ctx/ab/cd/abcdlink");
  ASSERT_EQ(mkfifo((dir / "recycle/ctx/ab/cd/abcdfifo").c_str(), 0600), 0);
  for (const char* special : {"link", "fifo"})
    planted[dir / "recycle/ctx/ab/cd/abcd" + special] = "not a regular file";

  for (const char* threads : {"1", "3"}) {
    const json verified = parsed("verify " + (dir / "recycle --threads ") + threads, 1);
    EXPECT_EQ(verified["problems"].size(), planted.size());
    for (const json& damaged : verified["problems"])
      EXPECT_EQ(damaged["problem"].get<std::string>().find(planted[damaged["path"]]), 0U) << damaged;
    // Four of the damaged have no header that counts; three are sound, and so is the misplaced one.
    expectFields(verified, {{"files", std::size(damages) + 9}, {"segments", std::size(damages)}});
    expectFields(verified, {{"recycled", 1}, {"leftovers", 2}, {"misplaced", 1}});
  }
  EXPECT_EQ(run("verify " + (dir / "recycle")), 1);
  for (const auto& [path, problem] : planted)
    EXPECT_NE(out.find(path + ": " + problem), std::string::npos) << path;
}

TEST_F(LookingToolTest, ListsAndAddsUpWhatIsThere) {
  const std::string first = writeSegment("a", "ctx", "0011x", sound);
  const std::string second = writeSegment("a", "ctx/deep", "0022y", sound + std::string(5000, 'z'));
  writeSegment("b", "ctx", "0033z", "damaged");
  const std::string hostile = "0044\u009b\u061c\u202e\x7f\n";  // each of them acts on a terminal
  writeSegment("b", "other", hostile, sound);
  writeFile(dir / "b/ctx/00/33/0033z.temp", "left over"), writeFile(dir / "b/recycle/0055r", "recycled");
  for (const char* own : {"client.lock", "migrate.new", "blocks/volume.id.new", "blocks/volume.moved"})
    writeFile(dir / "b/" + own, "");
  writeFile(dir / "root/volume_info", (dir / "a,1\n") + (dir / "b,7\n"));

  std::vector<std::vector<std::string>> lines;
  const json listed = parsed("ls --sort --volume " + (dir / "a ") + (dir / "b"));
  for (const json& s : listed["segments"])
    lines.push_back({s["volume"], s["context"], s["identifier"], s["bytes"].dump(), s["types"].dump()});
  const std::vector<std::vector<std::string>> expected = {{dir / "a", "ctx", "0011x", "222", "[0,3]"},
                                                          {dir / "a", "ctx/deep", "0022y", "5222", "[0,3]"},
                                                          {dir / "b", "ctx", "0033z", "7", "null"},
                                                          {dir / "b", "other", hostile, "222", "[0,3]"}};
  EXPECT_EQ(lines, expected);
  EXPECT_NE(out.find("\"0044\\u009b\\u061c\\u202e\\u007f\\n\""), std::string::npos) << out;
  ASSERT_EQ(run("ls --volume " + (dir / "b")), 0);
  EXPECT_NE(out.find("damaged     " + (dir / "b") + "  ctx  0033z\n"), std::string::npos) << out;
  EXPECT_NE(out.find("  0044\\xc2\\x9b\\xd8\\x9c\\xe2\\x80\\xae\\x7f\\x0a\n"), std::string::npos) << out;

  const timespec longAgo[] = {{1000, 0}, {1000, 0}}, later[] = {{1LL << 32, 0}, {1LL << 32, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, first.c_str(), longAgo, 0), 0);
  ASSERT_EQ(utimensat(AT_FDCWD, second.c_str(), later, 0), 0);
  fs::resize_file(dir / "b/ctx/00/33/0033z", 1 << 20);  // of which it takes no more than before
  const std::string volumes = " --top 1 --volume " + (dir / "a ") + (dir / "b");
  EXPECT_EQ(parsed("ls" + volumes)["segments"].size(), 1U);
  for (const auto& [order, top] : {std::pair{"size", "0022y"}, {"age", "0011x"}})
    EXPECT_EQ(parsed("ls --sort " + (order + volumes))["segments"].back()["identifier"], top);

  const json used = parsed("du --root " + (dir / "root"))["volumes"];
  struct stat status {};
  ASSERT_EQ(stat(first.c_str(), &status), 0);
  EXPECT_GE(used[0]["allocated"], 512 * status.st_blocks);
  std::string summed;  // of each directory segments, inodes, bytes
  for (const json& one : used[1]["directories"])
    for (const char* name : {"directory", "segments", "inodes", "bytes"}) summed += one[name].dump() + ' ';
  EXPECT_EQ(summed, R"("." 0 2 0 "blocks" 0 3 0 "ctx" 1 5 1048585 "other" 1 4 222 "recycle" 1 2 8 )");
  EXPECT_EQ(used[1]["bytes"], (1 << 20) + 9 + 222 + 8);
  const json both = parsed("du --histogram --root " + (dir / "root"))["volumes"], bars = both[0];
  EXPECT_EQ(both[1]["sizes"][2]["segments"], 1) << "of exactly the bound";
  EXPECT_EQ(bars["sizes"][0],
            (json{{"up_to", 4096}, {"segments", 1}, {"allocated", 512 * status.st_blocks}}));
  EXPECT_EQ(bars["ages"][0]["segments"], 1);
}

TEST_F(LookingToolTest, VolumesShowsWhatTheCacheKnows) {
  fs::create_directories(dir / "here");
  writeFile(dir / "root/volume_info",
            (dir / "here,3 \n") + "no index\n" + (dir / "again,9\n") + (dir / "gone,9\n") + "/proc,10\n");
  writeFile(dir / "root/migrate", "3\n" + (dir / "here\n") + (dir / "there\n"));
  const json known = parsed("volumes --root " + (dir / "root"), 1);
  const uint64_t total = fs::space(dir.path()).capacity;
  expectFields(known["volumes"][0], {{"index", 3}, {"directory", dir / "here"}, {"total", total}});
  expectFields(known["volumes"][1], {{"directory", dir / "gone"}, {"present", false}, {"total", nullptr}});
  expectFields(known["volumes"][2], {{"inodes", 0}, {"limits", {"bytes"}}});
  EXPECT_EQ(known["migration"],
            (json{{"index", 3}, {"source", dir / "here"}, {"destination", dir / "there"}}));
  EXPECT_EQ(known["problems"].size(), 2U);
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 2) << err;
  fs::create_directory(dir / "gone");
  EXPECT_EQ(run("volumes --root " + (dir / "root")), 1);
  EXPECT_NE(err.find("volume_info:2: "), std::string::npos) << err;
  expectSaid("volume 3 is moving, or was when the cache ended, from " + (dir / "here to "));
  writeFile(dir / "root/migrate", "nonsense");
  run("volumes --root " + (dir / "root"));
  expectSaid("will not start");
}

TEST_F(LookingToolTest, TopShowsTheRatesOfALiveServer) {
  // A page with these counters: hits from table and disk, misses, bytes from disk, ages and number of the evicted.
  const auto page = [](const std::array<const char*, 6>& values) {
    const char* const names[] = {
        "hits_total{from=\"table\"}",      "hits_total{from=\"disk\"}", "misses_total",
        "read_bytes_total{from=\"disk\"}", "evicted_age_seconds_sum",   "evicted_age_seconds_count"};
    std::string text = std::string("diskcache_client_engine_delay_seconds ") + values[2] +
                       "\n# HELP x y\ndiskcache_evictions_total " + values[5] + '\n';
    for (size_t i = 0; i < values.size(); ++i)
      text += std::string("diskcache_client_") + names[i] + ' ' + values[i] + '\n';
    return text + "diskcache_volume_free_bytes{index=\"1\",directory=\"/a }\\\"b\"} 5000\n" +
           "diskcache_volume_reserved_bytes{index=\"1\",directory=\"/a }\\\"b\"} 1000\n" +
           "diskcache_volume_free_bytes{/c} 7\ndiskcache_volume_reserved_bytes{/c} 9\n";
  };
  const std::string before = page({"100", "0", "10", "0", "50", "5"});
  const std::string after = page({"150", "40", "20", "1e9", "350", "8"});
  // What comes of one request after the other; 503 in place of an empty page.
  const std::string pages[] = {before, after, after, before, before, "", after, ""};
  std::atomic<size_t> next = 0;
  const ScriptedServer server([&](const auto& request, const auto& send) {
    const std::string& text = pages[std::min(next++, std::size(pages) - 1)];
    send(ScriptedServer::answer(request, "", text, text.empty() ? "503 Unavailable" : "200 OK"));
  });
  const std::string url = server.url() + "/metrics";
  ASSERT_EQ(run("top --json --interval 0.05 --count 3 " + url), 0) << err;
  json first, second, third;
  std::istringstream(out) >> first >> second >> third;
  EXPECT_DOUBLE_EQ(first["hit_ratio"], 0.9);
  EXPECT_GT(first["disk_bytes_per_s"], 1e6);
  EXPECT_DOUBLE_EQ(first["evicted_age_s"], 100.0);
  EXPECT_EQ(first["origin_bytes_per_s"], nullptr) << "the page does not tell";
  EXPECT_NEAR(first["disk_bytes_per_s"].get<double>() / first["delay_ratio"].get<double>(), 1e8, 1e3);
  EXPECT_NEAR(first["evicted_per_s"].get<double>() / first["delay_ratio"].get<double>(), 0.3, 1e-5);
  EXPECT_EQ(first["room"], (json{{"/a }\"b", 4000.0}, {"/c", 0.0}}));
  EXPECT_EQ(second["hit_ratio"], nullptr) << "nothing was asked for";
  EXPECT_DOUBLE_EQ(third["hit_ratio"], 100.0 / 110) << "of a server that was started anew";

  ASSERT_EQ(run("top --interval 0.05 --count 2 " + url), 0) << err;
  EXPECT_NE(err.find("HTTP status 503"), std::string::npos) << err;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2) << "a heading, and a line for the page that came";
  std::string none;
  double hits = 0, mebibytes = 0, percent = 0;
  std::istringstream line(out.substr(out.find('\n')));
  line >> none >> hits >> mebibytes >> none >> none >> none >> none >> percent;
  EXPECT_EQ(hits, 90) << out;
  EXPECT_NEAR(mebibytes / percent, 1e6 / (1 << 20), 0.01) << out;
  EXPECT_TRUE(out.ends_with("  /c 0 B, /a }\"b 3.9 KiB\n")) << out;
  expectFailure("top --count 1 " + url, 3, "HTTP status 503");
  expectFailure("top --count 1 ftp://127.0.0.1/", 2, "ftp://127.0.0.1/");
}

}  // namespace
}  // namespace ObjectStore
#endif
