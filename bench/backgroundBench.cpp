// What runs behind the clients, against what an operator would do by hand: moving a volume against `cp -r`,
// the pruner's walk against a bare readdir and lstat loop.
//
// backgroundBench DIR [benchmark options]: works below DIR and removes what it made. Each round times both
// sides right behind each other and reports `ratio`: for the migration its time over cp's, for the walk its
// files a second over the bare loop's.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include "diskcache/diskcache.h"
#include "diskcache/diskcachePruner.h"

using namespace ObjectStore;
namespace fs = std::filesystem;

namespace {

constexpr int ROUNDS = 7;
constexpr size_t FILES = 20'000;
constexpr size_t FILE_BYTES = 16 * 1024;

template <typename Work>
double secondsOf(Work&& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

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

// The engine tells the end of a migration to a plain function.
struct {
  std::mutex lock;
  std::condition_variable changed;
  int ended = 0;
  int error = 0;
} g_migration;

void onEnd(int error, const std::string&, const std::string&) {
  const std::scoped_lock lock(g_migration.lock);
  g_migration.error = error;
  ++g_migration.ended;
  g_migration.changed.notify_all();
}

void migrateAndWait(DiskCache& cache, const std::string& from, const std::string& to) {
  std::unique_lock lock(g_migration.lock);
  const int before = g_migration.ended;
  lock.unlock();
  while (cache.migrate(1, from, to) == 17) {
  }
  lock.lock();
  g_migration.changed.wait(lock, [before] { return g_migration.ended > before; });
  if (g_migration.error != 0) std::abort();
}

size_t bareWalk(const std::string& dir) {
  size_t files = 0;
  DIR* stream = opendir(dir.c_str());
  if (!stream) std::abort();
  while (const dirent* entry = readdir(stream)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    const std::string path = dir + '/' + entry->d_name;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) std::abort();
    files += S_ISDIR(status.st_mode) ? bareWalk(path) : 1;
  }
  closedir(stream);
  return files;
}

void migration(benchmark::State& state, DiskCache& cache, const std::string& dir) {
  for (auto _ : state) {
    const double copied = secondsOf([&] {
      if (std::system(("cp -r " + dir + "/volume " + dir + "/byHand").c_str()) != 0) std::abort();
    });
    const double moved = secondsOf([&] { migrateAndWait(cache, dir + "/volume", dir + "/moved"); });
    state.SetIterationTime(moved);
    state.counters["ratio"] = moved / copied;
    fs::remove_all(dir + "/byHand");
    fs::remove_all(dir + "/moved");
  }
}

void walk(benchmark::State& state, DiskCache& cache, const std::string& dir) {
  DiskCachePruner pruner(cache);
  const std::string top = dir + "/volume/ctx0";
  for (auto _ : state) {
    const double bare = secondsOf([&] { benchmark::DoNotOptimize(bareWalk(top)); });
    const double walked = secondsOf([&] { pruner.deletePrunableSegsInDir(top, "ctx0", nullptr); });
    state.SetIterationTime(walked);
    state.counters["ratio"] = bare / walked;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || !fs::is_directory(argv[1])) {
    std::cerr << "usage: backgroundBench DIR [benchmark options]\n";
    return 2;
  }
  std::string dir = std::string(argv[1]) + "/backgroundBench.XXXXXX";
  if (mkdtemp(dir.data()) == nullptr) return 3;
  const std::unique_ptr<std::string, void (*)(std::string*)> removed(
      &dir, [](std::string* d) { fs::remove_all(*d); });
  makeVolume(dir + "/volume");

  std::streambuf* const table = std::cout.rdbuf(std::cerr.rdbuf());
  {
    // Over the low watermark whatever the disk holds, so that the walk goes through every file.
    DiskCache cache(PersistentVolumes::No);
    if (cache.init(dir + "/root", {dir + "/volume"}, 1000, 0, 1000, 5, onEnd, PruningMode::Lru).IsError())
      return 3;
    std::cout.rdbuf(table);
    const auto add = [](const char* name, auto work) {
      benchmark::RegisterBenchmark(name, work)
          ->UseManualTime()
          ->Iterations(1)
          ->Repetitions(ROUNDS)
          ->ReportAggregatesOnly()
          ->Unit(benchmark::kMillisecond)
          ->ComputeStatistics("min", [](const auto& v) { return *std::min_element(v.begin(), v.end()); })
          ->ComputeStatistics("max", [](const auto& v) { return *std::max_element(v.begin(), v.end()); });
    };
    add("migration", [&](benchmark::State& state) { migration(state, cache, dir); });
    add("walk", [&](benchmark::State& state) { walk(state, cache, dir); });
    --argc;
    ++argv;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::cout.rdbuf(std::cerr.rdbuf());
  }
  return 0;
}
