// Reading a directory entry by entry.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <string>

namespace ObjectStore {

// One pass over a directory, without "." and "..". Used by one thread.
class Directory {
 public:
  explicit Directory(const std::string& path);
  // The directory `name` in another one that is open: its path is not resolved from the root again.
  Directory(const Directory& parent, const char* name);
  ~Directory() { close(); }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  // 0, or why the directory could not be opened or, once next() was false, why it ended early.
  int error() const { return m_error; }
  // Goes on to the next entry; false at the end and after an error.
  bool next();
  // The entry's name; valid until the next call of next().
  const char* name() const { return m_entry->d_name; }
  // The entry's status, looked up in the open directory; that of a link itself or, with `follow`, of what
  // it leads to. 0 or a system error number.
  int status(struct stat& out, bool follow = false) const;
  // The status of the directory itself.
  int ownStatus(struct stat& out) const;

  // Ends the pass.
  void close();

  // Ends the pass but keeps a descriptor of the directory open for the life of the process.
  void leaveOpen();

 private:
  DIR* m_stream;
  int m_error;
  dirent* m_entry = nullptr;
};

// An advisory lock on a directory (flock), for one owner at a time on this machine, also within a process.
// It ends with exec. A child after fork shares the open file, which is what holds the lock: so release()
// unlocks rather than just closes, or the child would keep the lock; and only in the process that took it.
class DirectoryLock {
 public:
  DirectoryLock() = default;
  ~DirectoryLock() { release(); }
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

  // Gives up what it holds and takes `path`: 0, EWOULDBLOCK when another owner holds it, or a system error
  // number, also of a file system that has no locks. Never waits.
  int take(const std::string& path);
  void release();

 private:
  int m_fd = -1;
  pid_t m_owner = 0;
};

}  // namespace ObjectStore
