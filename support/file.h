// Paths, files and directories: the helpers through which the cache asks the file system for more than one
// call at a time.
//
// Functions returning int give 0 or a system error number, never 0 on failure (EIO where the system gave
// none). Nothing here throws but failed allocations. All may be called from any thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

#include "support/error.h"
#include "support/export.h"

namespace ObjectStore {

// Appends `part` to `path` behind one separator; none is added to an empty path or behind one that ends
// with it.
inline void appendPath(std::string& path, std::string_view part, char separator = '/') {
  if (!path.empty() && path.back() != separator) path += separator;
  path += part;
}

// `a`, `separator`, `b`; just `b` when `a` is empty, and no separator is doubled.
std::string join(std::string_view a, std::string_view b, char separator);

// Makes a directory (mode 0700) and the parents it lacks. A directory that is there is success; anything
// else in its place is ENOTDIR or EEXIST. One system call when the directory is there.
int createDir(const std::string& path);

// 0 when something can be reached at `path`; ENOENT when there is nothing, to which a dangling link and a
// name that no file can have lead too; any other number when the system does not tell.
int findFile(const std::string& path);

// Whether something is at `path`, or may be: what the system does not tell is left to the open that follows.
bool doesFileExist(const std::string& path);

// A name beside `path` for a file that is to take its place: `path` and `suffix`, or, where that is longer
// than a name may be, one that is made from the name and ends with `suffix` too.
std::string temporaryName(const std::string& path, std::string_view suffix);

// The length of an open regular file (anything else is EINVAL) and the bytes it occupies on disk (blocks of
// 512); either output may be null.
int getFileSize(uint64_t* size, uint64_t* allocated, int fd);
int getFileSize(uint64_t* size, uint64_t* allocated, std::FILE* stream);

// The bytes free to unprivileged users and the total bytes of the file system that holds `dir`; either
// output may be null.
int getFreeBytes(uint64_t* freeBytes, uint64_t* totalBytes, const std::string& dir);

// Removes a directory with all that is in it. "", the root, "." and ".." are refused with EINVAL; links are
// removed, never followed, and a link in place of the directory is ENOTDIR. A mount point is emptied and
// stays: that is success.
int rmTree(const std::string& dir);

// Renames a file, replacing what is at `target`.
int renameFile(const std::string& source, const std::string& target);

// Renames a file where nothing is at `target`, else EEXIST. On a file system that cannot do both in one step
// something that appears there at that moment is replaced.
int renameToNew(const std::string& source, const std::string& target);

// Copies as KXCopyFile does, with the source's time of modification. `appear` puts the finished copy, which
// it is given by its temporary name, in its place; when it does not (another number than 0) nothing is
// left.
int copyFile(const std::string& source, const std::string& target,
             const std::function<int(const std::string& temporary)>& appear);

// A pointer's value as hexadecimal text, for log and status lines.
std::string to_hexstring(const void* pointer);

// Removes all that is in a directory, which stays as it is; refuses what rmTree refuses. Beside threads that
// put files in, it tries again, a bounded number of times, and then gives ENOTEMPTY.
int emptyTree(const std::string& dir);

// The whole of a small regular file: EINVAL for anything else, EFBIG above `most` bytes.
inline constexpr uint64_t MAX_WHOLE_FILE = uint64_t{16} << 20;
int readWholeFile(const std::string& path, std::string& content, uint64_t most = MAX_WHOLE_FILE);

// Cuts the first line off `text` and returns it without its line feed.
std::string_view takeLine(std::string_view& text);

// Operations on files by name, with the error value as result.
struct DISKCACHE_EXPORT RMFile {
  // Flag of KXMoveFileEx: an existing target is replaced.
  static constexpr int MOVE_REPLACE_EXISTING = 1;

  static bool DoesFileExist(const std::string& path) { return doesFileExist(path); }

  // Copies a regular file (anything else is EINVAL) with its mode less the umask; holes stay holes and the
  // kernel moves the bytes. The target appears whole or not at all: the copy is made beside it under
  // temporaryCopyName() and renamed over it. `flags` is 0.
  static CZuError KXCopyFile(const std::string& source, const std::string& target, int flags);

  // Renames a file. Without MOVE_REPLACE_EXISTING an existing target is EEXIST.
  static CZuError KXMoveFileEx(const std::string& source, const std::string& target, int flags);

  // The length of the file at `path` in bytes.
  static CZuError KXGetFileSize(const std::string& path, long long& size);

  // KXCopyFile builds its copy under the target's temporaryName with this; left behind only by a crash, and
  // replaced by the next copy.
  static constexpr std::string_view COPY_SUFFIX = ".copying";
  static std::string temporaryCopyName(const std::string& target) {
    return temporaryName(target, COPY_SUFFIX);
  }
};

}  // namespace ObjectStore
