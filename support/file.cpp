#include "support/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <functional>
#include <system_error>
#include <vector>

#include "support/directory.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

// A failure always has a number: callers take 0 for success.
int failureNumber(int error) { return error == 0 ? EIO : error; }
int lastError() { return failureNumber(errno); }

constexpr mode_t DIR_MODE = 0700;

struct Descriptor {
  explicit Descriptor(int number) : fd(number) {}
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int fd;
};

// Asks about `path` as a directory without a second call: the name "." can never be made, so the answer is
// EEXIST when `path` is a directory, ENOTDIR when it is something else, ENOENT when there is nothing.
int probeDir(const std::string& path) {
  constexpr std::string_view self = "/.";
  std::array<char, PATH_MAX> name;
  if (path.size() + self.size() >= name.size()) return ENAMETOOLONG;
  *std::copy(self.begin(), self.end(), std::copy(path.begin(), path.end(), name.begin())) = '\0';
  errno = 0;
  return mkdir(name.data(), DIR_MODE) == 0 ? EEXIST : lastError();
}

// Moves `length` bytes at `offset` of `in` to the same place of `out`, in the kernel where the file systems
// can and through a buffer where they cannot.
int copyRange(int in, int out, off_t offset, off_t length) {
  off_t readAt = offset;
  off_t writeAt = offset;
  const off_t end = offset + length;
  while (readAt < end) {
    const ssize_t moved = copy_file_range(in, &readAt, out, &writeAt, static_cast<size_t>(end - readAt), 0);
    if (moved > 0) continue;
    if (moved < 0 && errno == EINTR) continue;
    const bool unsupported = errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
    if (moved < 0 && !unsupported) return lastError();
    // Some file systems say with a 0 that they cannot; a read tells that from a source that was cut.
    std::array<char, 64 * 1024> buffer;
    const auto wanted = static_cast<size_t>(std::min<off_t>(end - readAt, static_cast<off_t>(buffer.size())));
    const ssize_t got = pread(in, buffer.data(), wanted, readAt);
    if (got <= 0) return got < 0 ? lastError() : EIO;
    errno = 0;
    const ssize_t put = pwrite(out, buffer.data(), static_cast<size_t>(got), writeAt);
    if (put <= 0) return lastError();
    readAt += put;
    writeAt += put;
  }
  return 0;
}

