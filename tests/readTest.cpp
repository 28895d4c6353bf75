// The readers of sections: what each gives back, and tells of a file that is cut, damaged or not there.
#include <unistd.h>

#include <random>
#include <tuple>

#include "tests/support/engineFixture.h"
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
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      const bool ours = fs::read_symlink(entry, gone).string().starts_with(volumes[0]);
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
    const std::string text = told(cache->readCompleteSection(ctx, SEGMENT, type, data));
    return text + (data.empty() ? "" : ' ' + std::string(data.begin(), data.end()));
  }
  // told() and of each section " type/subType" and the payload.
  std::string readAll(std::vector<SectionV> all = {}) {
    std::string text = told(cache->readAllSections(ctx, SEGMENT, all));
    for (const SectionV& s : all) {
      text += ' ' + std::to_string(s.type) + '/' + std::to_string(s.subType);
      text.append(s.data.begin(), s.data.end());
    }
    return text;
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
  EXPECT_NE(told(write(SEGMENT, {section(1, "W", 9)})).find("different section 1/9->39;"), std::string::npos);
  std::vector<unsigned char> data;
  const CZuError none = cache->readCompleteSection(ctx, SEGMENT, 4, data);
  EXPECT_EQ(none.AsString(), "Can't find section 4 in [abcd-1]: No such file or directory (2)");
  EXPECT_EQ(told(none), "ENOENT; left open 1");
  EXPECT_EQ(sizeOf(4), "ENOENT 99");
  EXPECT_EQ(sizeOf(6), "EINVAL; -1 Error: invalid section type (6) 99");
  EXPECT_TRUE(readWhole(6).ends_with("Can't find sections in [abcd-1]: Invalid argument (22); left open 1"));
  for (const char version : {'\0', '\2'}) {
    writeFile(pathOf(SEGMENT), bytes.replace(2, 1, 1, version));
    EXPECT_TRUE(sizeOf(0).starts_with("EINVAL; -1 Error: incorrect disk cache version (0x" +
                                      std::to_string(version) + "); -1 Error"));
  }
  writeFile(pathOf(SEGMENT), bytes.replace(0, 1, "\2"));
  EXPECT_TRUE(sizeOf(0).starts_with("EINVAL; -1 Error: incorrect magic number (0xdc02); -1 Error: invalid"));
}

// A file with a hole may be as long as its damaged record says: no reason to get so much memory.
TEST_F(ReadTest, AGiantLengthIsNotBelieved) {
  const uint64_t giant = uint64_t{1} << 32;
  std::string bytes = bytesOf(SEGMENT);
  writeFile(pathOf(SEGMENT), bytes.replace(166, 8, reinterpret_cast<const char*>(&giant), 8));
  fs::resize_file(pathOf(SEGMENT), 174 + giant);
  EXPECT_NE(readWhole(0).find(" len=4294967296 (0,0)"), std::string::npos) << "nothing is read";
}

// The record of type 3 lies at 136, its payload at 152; that of type 0 at 158 and 174 to the end, 179.
TEST_F(ReadTest, AllRecordsComeInFileOrderUpToOneThatIsCut) {
  const std::string good = bytesOf(SEGMENT), path = '[' + pathOf(SEGMENT) + ']';
  const auto pointing = [&](size_t type, uint64_t offset) {
    return std::string(good).replace(8 + 8 * type, 8, reinterpret_cast<const char*>(&offset), 8);
  };
  const std::string noFront = "success; -1 Error: incomplete descriptor in " + path + " section ";
  const std::string noPayload = "error 0; -1 Error: can't read file " + path + " len=";
  const std::string noHeader = "; -1 Error: invalid segment header for " + path;
  const std::pair<std::string, std::string> cases[] = {
      {good, "success 3/9worlds 0/7hello"},
      {pointing(5, 136), "success 3/9worlds 3/9worlds 0/7hello"},
      {good.substr(0, 170), noFront + "1 (0,0) 3/9worlds"},
      {good.substr(0, 136), noFront + "0 (0,0) 0/0"},  // one less, not only those that were read
      {pointing(3, 1 << 20), noFront + "1 (0,0) 0/7hello"},
      {pointing(3, ~0UL),
       "success; -1 Error: Can't seek to 18446744073709551615 in " + path + " (22) 0/7hello"},
      {good.substr(0, 176), noPayload + "5 (0) 3/9worlds 0/7"},
      {std::string(good).replace(166, 1, 1, '\0'), noPayload + "0 (0) 3/9worlds 0/7"},
      {good.substr(0, 100), "error 0; -1 Error: can't read segment header (0)" + noHeader},
      {'?' + good.substr(1), "EINVAL; -1 Error: incorrect magic number (0xdc3f)" + noHeader},
      {std::string(good).replace(8, 48, 48, '\0'), "success"}};
  for (const auto& [bytes, got] : cases) {
    writeFile(pathOf(SEGMENT), bytes);
    EXPECT_EQ(readAll(), got);
  }
  fs::remove(pathOf(SEGMENT));
  EXPECT_EQ(readAll(), "ENOENT; -1 Error: can't open file " + path + " (2)");
  cache->forget(SEGMENT);
  EXPECT_EQ(readAll(std::vector<SectionV>(1)), "EINVAL; -1 Error: sections must be empty 0/0");
  EXPECT_TRUE(cache->touch(SEGMENT)) << "it was entered before anything was looked at";
}

