// diskcachectl replay: a read-through client that plays requests against a cache.
#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/units.h"
#include "look/blockLook.h"
#include "look/server.h"
#include "replay/cacheSession.h"
#include "replay/replayRun.h"
#include "replay/report.h"
#include "replay/workload.h"
#include "support/config.h"
#include "support/log.h"

namespace diskcachectl::replay {
namespace {

// In mode random the pruner passes over what is in the recency list, so that a long list would keep all.
constexpr uint64_t MAX_ENTRIES_LRU = 100'000;
constexpr uint64_t MAX_ENTRIES_RANDOM = 5;

constexpr const char* HELP =
    R"(A read-through client: it asks the cache first, fetches what is missing from the origin and caches it,
and compares every hit with the origin's bytes. The origin's objects are files, or made up for a trace.

A cached object of another size than asked for has been replaced at the origin: a miss, and cached anew.
Each object is one entry of the recency list, but for those over 256 MiB: one for each 256 MiB. Volumes that hold
what an earlier run with objects of about these sizes cached are used as they are. Latencies: of a hit the cache's
read; of a miss the read, the fetch and the write.
Exit status: 0 success, 1 wrong bytes, 2 usage or bad input, 3 an error of the cache or the system.

Example:
  diskcachectl replay --root /tmp/c/root --volume /tmp/c/a --volume /tmp/c/b --origin /usr/share/doc \
    --max-entries 1000)";

struct Options {
  ObjectStore::ObjectCacheOptions cache;
  std::optional<uint64_t> budget;  // bytes that may be used beyond those used at the start
  RunSettings run;
  std::string mode = "lru";
  std::string origin;
  std::string trace;
  bool isById = false;
  double zipf = 0.99;
  uint64_t seed = 1;
  std::string record;
  std::string json;
  bool isQuiet = false;
  std::string log;
  int logLevel = ObjectStore::LogLevel::Error;

  bool isJsonOnStdout() const { return json == "-"; }
};

// A file for results, opened before the work so that a wrong path costs no run. Any thread may write; what it
// has written is in the file, whatever ends the process.
class Output {
 public:
  explicit Output(std::string path) : m_path(std::move(path)) {
    if (m_path == "-") m_file = stdout;
    if (!m_path.empty() && m_file == nullptr) m_file = std::fopen(m_path.c_str(), "we");
    if (!m_path.empty() && m_file == nullptr) fail();
  }
  ~Output() {
    if (m_file != nullptr && m_file != stdout) std::fclose(m_file);
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  bool isWanted() const { return m_file != nullptr; }
  void write(const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), m_file) != text.size() || std::fflush(m_file) != 0) fail();
  }

 private:
  [[noreturn]] void fail() const {
    throw Failure(ExitStatus::Error, fmt::format("{}: {}", m_path, std::strerror(errno)));
  }

  const std::string m_path;
  std::FILE* m_file = nullptr;
};

// Logging lasts as long as the engine may write.
class LogScope {
 public:
  LogScope(const std::string& path, int level) {
    if (!path.empty())
      ObjectStore::g_ptrLogWriter = std::make_shared<ObjectStore::FileLogWriter>(level, path);
  }
  ~LogScope() { ObjectStore::g_ptrLogWriter.reset(); }
  LogScope(const LogScope&) = delete;
  LogScope& operator=(const LogScope&) = delete;
};

void setWatermarks(const std::string& used, uint64_t budget) {
  const auto set = [&](const char* name, uint64_t bytes) {
    ObjectStore::ConfigStore::set(ObjectStore::CONFIG_SECTION, name,
                                  std::to_string(std::stoull(used) + bytes));
  };
  set("DiskCacheLowWMBytes", budget / 10 * 7 + budget % 10 * 7 / 10);
  set("DiskCacheHighWMBytes", budget / 10 * 9 + budget % 10 * 9 / 10);
  set("DiskCacheAlarmWMBytes", budget);
}