// Copies the data of `in`, stretch by stretch between its holes, and gives `out` the same length.
int copyContents(int in, int out, const struct stat& status) {
  const off_t size = status.st_size;
  // Most files have no hole, and then need neither be searched for one nor set to their length.
  if (status.st_blocks * 512 >= size) return copyRange(in, out, 0, size);
  for (off_t at = 0; at < size;) {
    off_t data = lseek(in, at, SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;  // nothing but a hole up to the end
    if (data < 0 && errno != EINVAL) return lastError();
    off_t hole = data < 0 ? size : lseek(in, data, SEEK_HOLE);
    if (data < 0) data = at;  // a file system that does not know holes: all of it is data
    if (hole < 0) return lastError();
    hole = std::min(hole, size);
    if (data >= size) break;
    if (const int rc = copyRange(in, out, data, hole - data); rc != 0) return rc;
    at = hole;
  }
  errno = 0;
  return ftruncate(out, size) == 0 ? 0 : lastError();
}

// Makes a new file of this name, replacing what a crashed copy may have left there.
int createFresh(const std::string& path, mode_t mode) {
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
  const int fd = open(path.c_str(), flags, mode);
  if (fd >= 0 || errno != EEXIST || unlink(path.c_str()) != 0) return fd;
  return open(path.c_str(), flags, mode);
}

// Does not block: a FIFO in the source's place must be refused, not waited for. Another user's file may be
// read, but not without its access time.
int openSource(const std::string& path) {
  constexpr int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
  const int fd = open(path.c_str(), flags | O_NOATIME);
  return fd >= 0 || errno != EPERM ? fd : open(path.c_str(), flags);
}

int copyToTemporary(const std::string& source, const std::string& temporary, bool keepTime) {
  const Descriptor in(openSource(source));
  if (in.fd < 0) return errno == ELOOP ? EINVAL : lastError();
  struct stat status {};
  errno = 0;
  if (fstat(in.fd, &status) != 0) return lastError();
  if (!S_ISREG(status.st_mode)) return EINVAL;
  errno = 0;
  const int out = createFresh(temporary, status.st_mode & 0777);
  if (out < 0) return lastError();
  int rc = copyContents(in.fd, out, status);
  if (rc == 0 && keepTime) {
    const std::array<timespec, 2> times{timespec{0, UTIME_OMIT}, status.st_mtim};
    errno = 0;
    if (futimens(out, times.data()) != 0) rc = lastError();
  }
  errno = 0;
  if (close(out) != 0 && rc == 0) rc = lastError();  // some file systems only now know that they are full
  if (rc != 0) unlink(temporary.c_str());
  return rc;
}

int copyBeside(const std::string& source, const std::string& target, bool keepTime,
               const std::function<int(const std::string& temporary)>& appear) {
  const std::string temporary = RMFile::temporaryCopyName(target);
  if (const int rc = copyToTemporary(source, temporary, keepTime); rc != 0) return rc;
  const int rc = appear(temporary);
  if (rc != 0) unlink(temporary.c_str());
  return rc;
}

// Strips the slashes behind a directory's name; 0 or why a tree must not be removed there.
int checkTree(const std::string& dir, std::string& top) {
  const size_t end = dir.find_last_not_of('/');
  if (end == std::string::npos) return EINVAL;
  top = dir.substr(0, end + 1);
  const std::string_view name = std::string_view(top).substr(top.find_last_of('/') + 1);
  if (name == "." || name == "..") return EINVAL;
  struct stat status {};
  errno = 0;
  if (lstat(top.c_str(), &status) != 0) return lastError();
  return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

int removeEntries(const std::string& top) {
  std::vector<std::string> names;
  Directory entries(top);
  while (entries.next()) names.emplace_back(entries.name());
  if (entries.error() != 0) return entries.error();
  for (const std::string& entry : names) {
    std::error_code error;
    std::filesystem::remove_all(join(top, entry, '/'), error);
    if (error) return failureNumber(error.value());
  }
  return 0;
}

}  // namespace

std::string join(std::string_view a, std::string_view b, char separator) {
  std::string out;
  out.reserve(a.size() + 1 + b.size());
  out += a;
  appendPath(out, b, separator);
  return out;
}

int createDir(const std::string& path) {
  if (path.empty()) return ENOENT;
  int rc = probeDir(path);
  if (rc == EEXIST) return 0;
  if (rc != ENOENT) return rc;
  errno = 0;
  if (mkdir(path.c_str(), DIR_MODE) == 0) return 0;
  rc = lastError();
  if (rc == ENOENT) {
    const size_t slash = path.find_last_not_of('/') == std::string::npos
                             ? std::string::npos
                             : path.find_last_of('/', path.find_last_not_of('/'));
    if (slash == std::string::npos || slash == 0) return rc;
    if (rc = createDir(path.substr(0, slash)); rc != 0) return rc;
    errno = 0;
    if (mkdir(path.c_str(), DIR_MODE) == 0) return 0;
    rc = lastError();
  }
  // Another thread may have made it since the probe.
  return rc == EEXIST && probeDir(path) == EEXIST ? 0 : rc;
}

int findFile(const std::string& path) {
  errno = 0;
  if (access(path.c_str(), F_OK) == 0) return 0;
  return errno == ENOTDIR || errno == ENAMETOOLONG ? ENOENT : lastError();
}

bool doesFileExist(const std::string& path) { return findFile(path) != ENOENT; }

std::string temporaryName(const std::string& path, std::string_view suffix) {
  const size_t start = path.find_last_of('/') + 1;  // 0 without a slash
  if (path.size() - start + suffix.size() <= NAME_MAX) return path + std::string(suffix);
  const size_t hash = std::hash<std::string_view>()(std::string_view(path).substr(start));
  return path.substr(0, start) + std::to_string(hash) + std::string(suffix);
}

int getFileSize(uint64_t* size, uint64_t* allocated, int fd) {
  struct stat status {};
  errno = 0;
  if (fstat(fd, &status) != 0) return lastError();
  if (!S_ISREG(status.st_mode)) return EINVAL;
  if (size) *size = static_cast<uint64_t>(status.st_size);
  if (allocated) *allocated = static_cast<uint64_t>(status.st_blocks) * 512;
  return 0;
}

int getFileSize(uint64_t* size, uint64_t* allocated, std::FILE* stream) {
  return getFileSize(size, allocated, fileno(stream));
}

int getFreeBytes(uint64_t* freeBytes, uint64_t* totalBytes, const std::string& dir) {
  struct statvfs status {};
  errno = 0;
  if (statvfs(dir.c_str(), &status) != 0) return lastError();
  if (freeBytes) *freeBytes = static_cast<uint64_t>(status.f_bavail) * status.f_frsize;
  if (totalBytes) *totalBytes = static_cast<uint64_t>(status.f_blocks) * status.f_frsize;
  return 0;
}

int rmTree(const std::string& dir) {
  std::string top;
  if (const int rc = checkTree(dir, top); rc != 0) return rc;
  if (const int rc = removeEntries(top); rc != 0) return rc;
  errno = 0;
  if (rmdir(top.c_str()) != 0 && errno != EBUSY) return lastError();
  return 0;
}

int renameFile(const std::string& source, const std::string& target) {
  errno = 0;
  return rename(source.c_str(), target.c_str()) == 0 ? 0 : lastError();
}

int renameToNew(const std::string& source, const std::string& target) {
  errno = 0;
  if (renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL) return lastError();
  const int rc = findFile(target);
  if (rc == ENOENT) return renameFile(source, target);
  return rc == 0 ? EEXIST : rc;
}

int copyFile(const std::string& source, const std::string& target,
             const std::function<int(const std::string& temporary)>& appear) {
  return copyBeside(source, target, true, appear);
}

int emptyTree(const std::string& dir) {
  constexpr int MAX_PASSES = 100;
  std::string top;
  int rc = checkTree(dir, top);
  if (rc != 0) return rc;
  for (int pass = 0; pass < MAX_PASSES; ++pass) {
    rc = removeEntries(top);
    if (rc != ENOTEMPTY) break;
  }
  return rc;
}

std::string to_hexstring(const void* pointer) {
  std::array<char, 2 + 2 * sizeof(pointer) + 1> text;
  const int length = snprintf(text.data(), text.size(), "0x%lx", reinterpret_cast<uintptr_t>(pointer));
  return {text.data(), static_cast<size_t>(length)};
}

int readWholeFile(const std::string& path, std::string& content, uint64_t most) {
  errno = 0;
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (file.fd < 0) return lastError();
  struct stat status {};
  if (fstat(file.fd, &status) != 0) return lastError();
  if (!S_ISREG(status.st_mode)) return EINVAL;
  if (static_cast<uint64_t>(status.st_size) > most) return EFBIG;
  content.resize(static_cast<size_t>(status.st_size));
  size_t got = 0;
  while (got < content.size()) {
    const ssize_t count = read(file.fd, content.data() + got, content.size() - got);
    if (count < 0) return lastError();
    if (count == 0) break;
    got += static_cast<size_t>(count);
  }
  content.resize(got);
  return 0;
}

std::string_view takeLine(std::string_view& text) {
  const size_t end = text.find('\n');
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return line;
}

CZuError RMFile::KXCopyFile(const std::string& source, const std::string& target, int /*flags*/) {
  const auto appear = [&](const std::string& temporary) { return renameFile(temporary, target); };
  const int rc = copyBeside(source, target, false, appear);
  return rc == 0 ? CZuError() : RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, countedResult(rc));
}

CZuError RMFile::KXMoveFileEx(const std::string& source, const std::string& target, int flags) {
  const bool replaces = (flags & MOVE_REPLACE_EXISTING) != 0;
  const int rc = replaces ? renameFile(source, target) : renameToNew(source, target);
  return rc == 0 ? CZuError() : RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, countedResult(rc));
}

CZuError RMFile::KXGetFileSize(const std::string& path, long long& size) {
  struct stat status {};
  errno = 0;
  if (stat(path.c_str(), &status) != 0)
    return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, countedResult(lastError()));
  size = status.st_size;
  return {};
}

}  // namespace ObjectStore
