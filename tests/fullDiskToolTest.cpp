// diskcachectl on a full disk: prune, clean, verify --remove, forget, and what keeps new segments out.
#ifdef DISKCACHECTL_PATH
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <set>

#include "support/directory.h"
#include "tests/support/smallFileSystem.h"
#include "tests/support/toolFixture.h"

namespace ObjectStore {
namespace {

using nlohmann::json;

// As many hours ago as that a file was changed for the last time.
void age(const std::string& path, int hours) {
  fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(hours));
}

struct FullDiskToolTest : ToolTest {
  // A sound segment with a payload of zeros, unchanged for some hours.
  std::string segment(const std::string& context, const std::string& id, int hours) {
    writeFile(dir / "in", std::string(4096, '\0'));
    EXPECT_EQ(run("put " + root + on("a") + "--context " + context + ' ' + id + ' ' + (dir / "in")), 0)
        << err;
    const std::string path = dir / "a/" + context + '/' + id.substr(0, 2) + '/' + id.substr(2, 2) + '/' + id;
    age(path, hours);
    return path;
  }
  std::set<std::string> left() {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(dir / "a"))
      if (entry.is_regular_file()) names.insert(entry.path().filename());
    return names;
  }
  const std::string blockLike = std::string(40, 'a');  // another client's, called like a block
};

TEST_F(FullDiskToolTest, PruneGivesUpTheLongestUnchangedAndAsksForTheRest) {
  const std::string newest = segment("data", "0011new", 0), older = segment("data", "0022older", 100);
  fs::last_write_time(segment("data", "0033old", 0),
                      fs::last_write_time(older) - std::chrono::nanoseconds(1));
  segment("keep", "0044kept", 200);
  const std::string prune = "prune " + root;
  struct stat status {};
  ASSERT_EQ(stat(newest.c_str(), &status), 0);
  const uint64_t freed = 2 * 512 * static_cast<uint64_t>(status.st_blocks);
  EXPECT_EQ(parsed(prune + "--context data --context data/00 --older-than 2d --dry-run")["segments"], 2);
  EXPECT_EQ(parsed(prune + "--context data --bytes 1")["segments"], 1);
  EXPECT_EQ(left(), (std::set<std::string>{"0011new", "0022older", "0044kept"}));
  EXPECT_EQ(parsed(prune + "--context data --to 100")["segments"], 0);
  const json all = parsed(prune + "--context data --bytes 1T");
  expectFields(all, {{"segments", 2}, {"bytes", freed}, {"youngest", status.st_mtim.tv_sec}});
  EXPECT_EQ(all["missing"], (uint64_t{1} << 40) - freed);
  EXPECT_EQ(left(), (std::set<std::string>{"0044kept"}));
  EXPECT_TRUE(fs::is_empty(dir / "a/data")) << "empty ones take inodes; the context's own stays";

  for (const std::string answer : {"", "n\n", "yess\n", "yes\n"}) {
    writeFile(dir / "answer", answer);
    const bool isYes = answer == "yes\n";
    EXPECT_EQ(run(prune + "--non-prunable keep --bytes 1T <" + (dir / "answer")), isYes ? 0 : 2) << answer;
    EXPECT_EQ(left().empty(), isYes) << answer;
    EXPECT_EQ(out.starts_with("freed "), isYes) << out;
  }
  expectSaid("; unchanged for 8 d or longer\n1.0 TiB short of what was asked for\n");
  fs::create_symlink("loop", dir / "a/loop");
  expectFailure(prune + "--context loop --bytes 1", 3, "loop: Too many levels");
}

