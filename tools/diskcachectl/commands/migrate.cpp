// diskcachectl migrate: moves a volume to another directory.
#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "client/volumeMarkers.h"
#include "commands/commands.h"
#include "common/options.h"
#include "common/output.h"
#include "common/progress.h"
#include "common/units.h"
#include "look/knownCache.h"
#include "look/server.h"
#include "look/volumeMove.h"
#include "replay/cacheSession.h"
#include "support/file.h"
#include "support/log.h"

namespace diskcachectl::migrate {
namespace {

using namespace ObjectStore;
using nlohmann::ordered_json;
namespace fs = std::filesystem;

constexpr size_t WORKERS = 4;                           // of the engine
constexpr std::chrono::milliseconds POLL_INTERVAL(10);  // of an interrupt, too
constexpr size_t MAX_NAMES = 10;

constexpr const char* HELP =
    R"(Copies a volume to DIR and points the cache there; the source stays as it is, but for the marker of a cache of
named objects, which will not take it for its volume again. The engine leaves some
directories behind when their number is no multiple of 4, and files that lie directly in the volume:
the command stops when there are any, unless told what to do. What a cache of named objects has in "blocks" and
"staged" never stays behind. No file may lie in DIR yet, so that nothing
older takes the place of what is copied; but a migration that was killed is resumed by the same command, unless
it was still copying what would stay behind (--complete): then empty DIR first.
A volume without "recycle", or of named objects without its marker, is taken for a disk that is not mounted. No
server may be running on the root, which must be the caller's own.
Exit status: 0 success, 2 bad input or something would stay behind, 3 an error of the cache or the system, or
interrupted (the volume then stays where it was), or moved from a source that can't be marked as left.

Example:
  diskcachectl migrate --root /var/cache/root --index 1 --to /mnt/a --complete)";

struct Options : CacheOptions {
  VolIndex index = 0;
  std::string destination;
  bool leavesBehind = false;
  bool isComplete = false;
  bool addsVolume = false;
};

volatile std::sig_atomic_t g_isInterrupted = 0;

// A second signal ends the process at once, as a kill would.
void catchInterrupts() {
  struct sigaction action {};
  action.sa_handler = [](int) { g_isInterrupted = 1; };
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
}

[[noreturn]] void failInterrupted(const std::string& source) {
  throw Failure(ExitStatus::Error, "interrupted: the volume stays at " + source);
}

// Hears of each file that the engine copies.
class CopyCounter : public CLogWriterInterface {
 public:
  void write(int level, const char* /*operation*/, int /*line*/, int /*reserved1*/, int /*reserved2*/,
             const char* format, ...) override {
    if (level == LogLevel::Copy && std::string_view(format).starts_with("copying [")) ++m_copied;
  }
  int getLevel() const override { return LogLevel::Copy; }
  uint64_t copied() const { return m_copied; }

