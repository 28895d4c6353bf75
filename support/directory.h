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
  ~Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  // 0, or why the directory could not be opened or, once next() was false, why it ended early.
  int error() const { return m_error; }
  // Goes on to the next entry; false at the end and after an error.
  bool next();
  // The entry's name; valid until the next call of next().
  const char* name() const { return m_entry->d_name; }
  // The entry's status as lstat gives it, looked up from the open directory rather than from the root; 0 or a
  // system error number.
  int status(struct stat& out) const;

  // Ends the pass but keeps a descriptor of the directory open for the life of the process.
  void leaveOpen();

 private:
  DIR* m_stream;
  int m_error;
  dirent* m_entry = nullptr;
};

}  // namespace ObjectStore