TEST_F(ReadTest, RecordsThatAreCutOrEmptyAreToldByEachReaderInItsWay) {
  const std::string good = bytesOf(SEGMENT), path = '[' + pathOf(SEGMENT) + ']';
  const std::string noFile = "; -1 Error: can't read file " + path + ' ';
  const auto empty = [&](char type) {
    return std::string(good).replace(158, 1, 1, type).replace(166, 1, 1, '\0');
  };
  const std::string wrong = "EINVAL; -1 Error: wrong type found=1 expected=0";
  const std::string header = "EIO; -1 Error: can't read segment header, size=100 (0); -1 Error: invalid " +
                             ("segment header for " + path);
  // the file; what readSections, readCompleteSection and getSectionSize tell of type 0
  const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
      {good.substr(0, 100), header + " 8/0........", header, header + " 99"},
      {good.substr(0, 170), "success; -1 Error: can't read descriptor " + path + " len=16 (12,0) 0/0........",
       "error 0" + noFile + "(12,0)", "error 0" + noFile + "len=16 (12,0) 99"},
      {good.substr(0, 176), "error 0" + noFile + "len=5 (2,0) 8/0he......",
       "error 0" + noFile + "len=5 (0,0)", "success 5"},
      {empty(0), "success 0/0........", "success", "success 0"},
      {empty(1), "success 0/0........", wrong + "; left open 1", wrong + " 0"}};
  for (const auto& [bytes, some, whole, size] : cases) {
    writeFile(pathOf(SEGMENT), bytes);
    EXPECT_EQ(readSome(0), some);
    EXPECT_EQ(readWhole(0), whole);
    EXPECT_EQ(sizeOf(0), size);
  }
}

TEST_F(ReadTest, SectionsAreFilledInTheOrderAskedUpToOneThatCannotBe) {
  std::string buffers[] = {"........", "....", "........", "........"};
  std::vector<Section> asked = {section(0, buffers[0]), section(4, buffers[1]), section(3, buffers[2], 0, 2),
                                section(6, buffers[3])};
  asked[0].status = 9;
  EXPECT_EQ(told(cache->readSections(ctx, SEGMENT, asked, false)),
            "EINVAL; -1 Error: invalid section type (6); -1 Error: can't search for section in [" +
                pathOf(SEGMENT) + ']');
  std::string got;
  for (size_t i = 0; i < asked.size(); ++i)
    got += std::to_string(asked[i].len) + '/' + std::to_string(asked[i].status) + buffers[i] + ' ';
  EXPECT_EQ(got, "5/9hello... 0/2.... 4/0rlds.... 8/0........ ");
  std::vector<Section> none;
  EXPECT_EQ(told(cache->readSections(ctx, SEGMENT, none, false)), "success");
  fs::resize_file(pathOf(SEGMENT), 0);
  EXPECT_TRUE(told(cache->readSections(ctx, SEGMENT, none, false)).starts_with("EIO; "));
}

// An empty second directory is none for the question whether a segment exists, and one for those who read it.
TEST_F(ReadTest, TheCopyInTheSecondPlaceCountsForWhoHasOne) {
  const std::string good = bytesOf(SEGMENT), regular = pathOf(SEGMENT);
  const auto marked = [&](char c) { return std::string(good).replace(174, 1, 1, c); };
  // useNonPrunableDir, nonprunableDir, which copies are there (Regular, Override, in the volume Itself)
  const std::tuple<bool, std::string, std::string, bool, std::string> cases[] = {
      {true, "np", "RO", true, "success Oello"},
      {true, "np", "O", true, "success Oello"},
      {true, "np", "R", true, "success Rello"},
      {false, "np", "RO", true, "success Rello"},
      {false, "np", "O", false, "ENOENT; -1 Error: can't open file [" + regular + "] (2)"},
      {true, "", "I", false, "success Iello"},
      {true, "", "RI", true, "success Iello"}};
  for (const auto& [uses, second, copies, exists, got] : cases) {
    SCOPED_TRACE(copies + " in " + second);
    for (const char* place : {"ctx", "np", "ab"}) fs::remove_all(volumes[0] + '/' + place);
    for (const char copy : copies)
      writeFile(cache->guid2path(SEGMENT, 1, copy == 'R' ? "ctx" : copy == 'O' ? "np" : ""), marked(copy));
    ctx.useNonPrunableDir = uses;
    ctx.nonprunableDir = second;
    EXPECT_EQ(cache->doesSegmentExist(ctx, SEGMENT), exists);
    EXPECT_EQ(readWhole(0), got);
  }
}

TEST_F(ReadTest, DamagedFilesGiveErrorsOrTheirOwnBytes) {
  const auto renew = [&](const std::string& bytes) {
    fs::remove(pathOf(SEGMENT));  // some file systems flush a file that is cut and written again
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
    (void)write(SEGMENT, {section(0, "AB", 7), section(1, "CD"), section(3, "EF", 9)});
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
