#include "frame.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

namespace bench {

void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

Options parseOptions(int& argc, char** argv) {
  Options options;
  std::vector<char*> left{argv[0]};
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--quick") {
      options.isQuick = true;
    } else if (argument == "--one" && i + 1 < argc) {
      options.one = argv[++i];
    } else if (argument.starts_with("--")) {
      left.push_back(argv[i]);
    } else {
      options.dir = argument;
    }
  }
  argc = static_cast<int>(left.size());
  std::copy(left.begin(), left.end(), argv);
  if (!std::filesystem::is_directory(options.dir)) {
    std::fprintf(stderr, "usage: %s DIR [--quick] [--one STORE] [options of Google Benchmark]\n", argv[0]);
    std::exit(2);
  }
  return options;
}

WorkDir::WorkDir(const std::string& parent) : m_path(parent + "/bench.XXXXXX") {
  require(mkdtemp(m_path.data()) != nullptr, "mkdtemp");
}

WorkDir::~WorkDir() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

void syncDisk(const std::string& dir) {
  const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  require(fd >= 0 && syncfs(fd) == 0, "syncfs");
  close(fd);
}

bool dropCaches() {
  const int fd = open("/proc/sys/vm/drop_caches", O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool isDone = write(fd, "3", 1) == 1;
  close(fd);
  return isDone;
}

void addRounds(const std::string& name, int rounds, std::function<void(Figures&)> round) {
  const auto work = [round = std::move(round)](benchmark::State& state) {
    for (auto _ : state) round(state.counters);
  };
  benchmark::RegisterBenchmark(name.c_str(), work)
      ->Iterations(1)
      ->Repetitions(rounds)
      ->ReportAggregatesOnly()
      ->ComputeStatistics("min", [](const auto& v) { return *std::min_element(v.begin(), v.end()); })
      ->ComputeStatistics("max", [](const auto& v) { return *std::max_element(v.begin(), v.end()); });
}

int runRounds(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench
