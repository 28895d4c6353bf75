// What runs behind the clients, against what an operator would do by hand: moving a volume against `cp -r`,
// the pruner's walk and the start-up scan against bare loops over the same tree.
//
// Reported: the engine's speed over that by hand, measured right beside it.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheScan.h"
#include "diskcache/diskcacheState.h"
#include "frame.h"
#include "walk.h"

using namespace ObjectStore;
using namespace bench;
namespace fs = std::filesystem;

namespace {

constexpr int ROUNDS = 9;
constexpr size_t FILES = 20'000;
constexpr size_t FILE_BYTES = 16 * 1024;
constexpr uint64_t LIST_ENTRIES = 10 * FILES;

// Four top-level directories, so that every worker has one, each with 256 directories of about twenty files:
// what a cache of a million segments looks like.
void makeVolume(const std::string& volume) {
  const std::string payload(FILE_BYTES, 'x');
  for (size_t i = 0; i < FILES; ++i) {
    char guid[45];
    std::snprintf(guid, sizeof(guid), "%02zx%02zx%040zx", (i / 4) % 16, (i / 64) % 16, i);
    const std::string dir = volume + "/ctx" + std::to_string(i % 4) + '/' + DiskCache::guid2dir(guid);
    fs::create_directories(dir);
    std::ofstream(dir + '/' + guid) << payload;
  }
}

size_t walkByDescriptor(int parent, const char* name) {
  size_t files = 0;
  const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const stream = fdopendir(fd);
  if (!stream) fail("fdopendir");
  while (const dirent* entry = readdir(stream)) {
    if (isDot(entry->d_name)) continue;
    struct stat status {};
    require(fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0, "fstatat");
    files += S_ISDIR(status.st_mode) ? walkByDescriptor(fd, entry->d_name) : 1;
  }
  closedir(stream);
  return files;
}

// The engine tells the end of a migration to a plain function.
struct {
  std::mutex lock;
  std::condition_variable changed;
  bool hasEnded = false;
  int error = 0;
} g_migration;

void onEnd(int error, const std::string&, const std::string&) {
  const std::scoped_lock lock(g_migration.lock);
  g_migration.error = error;
  g_migration.hasEnded = true;
  g_migration.changed.notify_all();
}

void migrateAndWait(DiskCache& cache, const std::string& from, const std::string& to) {
  g_migration.hasEnded = false;
  while (cache.migrate(1, from, to) == EEXIST) {  // the last one is still being cleared away
  }
  std::unique_lock lock(g_migration.lock);
  g_migration.changed.wait(lock, [] { return g_migration.hasEnded; });
  require(g_migration.error == 0, "migration");
}

void compareMigration(Figures& figures, DiskCache& cache, const std::string& dir) {
  syncDisk(dir);
  const double copied = secondsOf(
      [&] { require(std::system(("cp -r " + dir + "/volume " + dir + "/byHand").c_str()) == 0, "cp"); });
  syncDisk(dir);
  const double moved = secondsOf([&] { migrateAndWait(cache, dir + "/volume", dir + "/moved"); });
  figures["diskcache/speed"] = copied / moved;
  figures["diskcache/ms"] = moved * 1e3;
  figures["floor/ms"] = copied * 1e3;
  fs::remove_all(dir + "/byHand");
  fs::remove_all(dir + "/moved");
}

void compareWalk(Figures& figures, DiskCachePruner& pruner, const std::string& top) {
  size_t files = 0;
  const double bare = secondsOf([&] { files = walkByPath(top, lstat); });
  const double walked = secondsOf([&] { pruner.deletePrunableSegsInDir(top, "ctx", nullptr); });
  const double relative = secondsOf([&] { files -= walkByDescriptor(AT_FDCWD, top.c_str()); });
  require(files == 0, "files");
  figures["diskcache/speed"] = bare / walked;
  figures["relative/speed"] = bare / relative;
  figures["diskcache/ms"] = walked * 1e3;
  figures["floor/ms"] = bare * 1e3;
}

void compareScan(Figures& figures, DiskcacheLRU& list, const std::string& top) {
  const double bare = secondsOf([&] { require(walkByPath(top, stat) == FILES, "files"); });
  const double scanned = secondsOf([&] {
    list.clearLru();
    uint64_t files = 0;
    require(scanDirForSegments(list, top, 1, "ctx", files) == 0, "scan");
  });
  figures["diskcache/speed"] = bare / scanned;
  figures["diskcache/ms"] = scanned * 1e3;
  figures["floor/ms"] = bare * 1e3;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  const int rounds = options.isQuick ? 3 : ROUNDS;
  const WorkDir work(options.dir);
  const std::string& dir = work.path();
  makeVolume(dir + "/volume");

  // Over the low watermark, so that the walk goes through every file.
  DiskCacheState parts(PersistentVolumes::No);
  parts.space.setUsed(1);
  parts.lru.init(LIST_ENTRIES);
  // Migrating empties no source.
  DiskCache cache(PersistentVolumes::No);
  const auto error =
      cache.init(dir + "/root", {dir + "/empty"}, 1000, 1000, 1000, 5, onEnd, PruningMode::Lru);
  require(!error.IsError(), "init");
  addRounds("scan/20000", rounds,
            [&](Figures& figures) { compareScan(figures, parts.lru, dir + "/volume"); });
  addRounds("walk/20000", rounds,
            [&](Figures& figures) { compareWalk(figures, parts.pruner, dir + "/volume"); });
  addRounds("migration/20000", rounds, [&](Figures& figures) { compareMigration(figures, cache, dir); });
  return runRounds(argc, argv);
}
