#include <unistd.h>

#include <random>
#include <tuple>

#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"
#include "tests/support/soak.h"

namespace ObjectStore {
namespace {

using namespace std::literals;
const std::string SEGMENT = "abcd-1";

class ReadTest : public EngineTest {
 protected:
  void SetUp() override {
    start();
    log.setLevel(LogLevel::NoSpace);
    (void)create(SEGMENT, {section(3, "worlds", 9), section(0, "hello", 7)});  // records at 136 and 158
    log.clear();
  }
  // "outcome; level text" and how many descriptors on the volume were left open, which are closed.
  std::string told(const CZuError& error) {
    std::string text = outcome(error);
    for (const std::string& line : log.takeTexts()) text += "; " + line;
    size_t left = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      const bool ours = std::filesystem::read_symlink(entry, gone).string().starts_with(volumes[0]);
      if (ours) left += ::close(std::stoi(entry.path().filename())) == 0;
    }
    return text + (left > 0 ? "; left open " + std::to_string(left) : "");
  }
  // told(), the section's length/status and the buffer, at first eight dots.
  std::string readSome(int32_t type, uint64_t offset = 0, uint64_t room = 8) {
    std::string buffer = "........";
    std::vector<Section> one = {section(type, buffer, 0, offset)};
    one[0].bufferSize = room;
    const std::string text = told(cache->readSections(ctx, SEGMENT, one, false));
    return text + ' ' + std::to_string(one[0].len) + '/' + std::to_string(one[0].status) + buffer;
  }
  std::string readWhole(int32_t type) {
    std::vector<unsigned char> data;
    return told(cache->readCompleteSection(ctx, SEGMENT, type, data));
  }
  std::string sizeOf(int32_t type) {
    uint64_t size = 99;
    const std::string text = told(cache->getSectionSize(size, ctx, SEGMENT, type, 0));
    return text + ' ' + std::to_string(size);
  }
};

TEST_F(ReadTest, ReadsWhatThereIsAndTellsMismatches) {
  const std::tuple<int32_t, uint64_t, uint64_t, std::string> cases[] = {
      {0, 0, 8, "5/0hello..."}, {0, 2, 2, "2/0ll......"},    {0, 4, 8, "1/0o......."},
      {0, 5, 8, "0/0........"}, {3, ~0UL, 8, "0/0........"}, {4, 0, 8, "0/2........"}};
  for (const auto& [type, off, room, got] : cases) EXPECT_EQ(readSome(type, off, room), "success " + got);
  const std::string wrong = "EINVAL; -1 Error: wrong type found=3 expected=1";
  std::string bytes = bytesOf(SEGMENT);
  writeFile(pathOf(SEGMENT), bytes.replace(16, 1, "\x88"));  // type 1 at the record of type 3
  EXPECT_EQ(readSome(1), wrong + "; left open 1 8/0........");
  EXPECT_EQ(readWhole(1), wrong + "; left open 1");
  EXPECT_EQ(sizeOf(1), wrong + " 6");
  EXPECT_EQ(readWhole(4), "ENOENT; left open 1");
  EXPECT_EQ(sizeOf(4), "ENOENT 99");
  EXPECT_EQ(sizeOf(6), "EINVAL; -1 Error: invalid section type (6) 99");
  EXPECT_TRUE(readWhole(6).ends_with("Can't find sections in [abcd-1]: Invalid argument (22); left open 1"));
  writeFile(pathOf(SEGMENT), bytes.replace(2, 1, "\2"));
  EXPECT_TRUE(sizeOf(0).starts_with("EINVAL; -1 Error: incorrect disk cache version (0x2); -1 Error"));
  writeFile(pathOf(SEGMENT), bytes.replace(0, 1, "\2"));
  EXPECT_TRUE(sizeOf(0).starts_with("EINVAL; -1 Error: incorrect magic number (0xdc02); -1 Error: invalid"));
}

// Neither an honest miss nor a read costs more calls than its looks, whatever moves elsewhere.
TEST_F(ReadTest, AMissLooksOnceIntoEachPlace) {
  const auto callsOf = [&](const guid_t& guid) {
    std::string buffer(8, '.');
    std::vector<Section> one = {section(0, buffer)};
    const FaultPlan plan;
    (void)cache->readSections(ctx, guid, one, false);
    return plan.trace();
  };
  using Calls = std::vector<std::string>;
  for (const guid_t& guid : {"missing"s, SEGMENT}) {
    Calls calls = guid == SEGMENT ? Calls{"open", "read", "pread", "pread", "close"} : Calls{"open"};
    ctx.useNonPrunableDir = false;
    EXPECT_EQ(callsOf(guid), calls);
    ctx.useNonPrunableDir = true;
    calls.insert(calls.begin(), "access");
    EXPECT_EQ(callsOf(guid), calls);
  }
}

TEST_F(ReadTest, DamagedFilesGiveErrorsOrTheirOwnBytes) {
  const auto renew = [&](const std::string& bytes) {
    std::filesystem::remove(pathOf(SEGMENT));  // some file systems flush a file that is cut and written again
    writeFile(pathOf(SEGMENT), bytes);
  };
  const auto survive = [&](const std::string& bytes) {
    const auto has = [&](const auto& part) {
      return bytes.find(std::string(part.begin(), part.end())) != bytes.npos;
    };
    renew(bytes);
    for (const int32_t type : {0, 1, 3}) {
      const std::string guard(8, '#');
      std::string buffer = guard + guard + guard;
      std::vector<Section> one = {section(type, guard)};
      one[0].data = reinterpret_cast<unsigned char*>(buffer.data()) + guard.size();
      CZuError error = cache->readSections(ctx, SEGMENT, one, true);
      ASSERT_TRUE(error.IsError() || (one[0].len <= guard.size() && has(buffer.substr(8, one[0].len))));
      ASSERT_EQ(buffer.substr(0, 8) + buffer.substr(16), guard + guard);
      std::vector<unsigned char> data;
      error = cache->readCompleteSection(ctx, SEGMENT, type, data);
      ASSERT_TRUE(data.capacity() <= bytes.size() && (error.IsError() || has(data)));
    }
    std::vector<SectionV> all;
    const CZuError error = cache->readAllSections(ctx, SEGMENT, all);
    size_t allocated = 0;
    for (const SectionV& s : all) {
      allocated += s.data.capacity();
      ASSERT_TRUE(error.IsError() || has(s.data));
    }
    ASSERT_LE(allocated, bytes.size());
    (void)cache->writeSections(ctx, SEGMENT, {section(0, "AB", 7), section(1, "CD"), section(3, "EF", 9)},
                               false, ForceDiskLoc::Default);
    renew(bytes);
    (void)cache->truncateSection(ctx, SEGMENT, 0, 7, 2);
    ASSERT_EQ(Access::openSegments(*cache), 0U);
    told({});  // closes what was left open
  };
  const std::string good = bytesOf(SEGMENT);
  std::string sixfold = good;  // every slot at the first record, which is most of the file
  for (size_t slot = 8; slot < 56; slot += 8) sixfold.replace(slot, 1, "\x88");
  survive(sixfold.replace(144, 2, "\xd0\x07") + std::string(2000, 'x'));
  for (size_t at = 0; at < good.size() && !HasFatalFailure(); ++at) {
    SCOPED_TRACE(at);
    survive(good.substr(0, at));
    for (const char value : {'\0', '\x01', '\x7f', '\x80', '\xff'})
      survive(std::string(good).replace(at, 1, 1, value));
  }
  std::minstd_rand random(17);
  for (size_t i = 0; i < soaked(200) && !HasFatalFailure(); ++i) {
    SCOPED_TRACE(i);
    std::string bytes = good;
    for (size_t n = 1 + random() % 8; n > 0; --n)
      bytes[random() % bytes.size()] = static_cast<char>(random());
    survive(bytes);
  }
}

}  // namespace
}  // namespace ObjectStore