TEST_F(FullDiskToolTest, BytesAndInodesOfTheFileSystemAreLimits) {
  const SmallFileSystem disk(8, 40);
  SKIP_WITHOUT(disk);
  writeFile(dir / "in", std::string(1 << 20, 'x'));
  const std::string put = "put " + root + "--volume " + disk.path() + " --context data ";
  for (const char* id : {"0011a ", "0022b ", "0033c ", "0044d "})
    ASSERT_EQ(run(put + id + (dir / "in")), 0) << err;
  EXPECT_EQ(parsed("prune " + root + "--context data --to 30")["segments"], 2);

  std::error_code error;
  writeFile(disk / "data/0011x.temp", "left over");
  for (int i = 0; fs::create_directory(disk / std::to_string(i), error); ++i) continue;
  expectFields(parsed("volumes " + root)["volumes"][0], {{"has_room", false}, {"limits", {"inodes"}}});
  const json used = parsed("du " + root)["volumes"][0];
  expectFields(used, {{"total", 8 << 20}, {"total_inodes", 40}, {"inodes", 40}, {"free_inodes", 0}});
  EXPECT_EQ(used["room"].get<int>() + used["reserve"].get<int>() + used["used"].get<int>(), 8 << 20);
  const json status = parsed("status " + root), volume = status["volumes"][0];
  EXPECT_EQ(status["status"]["DC.UsedCache"], volume["total"].get<int64_t>() - volume["free"].get<int64_t>());
  ASSERT_EQ(run("status --format prometheus " + root + "; " DISKCACHECTL_PATH " status " + root), 0);
  expectSaid("_free_inodes{index=\"1\",directory=\"" + disk.path() + "\"} 0\n");
  expectSaid("\nDC.UsedCache         2.0 MiB\n");
  ASSERT_EQ(run("du " + root), 0);
  EXPECT_NE(out.find("no: inodes"), std::string::npos) << out;
  ASSERT_EQ(mount(nullptr, disk.path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  expectFields(parsed("clean --remove " + root, 3), {{"removed", 0}, {"bytes", 0}});
}

TEST_F(FullDiskToolTest, CleanFindsWhatServesNobodyAndNothingElse) {
  const std::string sound = segment("data", "0011sound", 5);
  const std::string bytes = readFile(sound), at = dir / "a/data/00/";
  const std::map<std::string, std::string> useless = {{at + "11/0011sound.temp", "left over"},
                                                      {at + "11/0011other.copying", "left over"},
                                                      {at + "11/0011cut", "cut short"},
                                                      {at + "77/0011wrong", "in a wrong place"},
                                                      {dir / "a/recycle/0022gone", "recycled"}};
  for (const auto& [path, why] : useless)
    writeFile(path, why == "cut short" ? bytes.substr(0, bytes.size() - 1) : bytes);
  fs::create_directories(at + "88/deep"), fs::create_symlink("nowhere", at + "11/link.temp");
  fs::create_directories(dir / "a/lost+found/empty/one");
  writeFile(dir / "a/notes", "nobody's but mine");
  segment("blocks", blockLike, 5);
  const std::string half = segment("data", "0099half", 5);  // of two sections the first is whole
  ASSERT_EQ(run("put --type 1 " + root + on("a") + "--context data 0099half " + (dir / "in")), 0) << err;
  fs::resize_file(half, fs::file_size(half) - 1);
  // Beside a server: what is old and not open. The directories are new.
  for (const auto& [path, why] : useless) age(path, why == "cut short" ? 0 : 2);
  const int open = ::open((at + "11/0011sound.temp").c_str(), O_RDONLY | O_CLOEXEC);
  {
    DirectoryLock server;
    ASSERT_EQ(server.take(dir / "root"), 0);
    const json found = parsed("clean --recycled-for 0s --remove " + root);
    EXPECT_EQ(found["removed"], 3) << found;  // but for the open one, and the one that was just changed
  }
  close(open);
  for (const auto& [path, why] : useless) writeFile(path, why == "cut short" ? bytes.substr(0, 99) : bytes);
  const json listed = parsed("clean --recycled-for 0s " + root);
  for (const json& found : listed["found"]) {
    const std::string path = found["path"];
    EXPECT_TRUE(useless.contains(path) ? found["why"] == useless.at(path) : found["why"] == "empty") << found;
  }
  EXPECT_EQ(listed["found"].size(), useless.size() + 3) << "77, 88 and what is in it: " << listed;
  const std::string header = std::string(bytes).insert(8, 8, '\0').substr(0, 136);  // of a section 1
  writeFile(at + "11/0011cut", header + std::string(99, '\0'));                     // that is not written
  age(dir / "a/recycle/0022gone", 24 * 9);
  EXPECT_EQ(parsed("clean " + root)["found"].size(), useless.size() + 2) << "it was recycled just now";
  EXPECT_EQ(parsed("clean --recycled-for 0s --remove " + root)["removed"], useless.size() + 3);
  EXPECT_EQ(left(), (std::set<std::string>{"0011sound", "0099half", "notes", blockLike}));
  EXPECT_TRUE(fs::exists(dir / "a/lost+found/empty/one"));
  ASSERT_EQ(run("put --add-volume " + root + on("recycle") + "--context data 0 " + (dir / "in")), 0) << err;
  fs::remove(dir / "recycle/recycle");
  for (const char* name : {"recycle/top", "recycle/1", "recycle/data/2"}) writeFile(dir / name, "mine");
  EXPECT_EQ(run("clean --recycled-for 0s " + root), 0) << err;
  EXPECT_EQ(out.substr(0, 8), "0 found,") << "on a volume called \"recycle\": " << out;
}

TEST_F(FullDiskToolTest, VerifyRemovesWhatIsDamagedAndForgetALostVolume) {
  const std::string damaged = segment("data", "0011bad", 0), sound = segment("blocks", blockLike, 0);
  for (const std::string& path : {damaged, dir / "a/diskcached.index", dir / "a/README", dir / "a/data/1"})
    writeFile(path, "damaged");
  writeFile(dir / "a/data/2", readFile(sound).substr(0, 99));
  const json verified = parsed("verify --remove " + root, 1);
  EXPECT_EQ(verified["problems"].size(), 4U) << "the index is none: " << verified;
  EXPECT_EQ(verified["removed"], 2);
  EXPECT_EQ(run("verify --remove " + root + (dir / "a ") + (dir / "a 2>&1")), 1);
  expectSaid("bytes)\ndiskcachectl: ");
  expectSaid("\n2 damaged\n0 removed\n");
  EXPECT_EQ(left(), (std::set<std::string>{blockLike, "diskcached.index", "README", "1"}));

  ASSERT_EQ(run("put --add-volume " + root + on("b") + "--context data 0033third " + (dir / "in")), 0) << err;
  fs::remove_all(dir / "a");
  fs::permissions(dir / "root/volume_info", fs::perms(0640));
  EXPECT_EQ(parsed("forget " + root + (dir / "a/")), (json{{"index", 1}, {"directory", dir / "a"}}));
  EXPECT_EQ(readFile(dir / "root/volume_info"), dir / "b,2\n");
  EXPECT_EQ(fs::status(dir / "root/volume_info").permissions(), fs::perms(0640));
}

// Blocks of named objects: their names are numbers, so the tools tell what they are of.
TEST_F(FullDiskToolTest, BlocksOfNamedObjectsAreKnown) {
  writeFile(dir / "objects/photo.jpg", std::string(100'000, 'p'));
  writeFile(dir / "objects/deep/empty", ""), fs::create_symlink("photo.jpg", dir / "objects/link");
  const std::string warm = "warm --block-size 64KiB --version v1 " + root + "--from " + (dir / "objects ");
  EXPECT_EQ(parsed(warm + on("a"))["stored"], 2);
  EXPECT_EQ(parsed(warm)["known"], 2);

  std::set<std::string> keys;
  for (const json listed = parsed("ls --context ./blocks " + on("a")); const json& line : listed["segments"])
    keys.insert(line.at("key").get<std::string>() + '#' + line["block"].dump() +
                line["version"].get<std::string>());
  EXPECT_EQ(keys, (std::set<std::string>{"photo.jpg#0v1", "photo.jpg#1v1", "deep/empty#0v1"}));
  const std::string key = "explain --key photo.jpg --version v1 " + root;
  EXPECT_EQ(parsed(key)["copies"][0]["problems"], json::array());
  const std::string path = parsed(key + "--block 1")["copies"][0]["path"];
  const json block = parsed("inspect " + path)[0]["block"];
  expectFields(block, {{"key", "photo.jpg"}, {"block", 1}, {"block_size", 65536}, {"object_size", 100'000}});
  EXPECT_EQ(parsed("verify " + root)["blocks"], 3);

  std::string bytes = readFile(path);
  bytes[200] ^= 1;
  writeFile(path, bytes);
  const json damage = parsed("verify " + root, 1);
  EXPECT_EQ(damage["problems"][0]["problem"],
            "bytes 0 to 34463 of its payload are not those that were written");
  fs::create_symlink(path, dir / "link");
  EXPECT_EQ(run("inspect " + (dir / "link")), 1) << "a block by another name";
  const std::string staged = std::string(path).replace(path.find("/blocks/"), 8, "/staged/");
  writeFile(staged, bytes);
  fs::create_directory_symlink("staged", dir / "a/link");
  EXPECT_EQ(parsed("verify --remove " + root + (dir / "a/link"), 1)["removed"], 0);
  EXPECT_EQ(parsed("prune --context link --bytes 1T " + root)["segments"], 0);
  EXPECT_TRUE(fs::exists(staged));
  for (const auto& [context, why] : {std::pair{"staged", "only copy"}, {"./", "below no volume"}})
    expectFailure("prune --bytes 1 " + root + "--context " + context, 2, why);
  EXPECT_EQ(parsed("prune --bytes 1T --non-prunable staged --dry-run " + root)["segments"], 4);
  EXPECT_EQ(parsed("prune --bytes 1T " + root)["segments"], 3);
  expectFailure("migrate --index 1 --leave-behind --to " + (dir / "c ") + root, 2, "--complete copies it");
  fs::remove(dir / "a/link"), fs::create_directory(dir / "a/blocks/volume.moved");
  expectFailure("migrate --index 1 --complete --to " + (dir / "c ") + root, 3, "can't be marked as left");
  EXPECT_NE(out.find(" -> " + (dir / "c, ")), std::string::npos) << out;
  EXPECT_TRUE(fs::remove(dir / "c/blocks/volume.id"));
  expectFailure("migrate --index 1 --complete --to " + (dir / "d ") + root, 2, "is the disk mounted?");
}

TEST_F(FullDiskToolTest, WarmTakesAListAtARate) {
  std::string list = "# name, file\n\n";
  for (const char* id : {"0011one", "0022two", "0033three"}) {
    writeFile(dir / "from/" + id, std::string(60'000, 'x'));
    list += std::string(id) + '\t' + (dir / "from/") + id + '\n';
  }
  writeFile(dir / "list", list);
  const std::string warm = "warm --context data " + root + "--list " + (dir / "list ");
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(run(warm + "--rate 100KB --volume " + (dir / "a")), 0) << err;
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1800));
  EXPECT_EQ(out, "3 stored (175.8 KiB), 0 were there, 0 left out\n");

  writeFile(dir / "empty", "");
  writeFile(dir / "list", list + "0044four\t" + (dir / "none\n") + "0055five\t" + (dir / "empty\n"));
  const json again = parsed(warm, 1);
  EXPECT_EQ(again, (json{{"stored", 0}, {"known", 3}, {"left_out", 2}, {"bytes", 0}}));
  EXPECT_EQ(err, "diskcachectl: " + (dir / "none: No such file or directory, left out\ndiskcachectl: ") +
                     (dir / "empty: its size fits no section, left out\n"));
  for (const char* line : {"0044four\n", "\tfile\n"}) {
    writeFile(dir / "list", list + line);
    expectFailure(warm, 2, "list:6: expected: a name, a tab, a file");
  }

  writeFile(dir / "list", "a key\t" + (dir / "from/0011one\tv7\n") + "b\t" + (dir / "list\n"));
  const std::string objects = "--root " + (dir / "objects ");
  const std::string warmObjects = "warm --version v8 " + objects + "--list " + (dir / "list ");
  fs::resize_file(dir / "from/0011one", (4 << 20) + 1);
  ASSERT_EQ(run(warmObjects + on("b")), 0) << err;
  EXPECT_EQ(parsed("verify " + objects)["blocks"], 3) << "of 4 MiB each, where no size is given";
  for (const char* object : {"'a key' --version v7 ", "b --version v8 "})
    EXPECT_EQ(parsed("explain --key " + (object + objects))["cached"], true);
  ASSERT_EQ(run(warmObjects + "--add-volume " + on("c")), 0) << err;
  const std::string volumes = readFile(dir / "objects/volume_info");
  EXPECT_EQ(volumes, (dir / "b,1\n") + (dir / "c,2\n")) << "nothing but an addition changes them";
  fs::rename(dir / "b", dir / "gone"), fs::create_directory(dir / "b");
  expectFailure(warmObjects + on("c"), 3, "is the disk mounted?");
  EXPECT_EQ(readFile(dir / "objects/volume_info"), volumes);
}

TEST_F(FullDiskToolTest, ExplainTellsWhatIsInTheWay) {
  const std::string path = segment("keep", "0011one", 30);
  writeFile(dir / "a/recycle/0022two", "recycled");
  for (const char* suffix : {"temp", "copying"}) writeFile(dir / "a/keep/00/22/0022two." + suffix, "");
  const int open = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const json kept = parsed("explain --nonprunable keep data 0011one " + root)["copies"][0];
  close(open);
  EXPECT_EQ(kept["age"].get<int64_t>() / 3600, 30);
  expectFields(kept, {{"path", path}, {"volume", 1}, {"bytes", 4248}, {"problems", json::array()}});
  expectFields(kept, {{"pinned_by", {"\"keep\" is left alone by pruning", "a process has it open"}}});
  const json absent = parsed("explain keep 0022two " + root, 1)["absent_from"][0];
  EXPECT_EQ(absent["obstacles"], json::array());
  EXPECT_EQ(absent["traces"].size(), 3U) << absent;
  writeFile(dir / "root/client.volumes", ""), writeFile(dir / "a/keep/00/33", "a file");
  const json blocked = parsed("explain keep 0033three " + root, 1)["absent_from"][0]["obstacles"];
  EXPECT_EQ(blocked, (json{"it has no marker: is the disk mounted?",
                           dir / "a/keep/00/33 is in the way of its directory"}));
}

}  // namespace
}  // namespace ObjectStore
#endif