// Each object is one block: one entry of the recency list.
uint32_t blockSizeFor(const Workload& workload) {
  using namespace ObjectStore;
  return static_cast<uint32_t>(
      std::bit_ceil(std::clamp<uint64_t>(workload.largest(), MIN_BLOCK_SIZE, MAX_BLOCK_SIZE)));
}

void bringUp(ObjectStore::ObjectCache& cache, const Options& options) {
  for (const std::string& dir : options.cache.volumes) {
    std::error_code error;  // the cache would take it for a disk that is not there
    if (!std::filesystem::create_directories(dir, error) && error) {
      throw Failure(ExitStatus::Error, fmt::format("{}: {}", dir, error.message()));
    }
  }
  const ObjectStore::CZuError error = cache.open();
  if (error.IsError()) fail(options.cache.root, error);
  const ObjectStore::ObjectCacheMetrics metrics = cache.metrics();
  if (metrics.absentVolumes > 0)
    throw Failure(ExitStatus::Error, options.cache.root + ": a volume can't be read");
  if (options.budget) setWatermarks(metrics.engine.at("DC.UsedCache"), *options.budget);
}

// Who takes a volume that is away for a new one drops what of its objects is staged on the others.
bool isAnythingStaged(const std::vector<std::string>& volumes) {
  return std::any_of(volumes.begin(), volumes.end(), [](const std::string& volume) {
    std::error_code ignored;
    const auto staged = std::filesystem::path(volume) / STAGED;
    return std::filesystem::exists(staged, ignored) && !std::filesystem::is_empty(staged, ignored);
  });
}

Report replay(Options options, const Workload& workload) {
  const LogScope log(options.log, options.logLevel);
  options.cache.blockSize = blockSizeFor(workload);
  options.cache.verify = ObjectStore::Verify::Never;  // every hit is compared with the origin's bytes
  options.cache.highWatermark = options.cache.lowWatermark = NEVER;  // but for the budget
  options.cache.replaceVolumes = !isAnythingStaged(options.cache.volumes);
  RootClaim claim(options.cache.root);
  claim.passOnClient();
  ObjectStore::ObjectCache cache(options.cache);
  bringUp(cache, options);
  RunSettings settings = options.run;
  settings.volumes = options.cache.volumes;
  if (settings.requests == 0) settings.requests = workload.defaultLength();

  Report report = runReplay(workload, cache, settings);
  report.mode = options.mode;
  report.leftOut = workload.leftOut();
  report.metrics = cache.metrics();
  return report;
}

void run(Options options) {
  if (options.origin.empty() && options.trace.empty()) {
    throw Failure(ExitStatus::BadInput, "replay: one of --origin and --trace is required (see --help)");
  }
  const bool isLru = options.mode == "lru";
  options.cache.mode = isLru ? ObjectStore::PruningMode::Lru : ObjectStore::PruningMode::Random;
  if (!isLru && !options.budget) {
    throw Failure(ExitStatus::BadInput, "replay: --mode random needs --budget (see --help)");
  }
  if (options.cache.maxBlocks == 0) options.cache.maxBlocks = isLru ? MAX_ENTRIES_LRU : MAX_ENTRIES_RANDOM;
  Output json(options.json);
  const auto workload = options.trace.empty()
                            ? makeDirectoryWorkload(options.origin, options.zipf, options.seed)
                            : makeTraceWorkload(options.trace, options.isById);
  Output record(options.record);  // after the trace is read, which it may replace
  if (record.isWanted()) {
    options.run.onRequest = [&record](const std::string& id, uint32_t size) {
      record.write(fmt::format("{},{}\n", id, size));
    };
  }
  Report report = replay(options, *workload);
  if (!options.isQuiet && !options.isJsonOnStdout()) fmt::print("{}", asTable(report));
  if (json.isWanted()) json.write(asJson(report));
  if (report.tally.verifyFailures != 0) {
    throw Failure(ExitStatus::CheckFailed,
                  fmt::format("replay: {} times wrong bytes, first in {}",
                              formatCount(report.tally.verifyFailures), report.tally.firstFailure));
  }
  if (report.moveError.IsError()) fail(options.run.moveVolumeTo, report.moveError);
  if (const uint64_t errors = report.metrics.diskErrors + report.metrics.refusedByDisk; errors != 0) {
    throw Failure(ExitStatus::Error,
                  fmt::format("replay: {} errors of the disks (see --log)", formatCount(errors)));
  }
}

