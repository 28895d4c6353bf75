// Creating and writing segments; and, for the readers too, what becomes of each system call that fails.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <tuple>

#include "diskcache/diskcacheSpace.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"

using namespace std::string_literals;

namespace ObjectStore {
namespace {

using F = ForceDiskLoc;

const std::string SEGMENT = "abcd-1";
constexpr uint64_t ONE_WRITE = 2'147'479'552;  // bytes that the system moves at most
const std::string HELLO = "hello";
const std::string LONG = std::string(9'997, '\0') + "end";

class WriteTest : public EngineTest {
 protected:
  void SetUp() override {
    start();
    put("abcd-0", "makes the directories");
    log.setLevel(LogLevel::NoSpace);
  }
  uint64_t refused() { return space().stats().errOutOfSpace.value(); }

  // Runs an operation, the nth of its calls failing with a number or, when that is 0, moving two bytes only:
  // what it told and logged, with names for what differs.
  std::string run(const std::function<std::string()>& operation, size_t nth = 0, int errNo = 0) {
    log.clear();
    const size_t descriptors = openDescriptors();
    const int next = ::dup(STDERR_FILENO);  // the number that the operation's file will have
    ::close(next);
    FaultPlan plan;
    if (nth > 0) errNo ? plan.fail(FaultPlan::ANY, nth, errNo) : plan.shortTransfer(FaultPlan::ANY, nth, 2);
    errno = EBUSY;  // never to be reported
    const std::string told = operation();
    calls = plan.takeTrace();
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(Access::openSegments(*cache), 0U);
    std::string text;
    for (const std::string& line : log.takeTexts()) text += "; " + line;
    for (const auto& [name, what] : {std::pair{"DETAILS", failure.AsString(EErrorOutputFormat::Detailed)},
                                     {"FILE", pathOf(SEGMENT)},
                                     {"VOL", volumes[0]},
                                     {"OPEN", "Opening disk segment for [" + SEGMENT + ']'},
                                     {"TOUCH", "addToLru: [" + SEGMENT + "] num=2 max=1000"},
                                     {"file FD ", "file " + std::to_string(next) + ' '},
                                     {"MAX", std::to_string(~0UL)}}) {
      for (size_t at = 0; (at = text.find(what)) != std::string::npos;) text.replace(at, what.size(), name);
    }
    return told + text;
  }

  // Runs an operation as it is, then with each of its calls failing for lack of space and, where bytes move, cut
  // to two. A line of each, but of those that end as if nothing had failed.
  std::string sweep(const std::function<std::string()>& operation, bool cuts) {
    const std::string success = run(operation);
    const std::vector<std::string> all = calls;
    std::string told = "\n";
    for (const std::string& call : all) told += call + ' ';
    told += "| " + success + '\n';
    for (const int errNo : {ENOSPC, 0}) {
      for (size_t i = 0; i < all.size(); ++i) {
        const bool moves = all[i].ends_with("write") || all[i].ends_with("read");
        if (errNo == 0 && !(cuts && moves)) continue;
        const std::string line = run(operation, i + 1, errNo);
        if (line != success) told += all[i] + (errNo != 0 ? " | " : " cut | ") + line + '\n';
      }
    }
    return told;
  }

  // A file behind its first eight bytes: letters as they are, other bytes as numbers, zeros in a row as one.
  static std::string shown(const std::string& path) {
    if (!fs::exists(path)) return " none";
    std::string text = " [";
    const std::string bytes = readFile(path).erase(0, 8);
    for (const char signedByte : bytes) {
      const auto c = static_cast<unsigned char>(signedByte);
      if (c == 0 && text.ends_with("0.")) continue;
      text += std::isalpha(c) ? std::string(1, static_cast<char>(c)) : std::to_string(c) + '.';
    }
    return text + ']';
  }
  // sweep() of an operation on a segment of these bytes; tells its file, one aside, and what was counted.
  std::string sweepWrites(const std::string& before, const std::function<CZuError()>& write, bool cuts) {
    const std::string path = pathOf(SEGMENT), aside = path + ".temp";
    const auto operation = [&] {
      for (const std::string& file : {path, aside}) fs::remove(file);
      if (!before.empty()) writeFile(path, before);
      const uint64_t old[] = {space().used(), space().segments(), refused()};
      failure = write();
      std::string text = outcome(failure) + shown(path);
      if (fs::exists(aside)) text += " aside" + shown(aside);
      if (space().used() != old[0]) text += " counted";
      if (space().segments() != old[1]) text += " new";
      return text + (refused() != old[2] ? " refused" : "");
    };
    return sweep(operation, cuts);
  }

  CZuError failure;                // of the last write
  std::vector<std::string> calls;  // of the last run
};

TEST_F(WriteTest, FilesAreRightByteForByte) {
  // The second record of type 0 lies behind the first, which stays; the header points at the newer one.
  const std::string golden =
      "\xdc\xdc\1\0\0\0\0\0\xb4\0\0\0\0\0\0\0"s + std::string(32, '\0') + "\x9d"s + std::string(87, '\0') +
      "\0\0\0\0\7\0\0\0\5\0\0\0\0\0\0\0hello\5\0\0\0\x9\0\0\0\7\0\0\0\0\0\0\0\0\0\0\0xyz"
      "\0\0\0\0\x8\0\0\0\5\0\0\0\0\0\0\0again"s;
  (void)create(SEGMENT, {section(0, "hello", 7), section(5, "xyz", 9, 4), section(0, "again", 8)});
  EXPECT_EQ(bytesOf(SEGMENT), golden);
}

TEST_F(WriteTest, CreateAtEachFailingCall) {
  DiskCacheContext other = makeContext("other");  // the segment goes to its second place
  std::tie(other.nonprunableDir, other.useNonPrunableDir) = std::pair(ctx.dir, true);
  fs::create_directories(volumes[0] + "/other/ab/cd");
  const auto make = [&] { return cache->createSegment(other, SEGMENT, {}, true, true, false); };
  EXPECT_EQ(sweepWrites("", make, false), R"(
statvfs mkdir access access mkdir open write fstat fsync close | success [0.] counted new
statvfs | ENOSPC none refused; 4 Can't get free space for VOL (28); 4 Error: Can't find volume with free space
mkdir | ENOSPC none; -1 Error: Can't create directory for segment creation: [VOL/other/ab/cd]
access | EEXIST none; -1 Error: File already exists: [VOL/other/ab/cd/abcd-1]
access | EEXIST none; -1 Error: File already exists: [FILE]
mkdir | ENOSPC none; -1 Error: Can't create directory for segment creation: [VOL/ctx/ab/cd]
write | ENOSPC [] refused; -1 Error: Can't write header (28); -1 Error: Can't write header for [FILE]
fstat | ENOSPC [0.]; -1 Error: can't get file size [FILE] (28)
fsync | ENOSPC [0.] counted; -1 Error: can't fsync file [FILE] (28)
)");
  EXPECT_EQ(run([&] { return fs::remove(pathOf(SEGMENT)), outcome(make()); }, 6, ENOENT), "success");
  EXPECT_EQ(calls[6], "mkdir") << "the empty directory may have been taken away";
  fs::remove(pathOf(SEGMENT));
  FaultPlan plan;
  plan.fail("open", 1, ENOENT).fail("mkdir", 3, EROFS);
  EXPECT_EQ(outcome(make()), "EROFS");
}

TEST_F(WriteTest, WriteSectionsAtEachFailingCall) {
  // In place, longer than before, and then behind that.
  const std::vector<Section> sections = {section(0, HELLO, 7, 3), section(3, LONG)};
  const std::string before =
      "\xdc\xdc\1\0\0\0\0\0\x88"s + std::string(131, '\0') + "\7\0\0\0\5\0\0\0\0\0\0\0start"s;
  const auto write = [&] { return cache->writeSections(ctx, SEGMENT, sections, true, F::Default); };
  EXPECT_EQ(sweepWrites(before, write, true), R"(
open fstat read pwrite pread pwrite lseek pwrite pwrite pwrite fstat fsync close | success [136.0.160.7.0.8.0.stahello3.0.16.39.0.end] counted
open | ENOSPC [136.0.7.0.5.0.start]; -1 Error: can't open file [FILE] (28)
fstat | ENOSPC [136.0.7.0.5.0.start]; -1 Error: can't get file size for [FILE] (28)
read | ENOSPC [136.0.7.0.5.0.start]; -1 Error: can't read segment header, size=-1 (28); -1 Error: invalid segment header for [FILE]
pwrite | ENOSPC [136.0.7.0.5.0.start] refused; -1 Error: can't write to file FD (28), [3]; 4 Error: can't modify section in [FILE]
pread | ENOSPC [136.0.7.0.5.0.stahello]; -1 Error: can't read from file FD (28); 4 Error: can't modify section in [FILE]
pwrite | ENOSPC [136.0.7.0.5.0.stahello] refused; 4 Error: can't write to file FD (28); 4 Error: can't modify section in [FILE]
lseek | EINVAL [136.0.255.255.255.255.255.255.255.255.0.7.0.8.0.stahello]; -1 Error: can't write to file FD (MAX,22) len=10000; -1 Error: can't append section to [FILE]
pwrite | ENOSPC [136.0.7.0.8.0.stahello] refused; 4 Error: can't write to file FD (MAX,28); 4 Error: can't append section to [FILE]
pwrite | ENOSPC [136.0.160.7.0.8.0.stahello] refused; 4 Error: can't write to file FD (MAX,28) len=10000; 4 Error: can't append section to [FILE]
pwrite | ENOSPC [136.0.160.7.0.8.0.stahello0.end] refused; 4 Error: can't write to file FD (MAX,28) len=16; 4 Error: can't append section to [FILE]
fstat | ENOSPC [136.0.160.7.0.8.0.stahello3.0.16.39.0.end]; -1 Error: can't get file size [FILE] (28)
fsync | ENOSPC [136.0.160.7.0.8.0.stahello3.0.16.39.0.end] counted; -1 Error: can't fsync file [FILE] (28)
read cut | EIO [136.0.7.0.5.0.start]; -1 Error: can't read segment header, size=2 (0); -1 Error: invalid segment header for [FILE]
pwrite cut | ENOSPC [136.0.7.0.5.0.stahello] refused; -1 Error: can't write to file FD (28), [3]; 4 Error: can't modify section in [FILE]
pread cut | error 0 [136.0.7.0.5.0.stahello]; -1 Error: can't read from file FD (0); -1 Error: can't modify section in [FILE]
pwrite cut | ENOSPC [136.0.7.0.8.0.stahello] refused; 4 Error: can't write to file FD (28); 4 Error: can't modify section in [FILE]
pwrite cut | ENOSPC [136.0.160.7.0.8.0.stahello] refused; 4 Error: can't write to file FD (2,28); 4 Error: can't append section to [FILE]
pwrite cut | ENOSPC [136.0.160.7.0.8.0.stahello0.end] refused; 4 Error: can't write to file FD (2,28) len=10000; 4 Error: can't append section to [FILE]
pwrite cut | ENOSPC [136.0.160.7.0.8.0.stahello3.0.16.39.0.end] refused; 4 Error: can't write to file FD (2,28) len=16; 4 Error: can't append section to [FILE]
)");
}

TEST_F(WriteTest, ReplaceAtEachFailingCall) {
  const auto replace = [&] { return cache->replaceSegment(ctx, SEGMENT, {}); };
  EXPECT_EQ(sweepWrites("\xdc\xdc\1\0\0\0\0\0old"s, replace, false), R"(
open fstat write close rename | success [0.]
open | ENOSPC [old]; -1 Error: can't open file [FILE] (28)
fstat | ENOSPC [old] aside []; -1 Error: can't open file [FILE] (28)
write | ENOSPC [old] aside [] refused; -1 Error: Can't write header (28); -1 Error: can't write segment header for [FILE]
rename | ENOSPC [old] aside [0.]; -1 DETAILS: Can't rename [FILE.temp] to [FILE]: No space left on device (28)
)");
  // What a failure left is written over, not cut: the new sections go behind it.
  writeFile(pathOf(SEGMENT) + ".temp", LONG);
  EXPECT_EQ(outcome(cache->replaceSegment(ctx, SEGMENT, {section(5, HELLO, 7)})), "success");
  EXPECT_EQ(shown(pathOf(SEGMENT)), " [0.16.39.0.end5.0.7.0.5.0.hello]");
}

TEST_F(WriteTest, DeletionAtEachFailingCall) {
  ctx.useNonPrunableDir = true;
  const auto remove = [&] {
    writeFile(nonPrunablePathOf(SEGMENT), "override");
    return cache->deleteSegment(ctx, SEGMENT, false, false, Recycle::No);
  };
  EXPECT_EQ(sweepWrites("\xdc\xdc\1\0\0\0\0\0old"s, remove, false), R"(
access stat unlink access stat unlink access access access access | success none counted new
stat | ENOSPC [old]; -1 Error: can't stat [VOL/noprune-ctx/ab/cd/abcd-1] (28); -1 DETAILS: Error: Can't delete [abcd-1]: No space left on device (28)
unlink | ENOSPC [old]; -1 Error: can't unlink file [VOL/noprune-ctx/ab/cd/abcd-1] (28); -1 DETAILS: Error: Can't delete [abcd-1]: No space left on device (28)
stat | ENOSPC [old] counted new; -1 Error: can't stat [FILE] (28)
unlink | ENOSPC [old] counted new; -1 Error: can't unlink file [FILE] (28)
)");
}

TEST_F(WriteTest, ReadersAtEachFailingCall) {
  put(SEGMENT, HELLO);
  const auto readOne = [&] {
    std::string buffer = "........";
    std::vector<Section> one = {section(0, buffer)};
    const std::string text = outcome(cache->readSections(ctx, SEGMENT, one, false));
    return text + ' ' + std::to_string(one[0].len) + buffer;
  };
  const auto readAll = [&] {
    std::vector<SectionV> all;
    std::string text = outcome(cache->readAllSections(ctx, SEGMENT, all));
    for (const SectionV& s : all) text += " got " + std::string(s.data.begin(), s.data.end());
    return text;
  };
  EXPECT_EQ(sweep(readOne, false), R"(
open read pread pread close | success 5hello...
open | ENOSPC 8........; -1 Error: can't open file [FILE] (28)
read | ENOSPC 8........; -1 Error: can't read segment header, size=-1 (28); -1 Error: invalid segment header for [FILE]
pread | success 0........; -1 Error: can't read descriptor [FILE] len=16 (MAX,28)
pread | ENOSPC 8........; -1 Error: can't read file [FILE] len=5 (MAX,28)
)");
  EXPECT_EQ(run(readAll), "success got hello");
  EXPECT_EQ(run([&] { return get(SEGMENT); }, 4, ENOSPC),
            "[ENOSPC]; -1 Error: can't read file [FILE] len=5 (0,28)");
  EXPECT_EQ(run(readAll, 2, ENOSPC), "ENOSPC; -1 Error: can't get file size for [FILE] (28)");
  EXPECT_TRUE(run(readAll, 3, ENOSPC).starts_with("ENOSPC; -1 Error: can't seek to 0 (28); -1 Error: inv"));
  EXPECT_TRUE(run(readAll, 4, ENOSPC).starts_with("ENOSPC; -1 Error: can't read segment header (28); -1"));
  EXPECT_EQ(run(readAll, 5, ENOSPC), "success; -1 Error: Can't seek to 136 in [FILE] (28)");
  EXPECT_EQ(run(readAll, 6, ENOSPC), "success; -1 Error: incomplete descriptor in [FILE] section 0 (0,28)");
  EXPECT_EQ(run(readAll, 7, ENOSPC), "ENOSPC got ; -1 Error: Can't seek to 136 in [FILE] (28)");
  EXPECT_EQ(run(readAll, 8, ENOSPC), "ENOSPC got \0\0\0\0\0; -1 Error: can't read file [FILE] len=5 (28)"s);
}

TEST_F(WriteTest, RefusalsComeInOrder) {
  // type, length, buffer size, bytes free
  const std::tuple<int32_t, uint64_t, uint64_t, int64_t, std::string> refusals[] = {
      {6, 0, 0, 0, "EINVAL; -1 Error: zero length"},
      {6, 5, 4, 0, "EINVAL; -1 Error: len exceeds vector size"},
      {6, ONE_WRITE + 1, ONE_WRITE + 1, 0, "EFBIG; -1 Error: section too long (2147479553)"},
      {6, ONE_WRITE, ONE_WRITE, 0, "EINVAL; -1 Error: invalid section type (6)"},
      {-1, 5, 5, 0, "EINVAL; -1 Error: invalid section type (-1)"},
      {5, 5, 5, 4, "ENOSPC; 4 Error: out of space"}};
  for (const auto& [type, len, bufferSize, free, expected] : refusals) {
    std::vector<Section> one = {section(type, HELLO)};
    one[0].len = len;
    one[0].bufferSize = bufferSize;
    Access::changeVolume(*cache, 1, [bytes = free](Volume& volume) { volume.free = bytes; });
    EXPECT_EQ(run([&] { return outcome(cache->replaceSegment(ctx, SEGMENT, one)); }),
              expected + (type == 5 ? "; 4" : "; -1") + " Error: can't append section to FILE");
  }
  // In place as well, and before a byte is written.
  std::vector<Section> two = {section(0, HELLO), section(0, HELLO)};
  two[0].len = two[0].bufferSize = ONE_WRITE + 1;
  EXPECT_EQ(outcome(write("abcd-0", two)), "EFBIG");
  EXPECT_EQ(get("abcd-0"), "makes the directories");
  EXPECT_EQ(outcome(write("abcd-0", {section(0, "?", 8)})), "EINVAL");
  EXPECT_TRUE(log.has(LogLevel::Error, "Error: writing different section 0/8->00"));
  EXPECT_EQ(get("abcd-0"), "?akes the directories") << "the data is written by then";
  EXPECT_EQ(outcome(write("abcd-0", {section(0, "M"), section(-1, "?")})), "EINVAL");
  EXPECT_TRUE(log.has(LogLevel::Error, "Error: can't search for section 1 in [" + pathOf("abcd-0") + ']'));
  EXPECT_EQ(get("abcd-0"), "Makes the directories") << "no shorter than before";
}

TEST_F(WriteTest, AContextMayMoveOnWrite) {
  put(SEGMENT, "?");
  ctx.useNonPrunableDir = ctx.moveOnWrite = true;
  for (const auto& [text, force] : {std::pair{"1", F::Prunable}, {"2", F::Default}, {"3", F::Prunable}})
    EXPECT_EQ(outcome(write(SEGMENT, {section(0, text)}, force)), "success");
  EXPECT_EQ(bytesOf(SEGMENT).substr(152) + readFile(nonPrunablePathOf(SEGMENT)).substr(152), "32");
}

TEST_F(WriteTest, TheLogTellsWhatEachOperationDoes) {
  log.setLevel(LogLevel::Accounting);
  (void)create(SEGMENT, {section(3, HELLO, 0, 3933)});  // ends six bytes before its first page does
  std::vector<SegmentOperation> operations = operationsOn(SEGMENT);
  std::vector<SectionPlace> none;
  int fd = -1;
  operations.push_back({"", false, [&] { return cache->openSection(fd, none, ctx, SEGMENT); }});
  operations.push_back({"", false, [&] { return cache->doesSegmentExist(ctx, SEGMENT), CZuError(); }});
  const std::vector<size_t> lines[] = {{0, 5},      {5, 2, 3, 4}, {6, 7, 8, 0},      {9, 13, 8, 14},
                                       {9, 10, 16}, {11, 12},     {9, 11, 8, 15, 16}};
  ctx.moveOnWrite = true;  // nowhere to, at first
  std::string told;
  for (const std::vector<size_t>& line : lines) {
    ctx.useNonPrunableDir = &line - lines > 3;  // two places for the operations of the last lines
    for (const size_t& i : line) {
      Access::setSpace(*cache, 10'000, 1'000'000);
      told += (&i == line.data() ? "\n | " : " | ") + run([&] { return outcome(operations[i].run()); });
    }
  }
  EXPECT_EQ(told, R"(
 | success; 5 cache: reading segment [abcd-1] vol=1 secs=1; 5 TOUCH; 5 can't find section 0 (0/0) in [FILE] | success; 5 cache: writing segment [abcd-1] vol=1 secs=1 sync=0 moveOnWrite=1, force=0; 5 TOUCH; 5 OPEN; 5 writing to [FILE]; 9 Trace: m_totalCacheUsed (14096) ADD newSize: [8192] oldSize: [4096]
 | success; 5 cache: writing segment [abcd-1] vol=1 secs=1 sync=0 moveOnWrite=1, force=0; 5 TOUCH; 5 OPEN; 5 writing to [FILE]; 5 modifySection len=4 off=0 secOff=4090; 5 desc.len=4; 9 Trace: m_totalCacheUsed (10000) ADD newSize: [8192] oldSize: [8192] | success; 5 cache: readall segment [abcd-1] vol=1; 5 TOUCH | success; 5 cache: read segment [abcd-1] vol=1 section 0; 5 TOUCH; 5 read 4 bytes | success; 5 getting section size for [abcd-1] vol=1 type=0 sub=0
 | success; 5 cache: writing segment abcd-1 vol=1 secs=1; 5 TOUCH; 5 OPEN | success; 5 cache: truncate segment [abcd-1] vol=1 size=1; 5 TOUCH; 5 OPEN | success; 5 cache: sync segment [abcd-1] vol=1; 5 TOUCH | success; 5 cache: reading segment [abcd-1] vol=1 secs=1; 5 TOUCH; 5 found section 0 off=136 len=1; 5 data size = 1
 | success; 5 copying [abcd-1] from [ctx] to [noprune-ctx] move=0; 5 useNonPrunableDir is false for [abcd-1] | success; 5 cache: deleting segment [abcd-1] vol=1 nonPrun=0 prun=0 recycle=0; 5 cache: deleting [FILE]; 9 Trace: m_totalCacheUsed (5904) subtract: s.st_blocks_x_512 [4096] | success; 5 cache: sync segment [abcd-1] vol=1; 5 TOUCH; 5 can't open file [FILE] (2) | success; 5 cache: creating segment [abcd-1] secs=1 sync=0 nonPrune=0; 5 TOUCH; 5 OPEN; 5 cache: assigning segment to vol 1 [FILE]; 9 Trace: m_totalCacheUsed (14096) ADD allocatedSize: [4096]
 | success; 5 copying [abcd-1] from [ctx] to [noprune-ctx] move=0 | success; 5 cache: marking dirty [abcd-1]; 5 TOUCH; 5 OPEN; 5 copying [abcd-1] from [ctx] to [noprune-ctx] move=1; 5 override file already exists [abcd-1] | success; 5 [VOL/noprune-ctx/ab/cd/abcd-1] exists
 | success; 5 moving [abcd-1] from [noprune-ctx] to [ctx]; 5 TOUCH; 5 OPEN; 5 removing [abcd-1] | success; 5 cache: deleting segment [abcd-1] vol=1 nonPrun=0 prun=0 recycle=1
 | success; 5 copying [abcd-1] from [ctx] to [noprune-ctx] move=0; 5 src segment doesn't exist [abcd-1] | success; 5 moving [abcd-1] from [noprune-ctx] to [ctx]; 5 TOUCH; 5 OPEN; 5 src segment doesn't exist [abcd-1] | ENOENT; 5 cache: sync segment [abcd-1] vol=1; 5 TOUCH; 5 can't open file [FILE] (2); 5 can't open file [VOL/noprune-ctx/ab/cd/abcd-1] (2) | ENOENT; 5 cache: opening sections of [abcd-1] vol=1; 5 Error: can't open file [FILE] (2) | success; 5 [FILE] does not exist)");
}

// A segment is a file: nothing else is followed, waited for, replaced or taken for one.
TEST_F(WriteTest, WhatLiesAtThePathIsLeftAlone) {
  ctx.useNonPrunableDir = true;
  put("elsewhere", "precious");
  const std::string target = pathOf("elsewhere"), precious = readFile(target);
  std::vector<SegmentOperation> operations = operationsOn(SEGMENT);
  operations.resize(9);  // those that need it
  for (const std::string kind : {"link", "fifo", "full fifo", "directory"}) {
    for (const auto& [name, touches, run] : operations) {
      SCOPED_TRACE(kind + ' ' + name);
      const bool replaces = name == "replaceSegment";
      const std::string path = pathOf(SEGMENT) + (replaces ? ".temp" : "");
      fs::remove_all(pathOf(SEGMENT));
      if (kind == "link") fs::create_symlink(target, path);
      if (kind == "directory") fs::create_directory(path);
      if (kind.ends_with("fifo")) ::mkfifo(path.c_str(), 0600);
      const int full = kind == "full fifo" ? ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC) : -1;
      EXPECT_TRUE(full < 0 || ::write(full, precious.data(), precious.size()) > 0);
      EXPECT_TRUE(run().IsError());
      EXPECT_EQ(readFile(target), precious);
      EXPECT_FALSE(fs::is_regular_file(path) && kind != "link");
      EXPECT_FALSE(replaces && fs::exists(pathOf(SEGMENT)));
      if (full >= 0) ::close(full);
      fs::remove_all(path);
    }
  }
}

TEST_F(WriteTest, ANewSegmentTakesNobodysPlace) {
  ctx.useNonPrunableDir = true;
  for (const std::string& path : {pathOf(SEGMENT), nonPrunablePathOf(SEGMENT)}) {
    for (const bool nonPrune : {false, true}) {
      for (const bool dangling : {true, false}) {
        SCOPED_TRACE(path + (nonPrune ? " non-prunable" : "") + (dangling ? " dangling" : ""));
        if (dangling && (path == pathOf(SEGMENT)) == nonPrune) continue;  // absent to those who look there
        writeFile(path, "there");
        if (dangling) fs::remove(path), fs::create_symlink(dir / "nowhere", path);
        cache->setOutOfSpace(!dangling);  // which comes later, but before the file is made
        log.clear();
        EXPECT_EQ(outcome(cache->createSegment(ctx, SEGMENT, {}, false, nonPrune, false)), "EEXIST");
        EXPECT_EQ(log.takeTexts(), std::vector{"-1 Error: File already exists: [" + path + ']'});
        EXPECT_TRUE(dangling ? !fs::exists(dir / "nowhere") : readFile(path) == "there");
        fs::remove(path);
      }
    }
  }
  EXPECT_EQ(outcome(create(SEGMENT, {})), "ENOSPC");
  EXPECT_EQ(std::to_string(refused()) + shown(pathOf(SEGMENT)), "0 none");
  cache->setOutOfSpace(false);
  for (const std::string& name : {"x.temp"s, "x.copying"s, std::string(256, 'x')}) {
    const std::string told = name.size() > 255 ? "ENAMETOOLONG" : "EINVAL";
    const FaultPlan plan;
    EXPECT_EQ(outcome(create(name, {})) + outcome(cache->replaceSegment(ctx, name, {})), told + told);
    EXPECT_EQ(plan.trace(), std::vector<std::string>());
  }
  // The longest name can be replaced and copied, and its neighbour is another segment.
  const std::string longest(255, 'y'), other = longest.substr(1) + 'z';
  put(other, "other");
  put(longest, "old");
  for (const bool move : {false, true}) {
    EXPECT_EQ(outcome(cache->replaceSegment(ctx, longest, {section(0, HELLO)})), "success");
    EXPECT_EQ(fs::status(pathOf(longest)).permissions(), fs::perms(0600));
    EXPECT_EQ(outcome(cache->markDirty(ctx, longest, move)), "success");
    EXPECT_EQ(outcome(cache->moveToPrunable(ctx, longest)), "success");
  }
  EXPECT_EQ(get(longest) + get(other), HELLO + "other");
}

// Whatever the system answers but "no such file" is told, not taken for one.
TEST_F(WriteTest, AnUnclearAnswerIsNotAbsence) {
  ctx.useNonPrunableDir = true;
  put(SEGMENT, "old");
  ASSERT_EQ(outcome(cache->markDirty(ctx, SEGMENT, false)), "success");
  ASSERT_EQ(outcome(write(SEGMENT, {section(0, "new")})), "success");
  const auto unclear = [&](const std::function<std::string()>& operation, size_t nth = 1) {
    FaultPlan plan;
    plan.fail("access", nth, EIO);
    return operation();
  };
  EXPECT_EQ(unclear([&] { return get(SEGMENT); }), "new") << "not the older copy";
  EXPECT_EQ(unclear([&] { return outcome(cache->moveToPrunable(ctx, SEGMENT)); }), "EIO");
  EXPECT_EQ(unclear([&] { return outcome(cache->markDirty(ctx, SEGMENT, true)); }, 2), "EIO");
  EXPECT_EQ(get(SEGMENT), "new");
  EXPECT_TRUE(log.has(LogLevel::Error, "Error: can't look at [" + nonPrunablePathOf(SEGMENT) + "] (5)"));
  EXPECT_TRUE(unclear([&] { return std::to_string(cache->doesSegmentExist(ctx, SEGMENT)); }) == "1");
}

}  // namespace
}  // namespace ObjectStore
