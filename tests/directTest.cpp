// The engine's operations for clients that read the bytes themselves.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheSpace.h"
#include "tests/support/engineFixture.h"

namespace ObjectStore {
namespace {

class DirectTest : public EngineTest {
 protected:
  // The payload at a place, read through the descriptor, which is closed; the outcome in brackets else.
  std::string readPlace(const guid_t& guid, int32_t type) {
    std::vector<SectionPlace> places{{5}, {type}};
    int fd = -2;
    const CZuError error = cache->openSection(fd, places, ctx, guid);
    if (error.IsError()) {
      EXPECT_EQ(fd, -1);
      return '[' + outcome(error) + ']';
    }
    EXPECT_FALSE(places[0].found);
    EXPECT_TRUE((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
    std::string bytes(places[1].found ? places[1].len : 0, '\0');
    EXPECT_EQ(pread(fd, bytes.data(), bytes.size(), static_cast<off_t>(places[1].offset)),
              static_cast<ssize_t>(bytes.size()));
    close(fd);
    return bytes;
  }
};

TEST_F(DirectTest, OpenSectionFindsPayloadsAndRefusesWhatIsDamaged) {
  start();
  const std::string first(3000, 'x'), second = "trailer";
  ASSERT_EQ(outcome(create("whole", {section(0, first), section(1, second)})), "success");
  const size_t descriptors = openDescriptors();
  EXPECT_EQ(readPlace("whole", 0), first);
  EXPECT_EQ(readPlace("whole", 1), second);
  EXPECT_EQ(readPlace("whole", 2), "");
  EXPECT_EQ(readPlace("whole", 6), "[EINVAL]");
  EXPECT_EQ(readPlace("../x", 0), "[EINVAL]");
  log.clear();
  EXPECT_EQ(readPlace("absent", 0), "[ENOENT]");
  EXPECT_TRUE(log.takeTexts(LogLevel::Error).empty());

  const std::string whole = bytesOf("whole");
  const auto damaged = [&](const std::string& bytes) {
    writeFile(pathOf("damaged"), bytes);
    return readPlace("damaged", 0);
  };
  const auto patched = [&](size_t at, char byte) { return std::string(whole).replace(at, 1, 1, byte); };
  EXPECT_EQ(damaged(whole.substr(0, 100)), "[EIO]");
  EXPECT_EQ(damaged(whole.substr(0, SEGMENT_HEADER_SIZE + 3)), "[EIO]");
  EXPECT_EQ(damaged(whole.substr(0, SEGMENT_HEADER_SIZE + 100)), "[EINVAL]");
  EXPECT_EQ(damaged(patched(0, 'x')), "[EINVAL]");
  EXPECT_EQ(damaged(patched(sectionSlotOffset(0), 8)), "[EINVAL]");
  EXPECT_EQ(damaged(patched(sectionSlotOffset(0) + 7, '\xff')), "[EINVAL]");
  EXPECT_EQ(damaged(patched(SEGMENT_HEADER_SIZE + offsetof(SectionDesc, len) + 7, '\xff')), "[EINVAL]");
  EXPECT_EQ(damaged(patched(SEGMENT_HEADER_SIZE, 3)), "[EINVAL]");

  const auto inPlaceOf = [&](const guid_t& guid) {
    std::filesystem::create_directories(std::filesystem::path(pathOf(guid)).parent_path());
    return pathOf(guid);
  };
  std::filesystem::create_symlink(pathOf("whole"), inPlaceOf("a link"));
  EXPECT_EQ(readPlace("a link", 0), "[ELOOP]");
  ASSERT_EQ(mkfifo(inPlaceOf("a pipe").c_str(), 0600), 0);
  EXPECT_EQ(readPlace("a pipe", 0), "[EINVAL]");
  std::filesystem::create_directories(inPlaceOf("a dir"));
  EXPECT_EQ(readPlace("a dir", 0), "[EINVAL]");
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(DirectTest, TheListIsTouchedAskedAndShortenedWithoutWorkOnFiles) {
  std::vector<std::string> asked;
  std::string refused = "b2";
  EngineOptions options;
  options.volumes = 2;
  options.prunerCallback = [&](auto&, auto&, const std::string& guid) {
    asked.push_back(guid);
    uint64_t nested = 0;
    EXPECT_EQ(outcome(cache->giveUpOldest(1, nested)), "ENOSPC");
    VolIndex volume = 0;
    EXPECT_TRUE(cache->findVolume(guid, volume));  // still known while it is asked about
    return guid != refused;
  };
  start(options);
  for (const char* guid : {"a1", "b2", "c3", "d4"}) put(guid, guid);
  const uint64_t hits = Access::space(*cache).stats().lruHits,
                 misses = Access::space(*cache).stats().lruMisses;

  VolIndex volume = 0;
  EXPECT_TRUE(cache->findVolume("b2", volume));
  EXPECT_EQ(volume, 2);
  EXPECT_FALSE(cache->findVolume("none", volume));
  EXPECT_TRUE(cache->touch("a1"));
  EXPECT_FALSE(cache->touch("none"));
  cache->forget("c3");
  ctx.volume = 2;
  EXPECT_EQ(outcome(cache->remember(ctx, "e5")), "success");
  EXPECT_EQ(outcome(cache->remember(ctx, "b/")), "EINVAL");

  uint64_t given = 7;
  EXPECT_EQ(outcome(cache->giveUpOldest(3, given)), "ENOSPC");  // b2 refuses and goes to the front
  EXPECT_EQ(given, 0U);
  EXPECT_EQ(outcome(cache->giveUpOldest(2, given)), "success");
  EXPECT_EQ(given, 2U);
  refused.clear();
  EXPECT_EQ(outcome(cache->giveUpOldest(9, given)), "success");
  EXPECT_EQ(given, 2U);
  EXPECT_EQ(asked, (std::vector<std::string>{"b2", "d4", "a1", "e5", "b2"}));
  EXPECT_TRUE(Access::lru(*cache).CheckInvariants());
  EXPECT_EQ(Access::space(*cache).stats().lruHits, hits);
  EXPECT_EQ(Access::space(*cache).stats().lruMisses, misses);
}

}  // namespace
}  // namespace ObjectStore
