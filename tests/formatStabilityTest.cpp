// What every released version left on disk is read by today's: tests/data has a directory for each. To make one at a
// release, run this with DISKCACHE_WRITE_FORMAT=tests/data/X.Y and look at the difference to the one before.
#include <cstdlib>
#include <fstream>
#include <map>

#include "tests/support/clientFixture.h"
#include "tests/support/engineFixture.h"

namespace ObjectStore {
namespace {

// An identifier and its sections' payloads, by type.
const std::vector<std::pair<guid_t, std::map<int32_t, std::string>>> SEGMENTS = {
    {"0a1b2c3d", {{0, "one section"}}},
    {"abcd", {{1, std::string(5000, 'b')}, {4, "and a second one"}}},
    {"ab", {{5, "an identifier of two characters"}}},
};
// A key and its object's size.
const std::pair<std::string, uint64_t> OBJECTS[] = {
    {"bucket/small", 1000}, {"bucket/empty", 0}, {"odd: %\n\xc3\xa9", 10}};
const std::string STAGED = "bucket/staged";
constexpr size_t STAGED_SIZE = 100;

class EngineFormatTest : public EngineTest {};
class ClientFormatTest : public ClientTest {};

// The directories of the released versions, each with "engine" and "client".
std::vector<fs::path> releases() {
  std::vector<fs::path> found;
  for (const auto& entry : fs::directory_iterator(DISKCACHE_SOURCE_DIR "/tests/data"))
    found.push_back(entry.path());
  EXPECT_FALSE(found.empty());
  return found;
}

// Puts a release's files into an empty directory, with its volume's name there in "volume_info".
void unpack(const fs::path& from, const TempDir& to) {
  fs::remove_all(to.path());
  fs::copy(from, to.path(), fs::copy_options::recursive);
  std::string directory, rest;
  std::getline(std::ifstream(to / "root/volume_info") >> std::ws, directory, ',') >> rest;
  std::ofstream(to / "root/volume_info") << (to / "vol1") << ',' << rest << '\n';
}

// Where to write today's files, if they are wanted.
void keep(const TempDir& written, const char* as) {
  if (const char* target = std::getenv("DISKCACHE_WRITE_FORMAT")) {
    fs::create_directories(target);
    fs::copy(written.path(), fs::path(target) / as, fs::copy_options::recursive);
  }
}

TEST_F(EngineFormatTest, SegmentsOfEveryReleaseAreRead) {
  start({.persistent = PersistentVolumes::Yes});
  for (const auto& [guid, payloads] : SEGMENTS) {
    std::vector<Section> sections;
    for (const auto& [type, payload] : payloads) sections.push_back(section(type, payload, 7));
    ASSERT_EQ(outcome(create(guid, sections)), "success");
  }
  cache.reset();
  keep(dir, "engine");
  for (const fs::path& release : releases()) {
    SCOPED_TRACE(release);
    unpack(release / "engine", dir);
    start({.persistent = PersistentVolumes::Yes});
    ctx.volume = 1;
    for (const auto& [guid, payloads] : SEGMENTS)
      for (const auto& [type, payload] : payloads) EXPECT_EQ(get(guid, type), payload) << guid;
    cache.reset();
  }
}

TEST_F(ClientFormatTest, ObjectsOfEveryReleaseAreHits) {
  start();
  for (const auto& [key, size] : OBJECTS) ASSERT_EQ(readAll(key, size), "right");
  ASSERT_EQ(stage(STAGED, STAGED_SIZE), "success");
  cache.reset();
  keep(dir, "client");
  for (const fs::path& release : releases()) {
    SCOPED_TRACE(release);
    unpack(release / "client", dir);
    start();
    asked();
    for (const auto& [key, size] : OBJECTS) {
      EXPECT_EQ(readAll(key, size), "right") << key;
      EXPECT_EQ(result.metadata->at("etag"), "v");
    }
    EXPECT_EQ(cache->staged().objects, 1);
    EXPECT_EQ(readAll(STAGED, STAGED_SIZE), "right");
    EXPECT_EQ(asked(), 0);
    cache.reset();
  }
}

}  // namespace
}  // namespace ObjectStore
