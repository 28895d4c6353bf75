// Directories and files of a test. Nothing here makes a system call that faults.h sees.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace ObjectStore {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

// A new directory under $TMPDIR or /tmp that goes with all that is in it.
class TempDir {
 public:
  TempDir() {
    if (!mkdtemp(m_path.data())) throw std::system_error(errno, std::generic_category(), m_path);
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
  }
  TempDir& operator=(TempDir&&) = delete;

  const std::string& path() const { return m_path; }
  std::string operator/(std::string_view name) const { return m_path + '/' + std::string(name); }

 private:
  std::string m_path = fs::temp_directory_path() / "diskcache-test-XXXXXX";
};

// Both throw std::runtime_error when the file cannot be had whole. Writing makes missing parents.
inline void writeFile(const std::string& path, std::string_view content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}
inline std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  std::ostringstream content;
  content << file.rdbuf();
  return std::move(content).str();
}

// A base of a fixture, before the one that makes its TempDir: directories in memory, for tests that lose no page
// cache and so need not wait for a disk.
struct InMemory {
  InMemory() {
    setenv("TMPDIR", faccessat(AT_FDCWD, "/dev/shm", W_OK, 0) == 0 ? "/dev/shm" : usual.c_str(), 1);
  }
  ~InMemory() { setenv("TMPDIR", usual.c_str(), 1); }
  const std::string usual = fs::temp_directory_path();
};

// Every entry below a directory by relative path, in order; directories end with '/', links with '@'.
inline std::vector<std::string> treeOf(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    const char* mark = entry.is_symlink() ? "@" : entry.is_directory() ? "/" : "";
    names.push_back(entry.path().lexically_relative(dir).string() + mark);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// How many descriptors this process has open, twice those that a child would inherit; the listing holds one.
inline size_t openDescriptors() {
  size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd"))
    count += (fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC) != 0 ? 1 : 2;
  return count - 1;
}

}  // namespace ObjectStore