 private:
  std::atomic<uint64_t> m_copied{0};
};

bool isDirectory(const fs::directory_entry& entry) { return fs::is_directory(entry.symlink_status()); }

bool isLeftover(const fs::directory_entry& entry) {
  return entry.path().native().ends_with(RMFile::COPY_SUFFIX);
}

// Calls `visit` with each entry of a directory in listing order; a failure names the directory.
template <typename Iterator, typename Visit>
void forEach(const std::string& dir, Visit visit) {
  std::error_code error;
  Iterator entry(dir, error);
  for (; !error && entry != Iterator(); entry.increment(error)) visit(*entry);
  if (error) fail(dir, error.value());
}

// What happens to the entries on top of a volume; names.
struct Plan {
  std::vector<std::string> copied;
  std::vector<std::string> leftBehind;
};

// The engine makes this one on every volume.
constexpr const char* RECYCLE_DIR = "recycle";

// Of n directories each engine worker takes n / 4, rounded down, from n * t / 4 on, the last one the rest.
Plan planFor(const std::string& source) {
  std::vector<std::string> dirs;
  Plan plan;
  forEach<fs::directory_iterator>(source, [&](const fs::directory_entry& entry) {
    if (!isDirectory(entry) && isLeftover(entry)) return;
    (isDirectory(entry) ? dirs : plan.leftBehind).push_back(entry.path().filename());
  });
  const size_t share = dirs.size() / WORKERS;
  for (size_t t = 0; t < WORKERS; ++t) {
    const size_t begin = dirs.size() * t / WORKERS;
    const size_t next = dirs.size() * (t + 1) / WORKERS;
    for (size_t i = begin; i < next; ++i) {
      const bool isTaken = t == WORKERS - 1 || i < begin + share;
      (isTaken ? plan.copied : plan.leftBehind).push_back(dirs[i]);
    }
  }
  return plan;
}

// Links, FIFOs and the like are never copied; the engine would not say which one ended the migration.
void requireFile(const fs::directory_entry& entry) {
  if (fs::is_regular_file(entry.symlink_status())) return;
  throw Failure(ExitStatus::BadInput, entry.path().native() + ": neither a file nor a directory");
}

// How many files the engine will copy: it leaves those that are at the destination.
uint64_t countFiles(const Plan& plan, const std::string& source, const std::string& destination) {
  uint64_t count = 0;
  for (const std::string& dir : plan.copied) {
    forEach<fs::recursive_directory_iterator>(fs::path(source) / dir, [&](const fs::directory_entry& entry) {
      if (g_isInterrupted != 0) failInterrupted(source);
      if (isDirectory(entry) || isLeftover(entry)) return;
      requireFile(entry);
      if (!fs::exists(destination + '/' + entry.path().native().substr(source.size()))) ++count;
    });
  }
  return count;
}

std::string listed(const std::vector<std::string>& names) {
  std::string text;
  for (size_t i = 0; i < std::min(names.size(), MAX_NAMES); ++i) text += (i == 0 ? "" : ", ") + names[i];
  if (names.size() > MAX_NAMES) text += fmt::format(" and {} more", formatCount(names.size() - MAX_NAMES));
  return text;
}

void copyEntry(const fs::directory_entry& entry, const std::string& target, const std::string& source) {
  if (g_isInterrupted != 0) failInterrupted(source);
  if (isDirectory(entry)) {
    makeDirectory(target);
    forEach<fs::directory_iterator>(entry.path(), [&](const fs::directory_entry& inner) {
      copyEntry(inner, target + '/' + inner.path().filename().native(), source);
    });
  } else if (!isLeftover(entry) && !fs::exists(target)) {
    requireFile(entry);
    const CZuError error = RMFile::KXCopyFile(entry.path(), target, 0);
    if (error.IsError()) fail(entry.path(), error);
  }
}

void copyLeftBehind(const Plan& plan, const std::string& source, const std::string& destination) {
  makeDirectory(destination);
  for (const std::string& name : plan.leftBehind) {
    copyEntry(fs::directory_entry(fs::path(source) / name), fs::path(destination) / name, source);
  }
}

void refuseDestination(const KnownCache& known, const std::string& source, const std::string& destination) {
  const fs::path way = fs::weakly_canonical(destination).lexically_relative(fs::weakly_canonical(source));
  if (!way.empty() && *way.begin() != "..") {
    throw Failure(ExitStatus::BadInput, fmt::format("{}: is the source, or lies in it", destination));
  }
  std::error_code ignored;
  for (const KnownVolume& volume : known.volumes) {
    if (volume.dir != destination && !fs::equivalent(volume.dir, destination, ignored)) continue;
    throw Failure(ExitStatus::BadInput, fmt::format("{}: is volume {} already", destination, volume.index));
  }
  if (!fs::exists(destination)) return;
  // It would count as the volume's, and be left as it is, however old.
  forEach<fs::recursive_directory_iterator>(destination, [](const fs::directory_entry& entry) {
    if (isDirectory(entry)) return;
    throw Failure(ExitStatus::BadInput, entry.path().native() + ": lies at the destination; remove it first");
  });
}

std::string directoryOf(const KnownCache& known, const Options& options) {
  for (const KnownVolume& volume : known.volumes) {
    if (volume.index == options.index) return volume.dir;
  }
  throw Failure(ExitStatus::BadInput, fmt::format("{}: knows no volume {}", options.root, options.index));
}

// An empty mount point looks like a volume, and would be the one from then on.
void refuseUnmounted(const KnownCache& known, const std::string& source) {
  const auto refuse = [&source](const char* what) {
    throw Failure(ExitStatus::BadInput, fmt::format("{}: has no {}: is the disk mounted?", source, what));
  };
  if (known.isObjectCache && !fs::exists(fs::path(source) / VOLUME_MARKER)) refuse("marker of the cache");
  if (!fs::exists(fs::path(source) / RECYCLE_DIR)) refuse("\"recycle\", as every volume has");
}

// The cache would take what it does not find for lost.
void refuseLoss(const KnownCache& known, const Plan& plan, const Options& options,
                const std::string& source) {
  if (!known.isObjectCache || !options.leavesBehind) return;
  for (const std::string& name : plan.leftBehind) {
    if (name != BLOCKS_DIR && name != STAGED_DIR) continue;
    throw Failure(ExitStatus::BadInput,
                  fmt::format("{}: \"{}\" would stay behind, with {}; --complete copies it", source, name,
                              name == STAGED_DIR ? "objects that have no other copy" : "what is cached"));
  }
}

// Ends before anything happens when something would stay behind and nobody has said what to do.
void settle(const Plan& plan, const Options& options, const std::string& source) {
  if (plan.leftBehind.empty()) return;
  const std::string names = listed(plan.leftBehind);
  if (!options.leavesBehind && !options.isComplete) {
    throw Failure(ExitStatus::BadInput,
                  fmt::format("{}: the engine would leave behind {}: choose --complete (copy that first) or "
                              "--leave-behind",
                              source, names));
  }
  if (options.isJson) return;
  fmt::print("{}: {}\n", options.isComplete ? "copying before the migration" : "left behind",
             printable(names));
  std::fflush(stdout);
}

void waitForEnd(const CopyCounter& counter, uint64_t files) {
  Progress progress("migrate");
  while (g_isInterrupted == 0 && !VolumeMove::waitFor(POLL_INTERVAL)) {
    progress.show(counter.copied(), files);
  }
}

void printResult(const Options& options, const std::string& source, const Plan& plan, uint64_t files) {
  if (!options.isJson) {
    fmt::print("volume {}: {} -> {}, {} files\n", options.index, printable(source),
               printable(options.destination), formatCount(files));
    return;
  }
  const std::vector<std::string> none;
  printJson({{"index", options.index},
             {"source", source},
             {"destination", options.destination},
             {"left_behind", options.isComplete ? none : plan.leftBehind},
             {"copied_before", options.isComplete ? plan.leftBehind : none},
             {"files", files}});
}

void run(Options options) {
  options.destination = fs::absolute(options.destination);  // the cache may run elsewhere
  catchInterrupts();
  const auto counter = std::make_shared<CopyCounter>();
  g_ptrLogWriter = counter;
  refuseOthersRoot(options.root);
  const RootClaim claim(options.root);
  const KnownCache known(options.root);
  const auto& noted = known.migration;
  const bool isResumed =
      noted && noted->index == options.index && fs::absolute(noted->destination) == options.destination;
  if (!isResumed) known.refuseMove();
  options.volumes =
      known.choosePresent(options.volumes, options.addsVolume ? Stranger::Add : Stranger::Refuse);
  const std::string source = isResumed ? noted->source : directoryOf(known, options);
  if (!isResumed) refuseDestination(known, source, options.destination);
  refuseUnmounted(known, source);

  Plan plan = planFor(source);
  refuseLoss(known, plan, options, source);
  settle(plan, options, source);
  const uint64_t files = countFiles(plan, source, options.destination);
  if (isResumed && options.isComplete) copyLeftBehind(plan, source, options.destination);
  VolumeMove::expect();
  std::optional<CacheSession> session;
  session.emplace(options, isResumed ? CacheSession::Use::Resume : CacheSession::Use::Change);
  if (!isResumed) {
    plan = planFor(source);  // as the engine will divide it, whoever has put something there meanwhile
    refuseLoss(known, plan, options, source);
    if (options.isComplete) copyLeftBehind(plan, source, options.destination);
    VolumeMove::start(session->cache(), options.index, source, options.destination);
  }
  waitForEnd(*counter, files);
  session.reset();  // a migration that is still at work ends as failed

  const int outcome = VolumeMove::waitFor(POLL_INTERVAL).value_or(EINTR);
  if (outcome == EINTR && g_isInterrupted != 0) failInterrupted(source);
  if (outcome != 0) {
    throw Failure(ExitStatus::Error, fmt::format("{}: {}; the volume stays at {}", options.destination,
                                                 std::strerror(outcome), source));
  }
  printResult(options, source, plan, counter->copied());
  const int rc = markMoved(source, options.destination);  // which waits for the destination's disk, too
  // Volumes of other clients have no marker.
  if (rc == 0 || (!known.isObjectCache && (rc == ENOENT || rc == EROFS))) return;
  throw Failure(
      ExitStatus::Error,
      fmt::format("the volume is moved, but {} can't be marked as left ({}): remove it once {} is verified",
                  source, std::strerror(rc), options.destination));
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "migrate", "Moves a volume to another directory", HELP,
                                 [options] { run(*options); });
  addCacheOptions(*command, *options, true);
  makeVolumesOptional(*command);
  addAddVolume(*command, options->addsVolume);
  command->add_option("--index", options->index, "The volume's index")
      ->required()
      ->type_name("N")
      ->check(CLI::Range(1, 65535).description(""));
  command->add_option("--to", options->destination, "Where it goes; made if missing")
      ->required()
      ->type_name("DIR")
      ->check(CLI::Validator(whyNoVolume, ""));
  CLI::Option* leave =
      command->add_flag("--leave-behind", options->leavesBehind, "Go on without what stays behind");
  command->add_flag("--complete", options->isComplete, "Copy what would stay behind before the migration")
      ->excludes(leave);
}

}  // namespace diskcachectl::migrate
