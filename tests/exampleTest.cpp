// The examples with ObjectCache, run as processes: eight threads, then a restart.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/tempDir.h"

namespace ObjectStore {
namespace {

TEST(ExampleTest, TheFirstOneAsksTheOriginOnceForEachObject) {
  const TempDir dir;
  const auto run = [&] {
    const std::string command = FIRST_OBJECT_PATH " " + (dir / "cache") + " >" + (dir / "out");
    EXPECT_EQ(std::system(command.c_str()), 0);
    const std::string out = readFile(dir / "out");
    return out.substr(out.find("index=2\n") + 8);
  };
  EXPECT_EQ(run(), "100 times asked, 0 times wrong\nhash size=100\n");
  EXPECT_EQ(run(), "0 times asked, 0 times wrong\nhash size=100\n");
}

TEST(ExampleTest, ReadThroughAsksTheOriginOnceForEachFile) {
  const TempDir dir;
  std::string arguments;
  for (int i = 0; i < 40; ++i) {
    const std::string path = dir / "file" + std::to_string(i % 20);  // each is asked for twice
    if (i < 20) writeFile(path, std::string(static_cast<size_t>(i) * 1000, 'x'));
    arguments += ' ' + path;
  }
  const auto run = [&] {
    const std::string command = "METRICS=1 " READ_THROUGH_PATH " " + (dir / "cache") + arguments + " >" +
                                (dir / "out") + " 2>" + (dir / "metrics");
    EXPECT_EQ(std::system(command.c_str()), 0);
    const std::string out = readFile(dir / "out");
    return out.substr(out.find("40 files"));
  };
  EXPECT_EQ(run(), "40 files, 190000 bytes from the origin\nhash size=20\n");
  EXPECT_EQ(run(), "40 files, 0 bytes from the origin\nhash size=20\n");
  EXPECT_NE(readFile(dir / "metrics").find("\ndiskcache_segments 20\n"), std::string::npos);
  writeFile(dir / "file7", std::string(7000, 'y'));
  EXPECT_EQ(run(), "40 files, 7000 bytes from the origin\nhash size=21\n");
}

}  // namespace
}  // namespace ObjectStore
