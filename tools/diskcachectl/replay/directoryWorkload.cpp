// Real files as the origin.
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/failure.h"
#include "common/units.h"
#include "look/looking.h"
#include "replay/workload.h"
#include "workload/mixing.h"
#include "workload/zipf.h"

namespace diskcachectl {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t REQUESTS_PER_FILE = 10;

struct File {
  std::string path;  // relative to the origin's directory
  uint32_t size;
};

[[noreturn]] void refuse(const std::string& path, std::string_view why) {
  throw Failure(ExitStatus::BadInput, fmt::format("{}: {}", path, why));
}

// All regular files that can be an object, in an order that does not depend on the file system.
std::vector<File> listFiles(const std::string& dir, uint64_t& leftOut) {
  std::error_code error;
  fs::recursive_directory_iterator entry(dir, fs::directory_options::skip_permission_denied, error);
  std::vector<File> files;
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    struct stat status {};
    const std::string& path = entry->path().native();
    if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
    const auto size = static_cast<uint64_t>(status.st_size);
    if (size == 0 || size > MAX_OBJECT_SIZE || access(path.c_str(), R_OK) != 0) {
      ++leftOut;
    } else {
      files.push_back({entry->path().lexically_relative(dir).native(), static_cast<uint32_t>(size)});
    }
  }
  if (error) refuse(dir, error.message());
  if (files.empty()) refuse(dir, "holds no file to ask for");
  std::sort(files.begin(), files.end(), [](const File& a, const File& b) { return a.path < b.path; });
  return files;
}

class Descriptor {
 public:
  explicit Descriptor(const std::string& path)
      : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)) {}
  ~Descriptor() {
    if (m_fd >= 0) close(m_fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return m_fd; }

 private:
  int m_fd;
};

class DirectoryWorkload : public Workload {
 public:
  DirectoryWorkload(std::string dir, double zipfExponent, uint64_t seed)
      : m_dir(std::move(dir)),
        m_files(listFiles(m_dir, m_leftOut)),
        m_draw(static_cast<uint32_t>(m_files.size()), zipfExponent, seed) {}

  uint64_t defaultLength() const override { return m_files.size() * REQUESTS_PER_FILE; }
  uint32_t objects() const override { return static_cast<uint32_t>(m_files.size()); }
  uint32_t largest() const override { return std::ranges::max(m_files, {}, &File::size).size; }

  Request request(uint64_t n) const override {
    const uint32_t object = m_draw.draw(n);
    return {object, m_files[object].size};
  }

  std::string identifier(uint32_t object) const override {
    const std::string& path = m_files[object].path;
    const std::string digits = fmt::format("{:016x}{:016x}{:016x}", workload::mix(path, 1),
                                           workload::mix(path, 2), workload::mix(path, 3));
    return digits.substr(0, 40);
  }

  void fetch(const Request& request, uint64_t from, std::span<std::byte> to) const override {
    const std::string path = (fs::path(m_dir) / m_files[request.object].path).native();
    const Descriptor file(path);
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) refuse(path, std::strerror(errno));
    to = to.first(std::min<uint64_t>(to.size(), request.size - from));
    const ssize_t got = readFully(file.get(), to.data(), to.size(), static_cast<off_t>(from));
    if (got < 0) refuse(path, std::strerror(errno));
    if (status.st_size != request.size || static_cast<size_t>(got) != to.size())
      refuse(path, "its size changed during the run");
  }

  std::string leftOut() const override {
    if (m_leftOut == 0) return "";
    return fmt::format("{} files (empty, unreadable or over {})", formatCount(m_leftOut),
                       formatSize(MAX_OBJECT_SIZE));
  }

 private:
  const std::string m_dir;
  uint64_t m_leftOut = 0;
  const std::vector<File> m_files;
  const workload::ZipfDraw m_draw;
};

}  // namespace

std::unique_ptr<Workload> makeDirectoryWorkload(const std::string& dir, double zipfExponent, uint64_t seed) {
  return std::make_unique<DirectoryWorkload>(dir, zipfExponent, seed);
}

}  // namespace diskcachectl
