// Loaded before a program, it makes the program's disk fail at every sync.
#include <unistd.h>

#include <cerrno>

int fsync(int /*fd*/) {
  errno = EIO;
  return -1;
}
