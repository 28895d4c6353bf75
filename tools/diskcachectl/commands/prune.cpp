// diskcachectl prune: frees space on a stopped cache.
#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "commands/commands.h"
#include "common/ask.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/progress.h"
#include "common/units.h"
#include "look/blockLook.h"
#include "look/knownCache.h"
#include "look/looking.h"
#include "look/server.h"
#include "look/treeWalk.h"

namespace diskcachectl::prune {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Deletes segments of a stopped cache, those first that were not changed for longest: the cache's own reads leave access times alone, so the time of modification is the only one that tells. It goes through the directories that --context names (of a cache of named objects "blocks" by itself) until --bytes are freed, or each file system is used to --to percent, or nothing is left; with --older-than nothing younger goes. Directories that hold what was never to be pruned are touched only when --non-prunable names them, and after a question that is answered on standard input. Directories that become empty go too, since each takes an inode.

Exit status: 0 success (also when less could be freed), 2 bad input or not confirmed, 3 an error of the system, or a server runs.

Example:
  diskcachectl prune --root /var/cache/root --context data --to 80 --dry-run)";

struct Options {
  std::string root;
  std::vector<std::string> volumes;
  std::vector<std::string> contexts;
  std::vector<std::string> nonprunable;
  std::optional<uint64_t> bytes;
  std::optional<double> percent;
  std::optional<int64_t> age;
  bool isDry = false;
  bool isJson = false;
};

struct Candidate {
  timespec modified;
  uint64_t allocated;
  dev_t device;
  std::string path;

  auto order() const { return std::tie(modified.tv_sec, modified.tv_nsec, path); }
};

// How much is still to be freed.
class Goal {
 public:
  Goal(const Options& options, const std::vector<std::string>& volumes)
      : m_bytes(options.bytes), m_isBounded(options.bytes || options.percent) {
    if (!options.percent) return;
    for (const std::string& volume : volumes) {
      struct stat status {};
      const auto room = measure(volume);
      if (!room || stat(volume.c_str(), &status) != 0) continue;
      const double most = static_cast<double>(room->total) * *options.percent / 100;
      const double excess = static_cast<double>(room->used()) - most;
      m_excess[status.st_dev] = excess > 0 ? static_cast<uint64_t>(excess) + 1 : 0;
    }
  }

  // Whether giving this one up brings the goal nearer.
  bool wants(const Candidate& candidate) const {
    if (!m_isBounded) return true;
    const auto excess = m_excess.find(candidate.device);
    return (m_bytes && *m_bytes > 0) || (excess != m_excess.end() && excess->second > 0);
  }
  void took(const Candidate& candidate) {
    const auto reduce = [&](uint64_t& left) { left -= std::min(left, candidate.allocated); };
    if (m_bytes) reduce(*m_bytes);
    if (const auto excess = m_excess.find(candidate.device); excess != m_excess.end()) reduce(excess->second);
  }
  uint64_t missing() const {
    uint64_t sum = m_bytes.value_or(0);
    for (const auto& [device, left] : m_excess) sum += left;
    return sum;
  }

 private:
  std::optional<uint64_t> m_bytes;
  std::map<dev_t, uint64_t> m_excess;  // of each file system
  const bool m_isBounded;
};

struct Freed {
  uint64_t segments = 0;
  uint64_t bytes = 0;
  int64_t youngest = 0;  // seconds since 1970, of what went
  uint64_t missing = 0;
};

class Pruning {
 public:
  Pruning(const Options& options, bool isObjectCache) : m_options(options), m_isObjectCache(isObjectCache) {}

  void collect(const std::vector<std::string>& volumes) {
    std::vector<std::string> roots;
    for (const auto* names : {&m_options.contexts, &m_options.nonprunable}) {
      m_prunableRoots = roots.size();
      for (const std::string& name : *names) {
        for (const std::string& volume : volumes) {
          std::string root = volume;
          root.append(1, '/').append(name);
          const int error = LookedAt(root, O_DIRECTORY).error();
          if (error == 0) {
            roots.push_back(canonicalPath(root));
          } else if (error != ENOENT && error != ENOTDIR) {
            complain(root, error);
          }
        }
      }
    }
    for (const std::string& volume : volumes) m_volumes.push_back(canonicalPath(volume));
    if (roots.empty() && m_worst == ExitStatus::Success)
      throw Failure(ExitStatus::BadInput, "no volume has a directory of that name");
    TreeWalk walk(
        roots, [this](const WalkedFile& file, size_t) { visit(file); },
        [this](const std::string& path, int error) { complain(path, error); });
    walk.runWithProgress("prune", 1, [] { return std::string("looking"); });
    std::sort(m_found.begin(), m_found.end(),
              [](const Candidate& a, const Candidate& b) { return a.order() < b.order(); });
    // Directories may be named twice, or one within another.
    const auto isSame = [](const Candidate& a, const Candidate& b) { return a.path == b.path; };
    m_found.erase(std::unique(m_found.begin(), m_found.end(), isSame), m_found.end());
  }

  Freed free(Goal goal) {
    Freed freed;
    Progress progress("prune");
    for (size_t i = 0; i < m_found.size(); ++i) {
      const Candidate& candidate = m_found[i];
      progress.show(i, m_found.size());
      if (!goal.wants(candidate) || !remove(candidate.path)) continue;
      goal.took(candidate);
      ++freed.segments;
      freed.bytes += candidate.allocated;
      freed.youngest = candidate.modified.tv_sec;
    }
    freed.missing = goal.missing();
    return freed;
  }

