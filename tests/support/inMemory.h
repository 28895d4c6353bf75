// Directories in memory, for tests that lose no page cache and so need not wait for a disk.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace ObjectStore {

// A base of a fixture, before the one that makes its TempDir.
struct InMemory {
  InMemory() { setenv("TMPDIR", access("/dev/shm", W_OK) == 0 ? "/dev/shm" : usual.c_str(), 1); }
  ~InMemory() { setenv("TMPDIR", usual.c_str(), 1); }
  const std::string usual = std::filesystem::temp_directory_path();
};

}  // namespace ObjectStore
