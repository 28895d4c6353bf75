// What the library adds to the system calls of an operation.
//
// Each round times hand-written code that makes exactly an operation's calls ("floor"), the operation itself
// as a client uses it, and the floor once more, on the same file system and right behind each other, so that
// whatever else the machine does meets all three. Reported per round: `ratio`, the library's time over the
// mean of the two floors, and `noise`, the second floor over the first.
//
// segmentBench DIR [benchmark options]: works below DIR, which must be there, and removes what it made. With
// `--one read|create|delete` it makes a single such call between two marks on standard error, for strace.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "diskcache/diskcache.h"

using namespace ObjectStore;

namespace {

constexpr int ROUNDS = 15;

// Enough operations that a batch takes milliseconds, and not so many that it outgrows the page cache.
size_t batchSize(size_t bytes) { return std::clamp<size_t>((size_t{64} << 20) / bytes, 32, 1000); }

void require(bool ok, const char* what) {
  if (ok) return;
  std::perror(what);
  std::exit(1);
}

std::string guidOf(size_t number) {
  char text[45];
  std::snprintf(text, sizeof(text), "%04zx%040zx", (number * 40503) & 0xffff, number);
  return text;
}

// The calls of each operation, by hand.
class Floor {
 public:
  explicit Floor(const std::string& root) : m_root(root) {}

  // A path's directory and file, so that building them costs the floor nothing.
  struct Place {
    std::string dir;
    std::string path;
  };
  Place place(const std::string& guid) const {
    const std::string dir = m_root + "/bench/" + guid.substr(0, 2) + '/' + guid.substr(2, 2);
    return {dir, dir + '/' + guid};
  }

  void create(const Place& place, const std::vector<unsigned char>& payload) const {
    struct statvfs space {};
    statvfs(m_root.c_str(), &space);
    mkdir((place.dir + "/.").c_str(), 0700);
    require(access(place.path.c_str(), F_OK) != 0, "access");
    const int fd = open(place.path.c_str(), O_WRONLY | O_CREAT | O_NOATIME | O_CLOEXEC, 0600);
    require(fd >= 0, "open");
    SegmentHeader header;
    header.magic = DISK_CACHE_MAGIC;
    header.version = DISK_CACHE_VERSION;
    require(write(fd, &header, sizeof(header)) == sizeof(header), "write");
    const off_t end = lseek(fd, 0, SEEK_END);
    const SectionDesc front{0, 0, payload.size()};
    const bool written =
        pwrite(fd, &end, sizeof(end), static_cast<off_t>(sectionSlotOffset(0))) == sizeof(end) &&
        pwrite(fd, payload.data(), payload.size(), end + 16) == static_cast<ssize_t>(payload.size()) &&
        pwrite(fd, &front, sizeof(front), end) == sizeof(front);
    require(written, "pwrite");
    struct stat status {};
    fstat(fd, &status);
    close(fd);
  }

  void read(const Place& place, std::vector<unsigned char>& buffer) const {
    const int fd = open(place.path.c_str(), O_RDONLY | O_NOATIME | O_CLOEXEC);
    SegmentHeader header;
    require(::read(fd, &header, sizeof(header)) == sizeof(header), "read");
    SectionDesc front;
    const auto at = static_cast<off_t>(header.sectionOffset[0]);
    require(pread(fd, &front, sizeof(front), at) == sizeof(front), "pread");
    require(pread(fd, buffer.data(), front.len, at + 16) == static_cast<ssize_t>(front.len), "pread");
    close(fd);
  }

  void remove(const Place& place) const {
    struct stat status {};
    if (access(place.path.c_str(), F_OK) == 0 && stat(place.path.c_str(), &status) == 0)
      unlink(place.path.c_str());
  }

 private:
  std::string m_root;
};

// The library on one volume, with as many identifiers as the largest batch; the floor works on the same
// paths.
class Bench {
 public:
  explicit Bench(const std::string& dir) : m_floor(dir + "/volume"), m_cache(PersistentVolumes::No) {
    const auto error = m_cache.init(dir + "/root", {dir + "/volume"}, 1000, 1000, 1000, 1'000'000, nullptr,
                                    PruningMode::Lru);
    require(!error.IsError(), "init");
    m_ctx.dir = "bench";
    m_cache.registerContext(m_ctx);
    for (size_t i = 0; i < batchSize(1); ++i) {
      m_guids.push_back(guidOf(i));
      m_places.push_back(m_floor.place(m_guids.back()));
      std::filesystem::create_directories(m_places.back().dir);
    }
  }

  void setSize(size_t bytes) {
    m_payload.assign(bytes, 'p');
    m_buffer.assign(bytes, 0);
    m_section.resize(1);
    m_section[0].len = m_section[0].bufferSize = bytes;
    m_section[0].data = m_payload.data();
  }

  void floorCreate(size_t i) { m_floor.create(m_places[i], m_payload); }
  void floorRead(size_t i) { m_floor.read(m_places[i], m_buffer); }
  void floorDelete(size_t i) { m_floor.remove(m_places[i]); }

  void cacheCreate(size_t i) {
    m_section[0].data = m_payload.data();
    m_section[0].len = m_payload.size();
    require(!m_cache.createSegment(m_ctx, m_guids[i], m_section, false, false, false).IsError(),
            "createSegment");
  }
  void cacheRead(size_t i, bool touch = false) {
    m_section[0].data = m_buffer.data();
    require(!m_cache.readSections(m_ctx, m_guids[i], m_section, touch).IsError(), "readSections");
    require(m_section[0].len == m_payload.size(), "length");
  }
  void cacheDelete(size_t i) {
    require(!m_cache.deleteSegment(m_ctx, m_guids[i], false, false, Recycle::No).IsError(), "deleteSegment");
  }
  bool bytesAreRight() const { return m_buffer == m_payload; }

 private:
  Floor m_floor;
  DiskCache m_cache;
  DiskCacheContext m_ctx;
  std::vector<std::string> m_guids;
  std::vector<Floor::Place> m_places;
  std::vector<unsigned char> m_payload;
  std::vector<unsigned char> m_buffer;
  std::vector<Section> m_section;
};

using Batch = std::function<void(size_t)>;

double secondsOf(size_t count, const Batch& operation) {
  const auto begin = std::chrono::steady_clock::now();
  for (size_t i = 0; i < count; ++i) operation(i);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// What is done before and after each timed batch, untimed.
struct Round {
  Batch floorBefore, floor, floorAfter;
  Batch cacheBefore, cache, cacheAfter;
};

void run(benchmark::State& state, Bench& bench, size_t bytes, const Round& round) {
  bench.setSize(bytes);
  const size_t count = batchSize(bytes);
  const auto timed = [count](const Batch& before, const Batch& operation, const Batch& after) {
    if (before) secondsOf(count, before);
    const double seconds = secondsOf(count, operation);
    if (after) secondsOf(count, after);
    return seconds;
  };
  for (auto _ : state) {
    const double first = timed(round.floorBefore, round.floor, round.floorAfter);
    const double cache = timed(round.cacheBefore, round.cache, round.cacheAfter);
    const double second = timed(round.floorBefore, round.floor, round.floorAfter);
    state.SetIterationTime(cache);
    state.counters["ratio"] = 2 * cache / (first + second);
    state.counters["noise"] = second / first;
  }
}

void add(const std::string& name, Bench& bench, size_t bytes, const Round& round) {
  benchmark::RegisterBenchmark(
      (name + '/' + std::to_string(bytes)).c_str(),
      [&bench, bytes, round](benchmark::State& state) { run(state, bench, bytes, round); })
      ->UseManualTime()
      ->Iterations(1)
      ->Repetitions(ROUNDS)
      ->ReportAggregatesOnly()
      ->ComputeStatistics("min", [](const auto& v) { return *std::min_element(v.begin(), v.end()); })
      ->ComputeStatistics("max", [](const auto& v) { return *std::max_element(v.begin(), v.end()); });
}

void addAll(Bench& bench) {
  const Batch floorCreate = [&](size_t i) { bench.floorCreate(i); };
  const Batch floorRead = [&](size_t i) { bench.floorRead(i); };
  const Batch floorDelete = [&](size_t i) { bench.floorDelete(i); };
  const Batch create = [&](size_t i) { bench.cacheCreate(i); };
  const Batch remove = [&](size_t i) { bench.cacheDelete(i); };
  const Batch read = [&](size_t i) { bench.cacheRead(i); };
  const Batch touch = [&](size_t i) { bench.cacheRead(i, true); };
  for (const size_t bytes : {size_t{4} << 10, size_t{64} << 10, size_t{1} << 20}) {
    add("create", bench, bytes, {{}, floorCreate, floorDelete, {}, create, remove});
    add("read", bench, bytes, {floorCreate, floorRead, floorDelete, create, read, remove});
    add("readTouching", bench, bytes, {floorCreate, floorRead, floorDelete, create, touch, remove});
    add("delete", bench, bytes, {floorCreate, floorDelete, {}, create, remove, {}});
  }
}

// One warm operation between two marks that a trace shows as writes to descriptor 2.
int runOne(Bench& bench, const std::string& operation) {
  bench.setSize(4096);
  bench.cacheCreate(0);
  bench.cacheRead(0, true);
  require(bench.bytesAreRight(), "bytes");
  if (operation == "create") bench.cacheDelete(0);
  const auto mark = [](const char* text) { require(write(2, text, std::strlen(text)) > 0, "write"); };
  mark("begin\n");
  if (operation == "read") bench.cacheRead(0, true);
  if (operation == "create") bench.cacheCreate(0);
  if (operation == "delete") bench.cacheDelete(0);
  mark("end\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || !std::filesystem::is_directory(argv[1])) {
    std::cerr << "usage: segmentBench DIR [--one read|create|delete] [benchmark options]\n";
    return 2;
  }
  std::string pattern = std::string(argv[1]) + "/segmentBench.XXXXXX";
  require(mkdtemp(pattern.data()) != nullptr, "mkdtemp");
  const std::unique_ptr<std::string, void (*)(std::string*)> removed(
      &pattern, [](std::string* dir) { std::filesystem::remove_all(*dir); });
  // The library prints diagnostics when an engine begins and ends; they do not belong into the table.
  std::streambuf* const table = std::cout.rdbuf(std::cerr.rdbuf());
  Bench bench(pattern);
  if (argc == 4 && std::string(argv[2]) == "--one") return runOne(bench, argv[3]);

  addAll(bench);
  --argc;
  ++argv;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  std::cout.rdbuf(table);
  benchmark::RunSpecifiedBenchmarks();
  std::cout.rdbuf(std::cerr.rdbuf());
  return 0;
}
