// The examples, run as processes: those with ObjectCache on eight threads, then after a restart.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/tempDir.h"

namespace ObjectStore {
namespace {

struct ExampleTest : ::testing::Test {
  // Runs a program on a cache of its own; what it prints from `part` on.
  std::string run(const std::string& program, const std::string& arguments, const char* part) {
    const std::string command = program + ' ' + (dir / "cache") + arguments + " >" + (dir / "out");
    EXPECT_EQ(std::system(command.c_str()), 0);
    const std::string out = readFile(dir / "out");
    return out.substr(out.find(part));
  }
  const TempDir dir;
};

TEST_F(ExampleTest, TheFirstOneAsksTheOriginOnceForEachObject) {
  for (const std::string times : {"100", "0"})
    EXPECT_EQ(run(FIRST_OBJECT_PATH, "", "index=2\n"),
              "index=2\n" + times + " times asked, 0 times wrong\nhash size=100\n");
}

TEST_F(ExampleTest, ReadThroughAsksTheOriginOnceForEachFile) {
  std::string files;
  for (int i = 0; i < 40; ++i) {
    const std::string path = dir / "file" + std::to_string(i % 20);  // each is asked for twice
    if (i < 20) writeFile(path, std::string(static_cast<size_t>(i) * 1000, 'x'));
    files += ' ' + path;
  }
  for (const auto& [bytes, size] : {std::pair{"190000", "20"}, {"0", "20"}, {"7000", "21"}}) {
    EXPECT_EQ(run(READ_THROUGH_PATH, files, "40 files"),
              std::string("40 files, ") + bytes + " bytes from the origin\nhash size=" + size + '\n');
    if (bytes[0] == '0') writeFile(dir / "file7", std::string(7000, 'y'));
  }
}

// It names its directories itself, so it gets others in their place that only it sees.
TEST_F(ExampleTest, TheReadmesSegmentIsReadBack) {
  if (std::system("unshare -m true") != 0) GTEST_SKIP() << "this process may not mount a file system";
  const std::string command = "mkdir -p /tmp/dc && unshare -m sh -c 'mount --bind " + dir.path() +
                              " /tmp/dc && " FIRST_SEGMENT_PATH "' >" + (dir / "out");
  EXPECT_EQ(std::system((command + "; rmdir --ignore-fail-on-non-empty /tmp/dc").c_str()), 0);
  EXPECT_NE(readFile(dir / "out").find("\nread back right\n"), std::string::npos);
}

}  // namespace
}  // namespace ObjectStore