  ExitStatus worst() const { return m_worst; }

 private:
  void visit(const WalkedFile& file) {
    // What lies elsewhere is no segment: the markers of volumes, for one.
    if (file.type != DT_REG || kindOf(file) != FileKind::Segment || !placeOf(file).isInPlace) return;
    if (m_isObjectCache && file.root < m_prunableRoots && isStaged(belowVolume(m_volumes, file.dir))) return;
    struct stat status {};
    if (fstatat(file.dirFd, file.name, &status, AT_SYMLINK_NOFOLLOW) != 0)
      return complain(file.path(), errno);
    if (m_options.age && m_now - status.st_mtim.tv_sec < *m_options.age) return;
    m_found.push_back(
        {status.st_mtim, static_cast<uint64_t>(status.st_blocks) * 512, status.st_dev, file.path()});
  }

  bool remove(const std::string& path) {
    if (m_options.isDry) return true;
    if (unlink(path.c_str()) != 0) {
      complain(path, errno);
      return false;
    }
    std::string dir = path;
    for (int level = 0; level < 2; ++level) {  // up to the context's own directory
      dir.resize(dir.find_last_of('/'));
      if (rmdir(dir.c_str()) != 0) break;
    }
    return true;
  }

  void complain(const std::string& path, int error) {
    printError(fmt::format("{}: {}", path, std::strerror(error)));
    m_worst = ExitStatus::Error;
  }

  const Options& m_options;
  const bool m_isObjectCache;
  const int64_t m_now = std::time(nullptr);
  std::vector<std::string> m_volumes;
  size_t m_prunableRoots = 0;  // those behind them are of --non-prunable
  std::vector<Candidate> m_found;
  ExitStatus m_worst = ExitStatus::Success;
};

void print(const Options& options, const Freed& freed) {
  if (options.isJson) {
    printJson({{"dry_run", options.isDry},
               {"order", "modification"},
               {"segments", freed.segments},
               {"bytes", freed.bytes},
               {"youngest", freed.segments == 0 ? ordered_json() : ordered_json(freed.youngest)},
               {"missing", freed.missing}});
    return;
  }
  fmt::print("{} {} in {} segments, by time of modification", options.isDry ? "would free" : "freed",
             formatSize(freed.bytes), formatCount(freed.segments));
  if (freed.segments != 0) {
    fmt::print("; unchanged for {} or longer", formatAge(int64_t{std::time(nullptr)} - freed.youngest));
  }
  fmt::print("\n");
  if (freed.missing != 0) fmt::print("{} short of what was asked for\n", formatSize(freed.missing));
}

// Which directories may be gone through. A cache of named objects tells by itself which ones are which.
void settleContexts(Options& options, const KnownCache& known) {
  if (known.isObjectCache) {
    if (options.contexts.empty()) options.contexts.emplace_back(BLOCKS);
    for (const std::string& name : options.contexts) {
      if (!isStaged(name)) continue;
      throw Failure(ExitStatus::BadInput, name + ": holds the only copy of objects; see --non-prunable");
    }
  }
  if (!options.contexts.empty() || !options.nonprunable.empty()) return;
  throw Failure(ExitStatus::BadInput, "prune: --context is required (see --help)");
}

void run(Options options) {
  if (!options.bytes && !options.percent && !options.age) {
    throw Failure(ExitStatus::BadInput,
                  "prune: one of --bytes, --to and --older-than is required (see --help)");
  }
  const RootClaim claim(options.root);
  const KnownCache known(options.root);
  known.refuseMove();
  settleContexts(options, known);
  const std::vector<std::string> volumes = known.choosePresent(options.volumes, Stranger::Refuse);
  if (!options.nonprunable.empty() && !options.isDry) {
    confirm(fmt::format("What lies in {} was never to be pruned and may have no other copy. Delete it?",
                        fmt::join(options.nonprunable, ", ")));
  }
  Pruning pruning(options, known.isObjectCache);
  pruning.collect(volumes);
  print(options, pruning.free(Goal(options, volumes)));
  if (pruning.worst() != ExitStatus::Success) throw Failure(pruning.worst());
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command =
      addCommand(program, "prune", "Frees space on a stopped cache", HELP, [options] { run(*options); });
  addRoot(*command, options->root)->required();
  addVolumes(*command, options->volumes, true);
  makeVolumesOptional(*command);
  addContexts(*command, "--context", options->contexts, "Directories of the volumes to go through");
  addContexts(*command, "--non-prunable", options->nonprunable,
              "Also these, of what pruning leaves alone; asks");
  CLI::Option* bytes = command->add_option("--bytes", options->bytes, "Free so much (64MiB, 1.5G)")
                           ->type_name("SIZE")
                           ->transform(CLI::Validator(sizeToNumber, ""));
  command->add_option("--to", options->percent, "Free until each file system is used to so many percent")
      ->type_name("PERCENT")
      ->check(CLI::Range(0.0, 100.0).description(""))
      ->check(CLI::Validator(whyNan, ""))
      ->excludes(bytes);
  command->add_option("--older-than", options->age, "Only what was not changed for so long (90m, 12h, 7d)")
      ->type_name("AGE")
      ->transform(CLI::Validator(ageToNumber, ""));
  command->add_flag("--dry-run", options->isDry, "Only tell what would go");
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::prune
