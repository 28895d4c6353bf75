// The engine's operations for clients that read the bytes themselves.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "diskcache/diskcacheSpace.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

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
  const std::string first(3000, 'x');
  ASSERT_EQ(outcome(create("whole", {section(0, first), section(1, "trailer")})), "success");
  const size_t descriptors = openDescriptors();
  EXPECT_EQ(readPlace("whole", 0), first);
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
  EXPECT_EQ(damaged(patched(sectionSlotOffset(0), 60)), "[EINVAL]");
  EXPECT_EQ(damaged(patched(sectionSlotOffset(0) + 7, '\xff')), "[EINVAL]");
  EXPECT_EQ(damaged(patched(SEGMENT_HEADER_SIZE + offsetof(SectionDesc, len) + 7, '\xff')), "[EINVAL]");
  EXPECT_EQ(damaged(patched(SEGMENT_HEADER_SIZE, 3)), "[EINVAL]");

  EXPECT_TRUE(log.has(LogLevel::Error, "Error: [" + pathOf("damaged") + "] is no whole segment (5)"));
  fs::create_symlink(pathOf("whole"), pathOf("whole link"));
  EXPECT_EQ(readPlace("whole link", 0), "[ELOOP]");
  EXPECT_TRUE(log.has(LogLevel::Error, "Error: can't open file [" + pathOf("whole link") + "] (40)"));
  ASSERT_EQ(mkfifo(pathOf("whole pipe").c_str(), 0600), 0);
  EXPECT_EQ(readPlace("whole pipe", 0), "[EINVAL]");
  fs::create_directories(pathOf("whole dir"));
  EXPECT_EQ(readPlace("whole dir", 0), "[EINVAL]");
  EXPECT_EQ(openDescriptors(), descriptors);
}

// Whatever room is given for payloads, and wherever the records lie, what was read on the way is a front of the
// payload, and what lies where is the same.
TEST_F(DirectTest, OpenSectionReadsTheFrontsOfPayloadsOnTheWay) {
  start();
  std::string texts[] = {std::string(1000, '\0'), std::string(300, '\0')};
  const auto& [payload, trailer] = texts;
  for (size_t i = 0; i < payload.size(); ++i) texts[0][i] = static_cast<char>(i * 7 + i / 256);
  for (size_t i = 0; i < trailer.size(); ++i) texts[1][i] = static_cast<char>(i * 5 + 100 + i / 256);
  const guid_t guids[] = {"in order", "turned", "with another"};
  ASSERT_EQ(outcome(create(guids[0], {section(0, payload), section(1, trailer)})), "success");
  ASSERT_EQ(outcome(create(guids[1], {section(1, trailer), section(0, payload)})), "success");
  ASSERT_EQ(outcome(create(guids[2], {section(0, payload), section(2, "between"), section(1, trailer)})),
            "success");
  const size_t rooms[] = {0, 1, 15, 16, 17, 999, 1000, 1001, 1016, 1017, 1315, 1316, 1317, 4000};
  std::vector<SectionPlace> places{{0}, {1}};  // what an earlier use left in them does not count
  for (const guid_t& guid : guids) {
    for (const size_t first : rooms) {
      for (const size_t second : rooms) {
        SCOPED_TRACE(testing::Message() << guid << ' ' << first << ' ' << second);
        std::string buffers[] = {std::string(first, 'f'), std::string(second, 'l')};
        for (size_t i = 0; i < 2; ++i) {
          places[i].data = reinterpret_cast<unsigned char*>(buffers[i].data());
          places[i].bufferSize = buffers[i].size();
        }
        int fd = -1;
        ASSERT_EQ(outcome(cache->openSection(fd, places, ctx, guid)), "success");
        close(fd);
        const std::string whole = bytesOf(guid);
        for (size_t i = 0; i < 2; ++i) {
          EXPECT_EQ(places[i].len, texts[i].size());
          EXPECT_EQ(whole.substr(places[i].offset, places[i].len), texts[i]);
          ASSERT_LE(places[i].read, std::min(buffers[i].size(), texts[i].size()));
          EXPECT_EQ(buffers[i].substr(0, places[i].read), texts[i].substr(0, places[i].read));
        }
        const bool isOnTheWay = &guid == guids && first >= payload.size() && second >= 999;
        EXPECT_TRUE(!isOnTheWay || places[1].read == trailer.size());
      }
    }
  }
}

TEST_F(DirectTest, TheListIsTouchedAskedAndShortenedWithoutWorkOnFiles) {
  std::vector<std::string> asked;
  std::string refused = "b2";
  options.volumes = 2;
  options.prunerCallback = [&](auto& name, auto& path, const std::string& guid) {
    asked.push_back(guid);
    uint64_t nested = 0;
    EXPECT_EQ(outcome(cache->giveUpOldest(1, nested)), "ENOSPC");
    VolIndex volume = 0;
    EXPECT_TRUE(cache->findVolume(guid, volume));  // still known while it is asked about
    EXPECT_EQ(name + ' ' + path, "ctx " + cache->guid2path(guid, volume, "ctx"));
    return guid != refused;
  };
  start();
  for (const char* guid : {"a1", "b2", "c3", "d4"}) put(guid, guid);
  const uint64_t hits = space().stats().lruHits, misses = space().stats().lruMisses;

  VolIndex volume = 0;
  EXPECT_TRUE(cache->findVolume("b2", volume));
  EXPECT_EQ(volume, 2);
  EXPECT_FALSE(cache->findVolume("none", volume));
  EXPECT_EQ(volume, 2) << "is left alone";
  EXPECT_FALSE(cache->touch("none"));
  cache->forget("c3");
  DiskCacheContext other = makeContext("other");  // nobody has registered
  other.volume = ctx.volume = 2;
  EXPECT_EQ(outcome(cache->remember(other, "a1")), "success");
  EXPECT_TRUE(cache->findVolume("a1", volume) && volume == 1) << "a known one stays where it was";
  EXPECT_EQ(outcome(cache->remember(ctx, "e5")), "success");
  EXPECT_TRUE(cache->touch("d4"));
  EXPECT_EQ(outcome(cache->remember(ctx, "b/")), "EINVAL");
  const FailingNew failing(1);
  EXPECT_EQ(outcome(cache->remember(ctx, "b/")), "ENOMEM");

  uint64_t given = 7;
  EXPECT_EQ(outcome(cache->giveUpOldest(3, given)), "ENOSPC");  // b2 refuses and goes to the front
  EXPECT_EQ(given, 0U);
  log.clear();
  EXPECT_EQ(outcome(cache->giveUpOldest(2, given)), "success");
  EXPECT_NE(log.take().back().operation.find("giveUpOldest"), std::string::npos);
  EXPECT_EQ(given, 2U);
  refused.clear();
  EXPECT_EQ(outcome(cache->giveUpOldest(9, given)), "success");
  EXPECT_EQ(given, 2U);
  EXPECT_EQ(asked, (std::vector<std::string>{"b2", "a1", "e5", "d4", "b2"}));
  EXPECT_EQ(space().stats().lruHits, hits);
  EXPECT_EQ(space().stats().lruMisses, misses);
}

}  // namespace
}  // namespace ObjectStore
