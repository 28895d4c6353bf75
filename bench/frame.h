// What the benchmark programs share: their command line, a directory of their own, and rounds, which are
// Google Benchmark's repetitions.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <string>

namespace bench {

// Ends the program with errno's text.
[[noreturn]] void fail(const char* what);

inline void require(bool ok, const char* what) {
  if (!ok) fail(what);
}

// PROGRAM DIR [--quick] [--one STORE] [options of Google Benchmark]
struct Options {
  std::string dir;       // there, and on the file system in question
  bool isQuick = false;  // fewer rounds and smaller sets
  std::string one;       // a store's name: one call of each operation instead of rounds
};

// Takes this project's options out of the command line; ends the program on a wrong one.
Options parseOptions(int& argc, char** argv);

// A directory of its own below another, gone with everything in it when the object goes.
class WorkDir {
 public:
  explicit WorkDir(const std::string& parent);
  ~WorkDir();
  WorkDir(const WorkDir&) = delete;
  WorkDir& operator=(const WorkDir&) = delete;

  const std::string& path() const { return m_path; }

 private:
  std::string m_path;
};

// Writes out what is dirty on the file system of a directory, so that nobody pays for another's changes.
void syncDisk(const std::string& dir);

// Has the system forget all files that it holds in memory. False where that is not allowed.
bool dropCaches();

using Figures = benchmark::UserCounters;

// Registers work that is done once a round and leaves figures; reported are the median, the least and the
// most of each.
void addRounds(const std::string& name, int rounds, std::function<void(Figures&)> round);

// Runs what was registered, for main to return.
int runRounds(int argc, char** argv);

template <typename Work>
double secondsOf(Work&& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

}  // namespace bench
