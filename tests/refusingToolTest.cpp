// Commands of diskcachectl that only look, or that refuse, leave root and volumes as they are.
#ifdef DISKCACHECTL_PATH
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <map>
#include <thread>

#include "tests/support/toolFixture.h"

namespace ObjectStore {
namespace {

struct RefusingToolTest : ToolTest {
  RefusingToolTest() {
    writeFile(dir / "in", "one");
    fs::create_directories(dir / "typo");
    EXPECT_EQ(run("put " + cache + on("a") + on("b") + "0011first " + (dir / "in")), 0) << err;
    EXPECT_EQ(run("put " + cache + "0022second " + (dir / "in")), 0) << err;
    EXPECT_EQ(run("put --type 1 " + cache + "0011first " + (dir / "in")), 0) << err;
    for (const char* volume : {"a", "b"}) fs::remove(dir / volume + "/recycle");
    writeFile(dir / "input", "longer than it was");
    writeFile(dir / "cut/ctx/00/33/0033cut", "half of a seg");
  }

  // Runs a command between two snapshots of everything but its own output. One that fails says why on one line.
  void expectNoTrace(const std::string& arguments, int status, const std::string& message) {
    const std::vector<std::string> tree = treeOf(dir.path());
    std::vector<std::string> names = tree;  // but for a command's input, which is read as anybody reads
    std::erase_if(names, [](const std::string& name) {
      return name == "out" || name == "err" || name.starts_with("in") || name.starts_with("cut");
    });
    // Any reading that does not take care renews a time so old.
    const timespec longAgo[] = {{1000, 0}, {1000, 0}};
    for (const std::string& name : names)
      ASSERT_EQ(utimensat(AT_FDCWD, (dir / name).c_str(), longAgo, 0), 0) << name;
    const auto look = [&] {
      std::map<std::string, std::array<int64_t, 5>> entries;
      for (const std::string& name : names) {
        struct stat found {};
        if (stat((dir / name).c_str(), &found) != 0) continue;  // it is gone
        entries[name] = {static_cast<int64_t>(found.st_ino), found.st_size, found.st_atim.tv_sec,
                         found.st_mtim.tv_sec, found.st_ctim.tv_nsec};
      }
      return entries;
    };
    const auto before = look();
    EXPECT_EQ(run(arguments), status) << arguments << '\n' << err;
    EXPECT_NE((status < 2 ? out + err : err).find(message), std::string::npos) << arguments << out << err;
    EXPECT_TRUE(status < 2 || std::count(err.begin(), err.end(), '\n') == 1) << err;
    EXPECT_EQ(look(), before) << arguments;
    EXPECT_EQ(treeOf(dir.path()), tree) << arguments;
  }

