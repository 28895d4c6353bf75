#include "client/startScan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "client/failure.h"
#include "diskcache/diskcacheTypes.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr uint64_t PROGRESS_EVERY = 4096;

struct StreamCloser {
  void operator()(DIR* stream) const { closedir(stream); }
};
using Stream = std::unique_ptr<DIR, StreamCloser>;

class Walk {
 public:
  Walk(VolIndex volume, std::vector<FoundBlock>& out, const std::function<void(uint64_t)>& progress)
      : m_volume(volume), m_out(out), m_progress(progress) {}

  // Blocks lie `levels` directories below.
  void visit(int parent, const char* name, int levels) {
    const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const Stream stream(fd < 0 ? nullptr : fdopendir(fd));
    if (!stream) {
      leaveOut("directory", name);
      if (fd >= 0) close(fd);
      return;
    }
    errno = 0;
    while (const dirent* const entry = readdir(stream.get())) {
      if (entry->d_name[0] != '.')
        levels > 0 ? visit(fd, entry->d_name, levels - 1) : enter(fd, entry->d_name);
      errno = 0;
    }
    if (errno != 0) leaveOut("the rest of", name);
  }
  int error() const { return m_error; }

 private:
  // What has gone, or never was what it seemed, is no loss.
  void leaveOut(const char* what, const char* name) {
    const int rc = errno;
    const bool isExpected = rc == ENOENT || rc == ENOTDIR;
    if (!isExpected && !isOfThisProcess(m_error)) m_error = rc;
    DC_LOG(isExpected ? LogLevel::Segment : LogLevel::Error, "can't read %s [%s] (%d)", what, name, rc);
  }
  void enter(int dir, const char* name) {
    const auto id = parseBlockName(name);
    if (!id) return;
    struct stat status {};
    if (fstatat(dir, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return leaveOut("block", name);
    const int64_t made = int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
    m_out.push_back({*id, m_volume, made, static_cast<uint64_t>(status.st_blocks) * 512});
    if (m_progress && m_out.size() % PROGRESS_EVERY == 0) m_progress(m_out.size());
  }

  const VolIndex m_volume;
  std::vector<FoundBlock>& m_out;
  const std::function<void(uint64_t)>& m_progress;
  int m_error = 0;
};

}  // namespace

int findBlocks(const std::string& dir, VolIndex volume, std::vector<FoundBlock>& out,
               const std::function<void(uint64_t)>& progress) {
  Walk walk(volume, out, progress);
  walk.visit(AT_FDCWD, dir.c_str(), NUM_DIR_LEVELS);
  return walk.error();
}

}  // namespace ObjectStore