// Replaces a size by its number of bytes; returns why it cannot.
std::string toBytes(std::string& size) {
  try {
    size = std::to_string(parseSize(size));
    return size == "0" ? "a budget of 0" : "";
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "replay", "Plays requests against a cache and checks every hit",
                                 HELP, [options] { run(*options); });

  const auto add = [command](const char* name, auto& value, const char* type, const char* description) {
    return command->add_option(name, value, description)->type_name(type);
  };
  const auto range = [](auto least, auto most) { return CLI::Range(least, most).description(""); };

  add("--root", options->cache.root, "DIR", "Directory of the cache's own files; made if missing")
      ->required();
  add("--volume", options->cache.volumes, "DIR", "Directory for what is cached; give one or several")
      ->required()
      ->expected(1)
      ->take_all();

  CLI::Option* origin = add("--origin", options->origin, "DIR", "Ask for files below a directory, or");
  CLI::Option* trace =
      add("--trace", options->trace, "FILE", "for the lines of a file: id,size[,...] or # comment");
  trace->excludes(origin);
  command
      ->add_flag(
          "--by-id", options->isById,
          "An identifier has the size of its first request: for traces that tell what was asked for, not how "
          "long the object is")
      ->needs(trace);
  add("--zipf", options->zipf, "S", "Exponent of the law by which files are drawn; 0 draws all alike")
      ->needs(origin)
      ->check(range(0.0, 10.0))
      ->check(CLI::Validator(whyNan, ""))
      ->capture_default_str();
  add("--requests", options->run.requests, "N",
      "How many; a shorter trace begins anew (default: the trace, or 10 a file)")
      ->check(range(uint64_t{1}, uint64_t{1} << 48));
  add("--seed", options->seed, "N", "Another seed draws other files")->capture_default_str();
  add("--threads", options->run.threads, "N", "Clients at work at once")
      ->check(range(1, 1024))
      ->capture_default_str();

  add("--migrate-to", options->run.moveVolumeTo, "DIR",
      "Move the first volume to DIR while the second half of the requests goes on");

  add("--mode", options->mode, "lru|random", "Whether least recently used or random objects make room")
      ->check(CLI::IsMember({"lru", "random"}).description(""))
      ->capture_default_str();
  add("--max-entries", options->cache.maxBlocks, "N",
      "Bound of the recency list, at least 5 (default: 100000, in mode random 5)")
      ->check(range(uint64_t{5}, uint64_t{1} << 48));
  add("--budget", options->budget, "SIZE",
      "Space that may be used beyond what is used at the start (64MiB, 1.5G); needed in mode random")
      ->transform(CLI::Validator(toBytes, ""));

  command->add_flag_callback(
      "--no-verify", [options] { options->run.verify = false; }, "Do not compare hits with the origin");
  add("--record", options->record, "FILE", "Write what was asked for as a trace that --trace takes");
  add("--json", options->json, "FILE", "Write the result as JSON to a file, or - for standard output");
  command->add_flag("--quiet", options->isQuiet, "Print no table");
  CLI::Option* log = add("--log", options->log, "FILE", "Append the cache's log to a file");
  add("--log-level", options->logLevel, "L", "From -1 (errors) to 9 (every change)")
      ->needs(log)
      ->check(range(-1, 9))
      ->capture_default_str();
}

}  // namespace diskcachectl::replay
