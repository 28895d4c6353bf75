// A bare walk of a tree, as whoever looks for files by hand makes it.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "frame.h"

namespace bench {

inline bool isDot(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

// stat or lstat.
using Ask = int (*)(const char*, struct stat*);

// How many files there are.
inline size_t walkByPath(const std::string& dir, Ask ask) {
  size_t files = 0;
  DIR* const stream = opendir(dir.c_str());
  if (!stream) fail("opendir");
  while (const dirent* entry = readdir(stream)) {
    if (isDot(entry->d_name)) continue;
    const std::string path = dir + '/' + entry->d_name;
    struct stat status {};
    require(ask(path.c_str(), &status) == 0, "stat");
    files += S_ISDIR(status.st_mode) ? walkByPath(path, ask) : 1;
  }
  closedir(stream);
  return files;
}

}  // namespace bench
