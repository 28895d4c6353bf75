// A real file system of a few MiB, for running out of space for real.
#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <string>
#include <string_view>

#include "tests/support/tempDir.h"

namespace ObjectStore {

// A tmpfs (with at most `inodes` when that is not 0) on a directory of its own. It is mounted where only this
// thread and those it starts from now on can see it, so that not even a crash leaves it behind: make it before
// the engine.
class SmallFileSystem {
 public:
  explicit SmallFileSystem(unsigned mebibytes, unsigned inodes = 0) {
    thread_local const bool mountsArePrivate =
        unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    std::string options = "mode=0700,size=" + std::to_string(mebibytes) + "m";
    if (inodes != 0) options += ",nr_inodes=" + std::to_string(inodes);
    m_mounted = mountsArePrivate && mount("tmpfs", path().c_str(), "tmpfs", 0, options.c_str()) == 0;
  }
  ~SmallFileSystem() {
    if (m_mounted) umount2(path().c_str(), MNT_DETACH);  // even when a failed test has a file open
  }

  // False when this process may not mount; the test then skips, saying so.
  bool available() const { return m_mounted; }
  const std::string& path() const { return m_dir.path(); }
  std::string operator/(std::string_view name) const { return m_dir / name; }

 private:
  TempDir m_dir;
  bool m_mounted = false;
};

#define SKIP_WITHOUT(fileSystem) \
  if (!(fileSystem).available()) GTEST_SKIP() << "this process may not mount a file system"

}  // namespace ObjectStore
