// What segments take on disk, by their size: the cache's files and directories, and all of a peer's files.
//
// Reported for each size, in allocated bytes a segment: "files" and "directories". Peers have settled before; what
// their logs keep for later is theirs.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "cacheStore.h"
#include "frame.h"
#include "store.h"

using namespace bench;

namespace {

constexpr size_t BYTES[] = {512, 4096, 16384, 65536};
constexpr size_t MOST_SEGMENTS = 20'000;
constexpr size_t QUICK_SEGMENTS = 1000;
constexpr size_t MOST_BYTES = size_t{256} << 20;

struct Allocated {
  uint64_t files = 0;
  uint64_t directories = 0;
};

Allocated allocatedBelow(const std::string& dir) {
  Allocated sum;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
    struct stat status {};
    require(lstat(entry.path().c_str(), &status) == 0, "lstat");
    const uint64_t bytes = static_cast<uint64_t>(status.st_blocks) * 512;
    (S_ISDIR(status.st_mode) ? sum.directories : sum.files) += bytes;
  }
  return sum;
}

// Not to be packed tighter than what is stored in earnest.
std::vector<unsigned char> noise(size_t bytes, size_t segment) {
  std::vector<unsigned char> made(bytes);
  uint64_t state = segment;
  for (unsigned char& byte : made)
    byte = static_cast<unsigned char>((state = state * 6364136223846793005U + 1) >> 56);
  return made;
}

void measure(Figures& figures, const Options& options, const std::string& name, const StoreMaker& make,
             size_t bytes) {
  const size_t segments = options.isQuick ? QUICK_SEGMENTS : std::min(MOST_SEGMENTS, MOST_BYTES / bytes);
  const WorkDir dir(options.dir);
  const Guids guids = makeGuids(segments);
  {
    const std::unique_ptr<Store> store = make(dir.path(), guids);
    const std::unique_ptr<Session> session = store->session();
    for (size_t i = 0; i < segments; ++i) session->create(i, noise(bytes, i), false);
    store->settle();
  }
  syncDisk(options.dir);
  const Allocated sum = allocatedBelow(dir.path());
  const auto count = static_cast<double>(segments);
  figures[name + "/files"] = static_cast<double>(sum.files) / count;
  figures[name + "/directories"] = static_cast<double>(sum.directories) / count;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  for (const size_t bytes : BYTES) {
    addRounds("space/" + std::to_string(bytes), 1, [&options, bytes](Figures& figures) {
      const StoreMaker cache = [](const std::string& dir, const Guids& guids) {
        return makeCache(dir, "space", guids, {});
      };
      measure(figures, options, "diskcache", cache, bytes);
      for (const Peer& peer : peers()) measure(figures, options, peer.name, peer.make, bytes);
    });
    if (options.isQuick) break;
  }
  return runRounds(argc, argv);
}
