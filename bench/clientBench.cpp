// What a start of an ObjectCache costs beside a bare walk over the same blocks, and what a hit's counters do.
//
// Reported for each number of blocks: the walk's time over the start's (speed), both in milliseconds. The bare walk
// opens, reads and stats relative to each directory and keeps nothing.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "client/blockName.h"
#include "client/metrics.h"
#include "client/objectCache.h"
#include "frame.h"
#include "workload/mixing.h"

using namespace bench;
using namespace ObjectStore;

namespace {

constexpr int ROUNDS = 5;

void requireSuccess(const CZuError& error, const char* operation) {
  if (error.IsError()) std::fprintf(stderr, "%s\n", error.AsString().c_str());
  require(!error.IsError(), operation);
}

// Opens and closes a cache whose blocks are names and inodes: a start reads nothing else of them.
class StartUp {
 public:
  explicit StartUp(const std::string& parent) : m_dir(parent) { secondsOfStart(); }

  void growTo(size_t blocks) {
    const std::string dir = m_dir.path() + "/volume/blocks/";
    for (; m_blocks < blocks; ++m_blocks) {
      const BlockId id{{workload::mix(m_blocks), workload::mix(~m_blocks)}, 0};
      const guid_t name = blockName(id);
      const std::string leaf = dir + name.substr(0, 2) + '/' + name.substr(2, 2);
      std::filesystem::create_directories(leaf);
      const int fd = open((leaf + '/' + name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      require(fd >= 0, "open");
      close(fd);
    }
  }
  void compare(Figures& figures, uint64_t round) {
    double walk = 0;
    const auto goByHand = [&] {
      size_t files = 0;
      walk = secondsOf([&] { files = visit(AT_FDCWD, (m_dir.path() + "/volume/blocks").c_str(), 2); });
      require(files == m_blocks, "the walk missed a file");
    };
    if (round % 2 == 0) goByHand();
    const double start = secondsOfStart();
    if (round % 2 == 1) goByHand();
    figures["floor/ms"] = walk * 1e3;
    figures["diskcache/ms"] = start * 1e3;
    figures["diskcache/speed"] = walk / start;
  }

 private:
  double secondsOfStart() {
    ObjectCache cache({.root = m_dir.path() + "/root", .volumes = {m_dir.path() + "/volume"}});
    return secondsOf([&] { requireSuccess(cache.open(), "open"); });
  }
  static size_t visit(int parent, const char* name, int levels) {
    const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return 0;
    DIR* const stream = fdopendir(fd);
    size_t files = 0;
    while (const dirent* const entry = readdir(stream)) {
      if (entry->d_name[0] == '.') continue;
      struct stat status {};
      if (levels > 0) {
        files += visit(fd, entry->d_name, levels - 1);
      } else {
        files += fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
      }
    }
    closedir(stream);
    return files;
  }

  WorkDir m_dir;
  size_t m_blocks = 0;
};

// Nanoseconds of what one hit counts: itself, its bytes, and every 16th time its duration.
void timeCounters(Figures& figures) {
  constexpr unsigned HITS = 1'000'000;
  const auto metrics = std::make_unique<Metrics>();
  const double seconds = secondsOf([&] {
    for (unsigned i = 0; i < HITS; ++i) {
      if (Metrics::isSampled()) {
        const Stopwatch watch;
        metrics->hits.add(watch.elapsed());
      }
      metrics->add(Count::hotHits);
      metrics->add(Count::diskBytes, i);
    }
  });
  figures["diskcache/ns"] = seconds * 1e9 / HITS;
}

}  // namespace

// START_MOST, when set, is the most blocks the file system can take.
int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  const char* const given = std::getenv("START_MOST");
  const size_t most = given ? std::strtoul(given, nullptr, 10) : options.isQuick ? 10'000 : 1'000'000;
  StartUp startUp(options.dir);
  for (size_t blocks = 10'000; blocks <= most; blocks *= 10) {
    addRounds("startUp/" + std::to_string(blocks), ROUNDS,
              [=, &startUp, round = uint64_t{0}](Figures& figures) mutable {
                startUp.growTo(blocks);
                startUp.compare(figures, round++);
              });
  }
  addRounds("counters/1", ROUNDS, timeCounters);
  return runRounds(argc, argv);
}
