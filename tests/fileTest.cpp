// Files and directories: copies, sizes, names, and what hostile ones do.
#include "support/file.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <thread>

#include "tests/support/faults.h"
#include "tests/support/outcome.h"
#include "tests/support/tempDir.h"

namespace ObjectStore {
namespace {

class FileTest : public ::testing::Test {
 protected:
  // What must not be followed or waited for.
  void makeOddFiles() {
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    fs::create_directory(dir / "directory");
    writeFile(dir / "outside/file", "precious");
    fs::create_symlink(dir / "outside/file", dir / "link");
    fs::create_directory_symlink(dir / "outside", dir / "dirlink");
    fs::create_symlink(dir / "nowhere", dir / "dangling");
  }
  std::string copy(const std::string& from = "from", const std::string& to = "to") {
    return outcome(RMFile::KXCopyFile(dir / from, dir / to, 0));
  }

  TempDir dir;
  std::string content;
};

TEST_F(FileTest, CreateDirMakesWhatIsMissing) {
  makeOddFiles();
  const std::pair<const char*, Texts> cases[] = {
      {"success", {dir / "x", dir / "a/b/c/", dir / "directory", dir / "dirlink", "/"}},
      {"ENOTDIR", {dir / "link", dir / "outside/file", dir / "link/below"}},
      {"EEXIST", {dir / "dangling"}},
      {"ENOENT", {"", "/proc/none/such"}}};
  for (const auto& [expected, paths] : cases) {
    for (const std::string& path : paths) {
      EXPECT_EQ(outcome(createDir(path)), expected) << path;
      EXPECT_EQ(fs::is_directory(path), std::string(expected) == "success") << path;
    }
  }
  EXPECT_EQ(fs::status(dir / "a/b").permissions(), fs::perms::owner_all);
  FaultPlan plan;
  plan.fail("mkdir", 2, ENOSPC);
  EXPECT_EQ(outcome(createDir(dir / "full")), "ENOSPC");
}

// On a thread that takes the test's directory for the root: a missing refusal must not reach the machine.
TEST_F(FileTest, RmTreeRefusesRootsAndDots) {
  writeFile(dir / "kept/file", "x");
  bool confined = false;
  std::thread([&] {
    confined = unshare(CLONE_FS) == 0 && chroot(dir.path().c_str()) == 0 && chdir("/") == 0;
    if (!confined) return;
    for (const char* refused : {"", "/", "//", ".", "..", "./", "kept/..", "/kept/.//"})
      EXPECT_EQ(outcome(rmTree(refused)), "EINVAL") << refused;
  }).join();
  if (!confined) GTEST_SKIP() << "this process may not change its root";
  EXPECT_EQ(treeOf(dir.path()), (Texts{"kept/", "kept/file"}));
}

TEST_F(FileTest, RmTreeStaysInside) {
  makeOddFiles();
  for (const char* kept : {"dirlink", "dirlink/", "link", "dangling", "fifo"}) {
    EXPECT_EQ(outcome(rmTree(dir / kept)), "ENOTDIR") << kept;
    EXPECT_EQ(outcome(emptyTree(dir / kept)), "ENOTDIR") << kept;
  }
  writeFile(dir / "tree/deep/er/file", "x");
  fs::create_directory_symlink(dir / "outside", dir / "tree/deep/dirlink");
  fs::rename(dir / "link", dir / "tree/link");
  fs::rename(dir / "fifo", dir / "tree/fifo");
  FaultPlan plan;
  plan.fail("readdir", 2, EIO);  // a listing cut short must not pass for the whole
  EXPECT_EQ(outcome(rmTree(dir / "tree")), "EIO");
  EXPECT_EQ(outcome(rmTree(dir / "tree//")), "success");
  EXPECT_EQ(outcome(rmTree(dir / "tree")), "ENOENT");
  EXPECT_EQ(treeOf(dir.path()), (Texts{"dangling@", "directory/", "dirlink@", "outside/", "outside/file"}));
}

TEST_F(FileTest, EmptyingATreeOutlastsAWriter) {
  std::atomic<bool> stop = false;
  std::jthread writer([&] {
    const std::string name = dir / "tree/a/new";
    while (!stop) std::ofstream file(name);
  });
  for (int i = 0; i < 300; ++i) {
    for (int file = 0; file < 10; ++file) writeFile(dir / "tree/a/" + std::to_string(file), "");
    EXPECT_EQ(outcome(emptyTree(dir / "tree")), "success");
  }
  stop = true;
}

TEST_F(FileTest, WholeFilesAreReadAsFarAsTheyGo) {
  makeOddFiles();
  writeFile(dir / "huge", "");
  fs::resize_file(dir / "huge", MAX_WHOLE_FILE + 1);
  const std::pair<const char*, const char*> refused[] = {
      {"fifo", "EINVAL"}, {"directory", "EINVAL"}, {"huge", "EFBIG"}, {"missing", "ENOENT"}};
  for (const auto& [name, why] : refused) EXPECT_EQ(outcome(readWholeFile(dir / name, content)), why) << name;
  FaultPlan plan;
  plan.shortTransfer("read", 1, 1);
  EXPECT_EQ(readWholeFile(dir / "outside/file", content, 8), 0) << "as large as may be";
  EXPECT_EQ(content, "precious");
}

TEST_F(FileTest, SizesAreThoseOfTheSystem) {
  writeFile(dir / "file", "precious");
  fs::resize_file(dir / "file", 1 << 20);
  uint64_t bytes = 0, allocated = 0;
  std::FILE* const file = std::fopen((dir / "file").c_str(), "r");
  EXPECT_EQ(outcome(getFileSize(&bytes, &allocated, file)), "success");
  std::fclose(file);
  EXPECT_EQ(std::pair(bytes, allocated), std::pair(uint64_t{1} << 20, uint64_t{4096}));
  long long length = 0;
  EXPECT_EQ(outcome(RMFile::KXGetFileSize(dir / "file", length)), "success");
  EXPECT_EQ(length, 1 << 20);
  EXPECT_EQ(outcome(RMFile::KXGetFileSize(dir / "none", length)), "ENOENT");
  EXPECT_EQ(to_hexstring(reinterpret_cast<void*>(0x1f0a)), "0x1f0a");

  // What a file system keeps for the superuser is not free; others write there while this runs.
  struct statvfs status {};
  ASSERT_EQ(statvfs("/", &status), 0);
  uint64_t freeBytes = 0, totalBytes = 0;
  EXPECT_EQ(outcome(getFreeBytes(&freeBytes, &totalBytes, "/")), "success");
  EXPECT_EQ(totalBytes, status.f_blocks * status.f_frsize);
  EXPECT_NEAR(static_cast<double>(freeBytes), static_cast<double>(status.f_bavail * status.f_frsize), 1e9);
}

TEST_F(FileTest, CopiesKeepBytesHolesAndMode) {
  // Three stretches of data with 1 MiB of nothing between and behind them.
  constexpr long GAP = 1 << 20;
  std::ofstream file(dir / "from");
  for (long i = 0; i < 3; ++i) file.seekp(i * GAP) << std::string(70'000, static_cast<char>('a' + i));
  file.close();
  fs::resize_file(dir / "from", 3 * GAP);
  fs::permissions(dir / "from", fs::perms::owner_all);
  content = readFile(dir / "from");
  // Which call (0: every one) fails with what (0: it moves so many bytes), and whether the copy is made.
  const std::tuple<std::string, size_t, int, size_t, bool> cases[] = {
      {"open", 1, EPERM, 0, true},    // another user's file keeps no access time
      {"lseek", 0, EINVAL, 0, true},  // a file system without holes
      {"copy_file_range", 0, EXDEV, 0, true},
      {"copy_file_range", 2, EINTR, 0, true},
      {"copy_file_range", 2, 0, 10, true},
      {"copy_file_range", 2, 0, 0, true},
      {"pread", 2, 0, 10, true},
      {"pwrite", 2, 0, 10, true},
      {"rename", 1, EIO, 0, false},
      {"ftruncate", 1, EIO, 0, false},
      {"pread", 2, 0, 0, false},  // the source was cut
      {"pwrite", 2, 0, 0, false}};
  for (const auto& [call, nth, errNo, bytes, copied] : cases) {
    SCOPED_TRACE(testing::Message() << call << ' ' << errNo << ' ' << bytes);
    writeFile(dir / "to", "old");
    writeFile(RMFile::temporaryCopyName(dir / "to"), "left behind by a crash");
    const size_t descriptors = openDescriptors();
    FaultPlan plan;
    if (call[0] == 'p') plan.failAlways("copy_file_range", EXDEV);
    errNo ? plan.fail(call, nth, errNo) : plan.shortTransfer(call, nth, bytes);
    EXPECT_EQ(copy(), copied ? "success" : "EIO");
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_TRUE(readFile(dir / "to") == (copied ? content : "old"));
    struct stat status {};
    EXPECT_EQ(stat((dir / "to").c_str(), &status), 0);
    EXPECT_TRUE(!copied || (status.st_mode & 0777) == 0700);
    EXPECT_TRUE(errNo == EINVAL || status.st_blocks * 512 < 1 << 20) << "holes stay holes";
    EXPECT_EQ(treeOf(dir.path()), (Texts{"from", "to"}));
  }
}

TEST_F(FileTest, CopiesAndMovesRefuseOddFiles) {
  makeOddFiles();
  for (const char* odd : {"fifo", "directory", "link", "dangling"}) EXPECT_EQ(copy(odd), "EINVAL") << odd;
  EXPECT_EQ(copy("missing"), "ENOENT");
  EXPECT_EQ(copy("outside/file", "directory"), "EISDIR");
  EXPECT_EQ(outcome(RMFile::KXMoveFileEx(dir / "outside/file", dir / "dangling", 0)), "EEXIST");
  EXPECT_EQ(treeOf(dir.path()).size(), 7U);
}

}  // namespace
}  // namespace ObjectStore