  const std::string cache = root + "--context ctx ";
};

// Arguments, the status, and what stands somewhere in what is said.
using Command = std::tuple<std::string, int, std::string>;

TEST_F(RefusingToolTest, WhoLooksOrRefusesLeavesNoTrace) {
  const std::string in = dir / "in", typo = on("typo");
  const Command commands[] = {
      {"rm " + cache + "nosuch", 1, "nosuch: not in the cache"},
      {"rm " + cache + typo + "0011first", 2, "typo: no volume of the cache"},
      {"put " + cache + typo + "0044new " + in, 2, "typo: no volume of the cache"},
      {"put " + cache + "0011first " + (dir / "input"), 2, "section 0 has 3 bytes"},
      {"put " + cache + "0044new " + (dir / "none"), 2, "none: No such file"},
      {"put --root " + (dir / "new") + " --context ctx 0044new " + in, 2, "is new; give --volume"},
      {"migrate " + root + "--index 9 --to " + (dir / "c"), 2, "no volume 9"},
      {"migrate " + root + "--index 1 --to " + (dir / "a"), 2, "is the source, or lies in it"},
      {"migrate " + root + "--index 1 --to " + (dir / "b/."), 2, "is volume 2 already"},
      {"migrate " + root + "--index 1 --leave-behind --to " + (dir / "cut"), 2, "0033cut: lies at"},
      {"migrate " + root + "--index 2 --complete --to " + (dir / "c"), 2, "has no \"recycle\""},
      {"get " + cache + "a/b", 2, "a/b"},
      {"put " + cache + "0011x.copying " + in, 2, "unfinished"},
      {"put " + cache + "0011x.temp " + in, 2, "unfinished"},
      {"put " + cache + ".. " + in, 2, "would leave its directory"},
      {"put --type 6 " + cache + "0011first " + in, 2, "6 not in range"},
      {"put " + cache + "0011x " + dir.path(), 2, "Is a directory"},
      {"put " + cache + "0011x </dev/null", 2, "empty"},
      {"put " + cache + on("x,y") + "0011x " + in, 2, "x,y"},
      {"get --context ../x " + root + "0011first", 2, "../x"},
      {"exists --root " + (dir / "no ") + on("a") + "--context ctx x", 2, "no: "},
      {"prune " + root + "--bytes 1", 2, "--context is required"},
      {"prune " + root + "--context ctx", 2, "one of --bytes, --to and --older-than"},
      {"prune " + root + "--context ctx --older-than soon", 2, "\"soon\" is no age"},
      {"prune " + root + "--context " + dir.path() + " --bytes 1", 2, "lies below no volume"},
      {"verify --remove " + root + (dir / "typo"), 2, "lies on no volume"},
      {"verify " + (dir / "nowhere"), 2, "No such file"},
      {"verify --threads 0 " + (dir / "a"), 2, "0 not in range"},
      {"forget " + root + (dir / "typo"), 2, "typo: no volume of the cache"},
      {"ls " + on("in"), 2, "Not a directory"},
      {"ls " + on("none"), 2, "none: No such file"},
      {"inspect " + (dir / "none ") + (dir / "cut/ctx/00/33/0033cut"), 2, "none: No such file"},
      {"volumes --root " + (dir / "typo"), 2, "volume_info: No such file"},
      {"volume", 2, "no subcommand \"volume\"; the nearest is \"volumes\""},
      {"get " + cache + "0011first", 0, "one"},
      {"get " + cache + "nosuch", 1, "nosuch: not in the cache"},
      {"get " + cache + "0011first " + dir.path(), 2, dir.path() + ": Is a directory"},
      {"get --json " + cache + "0011first", 2, "--json needs FILE"},
      {"exists " + cache + "0022second", 0, "ctx/00/22/0022second"},
      {"status " + root, 0, "not known from outside"},
      {"status --mode lru " + root + on("a"), 0, "segments"},
      {"status --format xml " + root, 2, "xml not in"},
      {"volumes " + root, 0, "yes"},
      {"du " + root, 0, "used, to the engine"},
      {"ls " + on("a") + on("b"), 0, "0011first"},
      {"verify " + (dir / "a"), 0, "no damage"},
      {"inspect " + dir.path(), 2, "Is a directory"},
      {"inspect " + (dir / "cut/ctx/00/33/0033cut"), 1, "cut within the header"},
  };
  for (const auto& [arguments, status, message] : commands) expectNoTrace(arguments, status, message);
}

TEST_F(RefusingToolTest, BesideAServerNothingIsChangedAndTheServerIsNamed) {
  const std::string named = "process " + std::to_string(getpid()) + " (diskcache_tests)";
  const std::string inUse = named + " has the cache in use";
  const Command commands[] = {
      {"rm " + cache + "0011first", 3, inUse},
      {"put " + cache + "0044new " + (dir / "in"), 3, inUse},
      {"migrate " + root + "--index 1 --to " + (dir / "c") + " --complete", 3, inUse},
      {"prune --context ctx --bytes 1G " + root, 3, inUse + "; stop it first"},
      {"verify --remove " + root, 3, inUse},
      {"forget " + root + "1", 3, inUse},
      {"warm --context ctx --from " + (dir / "cut ") + root, 3, inUse},
      {"get " + cache + "0011first", 0, named + " runs on it"},
      {"exists " + cache + "0011first", 0, named + " runs on it"},
      {"status " + root, 0, named},
      {"status --format json " + root, 0, "\"pid\": " + std::to_string(getpid())},
      {"status --format prometheus " + root, 0, "diskcache_server_running 1"},
      {"volumes " + root, 0, named + " runs on it"},
      {"du " + root, 0, named + " runs on it"},
  };
  writeFile(dir / "root/client.lock", "");
  for (const char* held : {"root", "root/client.lock"}) {
    const int server = open((dir / held).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(server, LOCK_EX), 0);
    for (const auto& [arguments, status, message] : commands) expectNoTrace(arguments, status, message);
    close(server);
  }
}

// Who waits for the root is let in when the work is done, not between the first look and the work.
TEST_F(RefusingToolTest, TheRootIsHeldFromTheFirstLookToTheEnd) {
  struct stat status {};
  ASSERT_EQ(stat((dir / "root").c_str(), &status), 0);
  const std::string locked = ":" + std::to_string(status.st_ino) + " 0 EOF";
  int caught = 0;
  for (int i = 10; i < 60 && caught < 3; ++i) {
    const std::string id = "00" + std::to_string(i) + "new";
    std::atomic<bool> isOver = false;
    std::thread putting([&] {
      EXPECT_EQ(run("put " + cache + id + ' ' + (dir / "in")), 0) << err;
      isOver = true;
    });
    while (!isOver && readFile("/proc/locks").find(locked) == std::string::npos) {
    }
    const int fd = open((dir / "root").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (!isOver) {
      ++caught;
      EXPECT_EQ(flock(fd, LOCK_EX), 0);
      const std::string place = "/ctx/00/" + std::to_string(i) + '/' + id;
      EXPECT_TRUE(fs::exists(dir / "a" + place) || fs::exists(dir / "b" + place));
    }
    putting.join();
    close(fd);
  }
  EXPECT_GT(caught, 0) << "no put was seen at work";
}

TEST_F(RefusingToolTest, AFinishedMigrationGivenAgainAddsNoVolume) {
  const std::string migrate = "migrate " + root + "--index 1 --complete --to " + (dir / "c ");
  fs::create_directory(dir / "a/recycle");
  ASSERT_EQ(run(migrate), 0) << err;
  expectNoTrace(migrate, 2, "is the source, or lies in it");
  expectNoTrace(migrate + on("a"), 2, "a: no volume of the cache");
  ASSERT_EQ(run("rm " + cache + "0011first"), 0) << err;
  EXPECT_TRUE(fs::exists(dir / "a/ctx/00/11/0011first")) << "the old source is no volume any more";

  ASSERT_EQ(run("put --add-volume " + cache + on("d") + "0055fifth " + (dir / "in")), 0) << err;
  EXPECT_EQ(readFile(dir / "root/volume_info"), (dir / "c,1\n") + (dir / "b,2\n") + (dir / "d,3\n"));
}

}  // namespace
}  // namespace ObjectStore
#endif
