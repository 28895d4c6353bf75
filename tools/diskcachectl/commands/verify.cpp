// diskcachectl verify: every segment file of whole volumes, checked.
#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "look/blockLook.h"
#include "look/knownCache.h"
#include "look/looking.h"
#include "look/segmentDecoder.h"
#include "look/server.h"
#include "look/treeWalk.h"

namespace diskcachectl::verify {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Checks segment files like "inspect" does, below directories (whole volumes, or parts of them) or one by one. Segments have no checksums: what is checked is that a file's records are where its header says and whole. Blocks of named objects have: their trailer is checked, and their bytes against its checksums. Files in "recycle", leftovers of replacements and copies that were cut short (.temp, .copying) and files where no identifier leads are counted apart. Paths are told without links. One that a running server is writing at this moment may seem damaged.

With --root and --remove what is damaged is deleted, below all volumes of the root or the paths given, while no server has the cache in use; objects that are staged stay, since there is no other copy of them, and so do files where no identifier leads or that are no segments and have a name of one character, which leads anywhere: they may be anybody's.

Exit status: 0 all sound, 1 damage, removed or not, 2 a path that cannot be used, 3 a file or directory below one that cannot be read or removed, or a server runs.

Example:
  diskcachectl verify /var/cache/a /var/cache/b)";

struct Options {
  std::vector<std::string> paths;
  std::string root;
  bool removes = false;
  size_t threads = std::max(1U, std::thread::hardware_concurrency());
  bool isJson = false;
};

// One a thread; added up at the end.
struct alignas(64) Counts {
  std::atomic<uint64_t> files{0};  // read by the progress bar meanwhile
  uint64_t segments = 0;
  uint64_t sections = 0;
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  uint64_t recycled = 0;
  uint64_t leftovers = 0;
  uint64_t misplaced = 0;
  SegmentLayout layout;  // its memory serves every file of the thread
};

struct Damaged {
  std::string path;
  bool isSegment;  // or what is left of one
};

class Verification {
 public:
  // All paths of volumes and of what is looked at are canonical.
  Verification(const Options& options, std::vector<std::string> volumes, bool isObjectCache)
      : m_counts(options.threads),
        m_volumes(std::move(volumes)),
        m_isObjectCache(isObjectCache),
        m_isJson(options.isJson),
        m_removes(options.removes) {}

  void run(const std::vector<std::string>& paths) {
    std::vector<std::string> directories;
    for (const std::string& path : paths) {
      struct stat status {};
      if (stat(path.c_str(), &status) != 0) {
        complain(path, errno, ExitStatus::BadInput);
      } else if (isCovered(path, paths)) {
        continue;
      } else if (S_ISDIR(status.st_mode)) {
        directories.push_back(path);
      } else {
        ++m_counts[0].files;
        check(AT_FDCWD, path.c_str(), path, m_counts[0]);
      }
    }
    TreeWalk walk(
        directories, [this](const WalkedFile& file, size_t thread) { visit(file, m_counts[thread]); },
        [this](const std::string& path, int error) { complain(path, error, ExitStatus::Error); });
    walk.runWithProgress("verify", m_counts.size(),
                         [&] { return fmt::format("{} files", formatCount(sum(&Counts::files))); });
    for (const Damaged& damaged : m_damaged) remove(damaged);
  }

  ExitStatus finish() const {
    m_isJson ? printJson(asJson()) : printSummary();
    return std::max(m_problemCount == 0 ? ExitStatus::Success : ExitStatus::CheckFailed, m_worst);
  }

 private:
  template <typename Field>
  uint64_t sum(Field Counts::*field) const {
    uint64_t total = 0;
    for (const Counts& counts : m_counts) total += counts.*field;
    return total;
  }

  // Whether it lies below another path, or is given again further on.
  static bool isCovered(const std::string& path, const std::vector<std::string>& paths) {
    return std::any_of(paths.begin(), paths.end(), [&](const std::string& other) {
      return other == path ? &other > &path : belowVolume({other}, path) != path;
    });
  }

  void visit(const WalkedFile& file, Counts& counts) {
    if (file.type == DT_DIR) return;
    counts.files.fetch_add(1, std::memory_order_relaxed);
    switch (kindOf(file)) {
      case FileKind::Own: return;
      case FileKind::Recycled: ++counts.recycled; return;
      case FileKind::Leftover: ++counts.leftovers; return;
      case FileKind::Segment: break;
    }
    if (!placeOf(file).isInPlace) ++counts.misplaced;
    if (file.type != DT_REG) return report(file.path(), "not a regular file");
    check(file.dirFd, file.name, file, counts);
  }

  bool isBlockAt(const std::string& dir, std::string_view name) const {
    if (m_volumes.empty()) return isMarkedBlock(dir, name);
    return m_isObjectCache && isBlock(belowVolume(m_volumes, dir), name);
  }
  bool isBlockAt(const std::string& path) const {
    return isBlockAt(path.substr(0, path.find_last_of('/')), nameIn(path.c_str()));
  }
  // A whole path, or a name in the directory that the walk is in.
  static std::string_view nameIn(const char* path) {
    const std::string_view name = path;
    return name.substr(name.find_last_of('/') + 1);
  }
  bool isBlockAt(const WalkedFile& file) const { return isBlockAt(file.dir, file.name); }

  static std::string pathOf(const std::string& path) { return path; }
  static std::string pathOf(const WalkedFile& file) { return file.path(); }

  // The path is built for a damaged file only.
  template <typename Named>
  void check(int dirFd, const char* name, const Named& named, Counts& counts) {
    const LookedAt file(dirFd, name, dirFd == AT_FDCWD ? 0 : O_NOFOLLOW);
    SegmentLayout& layout = counts.layout;
    const int rc = file.error() != 0 ? file.error() : decodeSegment(file.fd(), layout);
    if (rc == ENOENT) return;  // deleted since it was listed
    if (rc == EINVAL) return report(pathOf(named), "not a regular file");
    if (rc != 0) return complain(pathOf(named), rc, ExitStatus::Error);
    if (layout.isSegment) ++counts.segments;
    counts.sections += layout.liveSections;
    counts.bytes += layout.bytes;
    if (layout.problems.empty() && isBlockAt(named)) {
      try {
        const std::string why = whyNoBlock(file.fd(), layout, nameIn(name), true);
        ++counts.blocks;
        if (!why.empty()) layout.problems.push_back(why);
      } catch (const std::system_error& failed) {
        return complain(pathOf(named), failed.code().value(), ExitStatus::Error);
      }
    }
    if (layout.problems.empty()) return;
    report(pathOf(named), fmt::format("{}", fmt::join(layout.problems, "; ")),
           layout.isSegment || layout.isCutShort);
  }

  void report(const std::string& path, const std::string& problem, bool isSegment = false) {
    const std::scoped_lock lock(m_lock);
    ++m_problemCount;
    if (m_removes) m_damaged.push_back({path, isSegment});
    if (m_isJson) {
      m_problems.push_back({{"path", path}, {"problem", problem}});
    } else {
      fmt::print("{}: {}\n", printable(path), painted(Colour::Red, printable(problem)));
    }
  }

  void remove(const Damaged& damaged) {
    const std::string& path = damaged.path;
    const size_t slash = path.find_last_of('/');
    const std::string dir = path.substr(0, slash), name = path.substr(slash + 1);
    const std::string_view below = belowVolume(m_volumes, dir);
    const SegmentPlace place = placeOf({AT_FDCWD, name.c_str(), dir, 0, below, DT_REG});
    if (isStaged(below)) {
      printError(path + ": staged, left as it is");
    } else if (!place.isInPlace || place.context.empty() || (name.size() == 1 && !damaged.isSegment)) {
      printError(path + ": no identifier leads there, left as it is");
    } else if (unlink(path.c_str()) != 0) {
      complain(path, errno, ExitStatus::Error);
    } else {
      ++m_removed;
    }
  }

  // What cannot be read is neither sound nor damaged.
  void complain(const std::string& path, int error, ExitStatus status) {
    const std::scoped_lock lock(m_lock);
    printError(fmt::format("{}: {}", path, std::strerror(error)));
    m_worst = std::max(m_worst, status);
  }

  void printSummary() const {
    fmt::print("{} files, {} segments with {} sections, {}\n", formatCount(sum(&Counts::files)),
               formatCount(sum(&Counts::segments)), formatCount(sum(&Counts::sections)),
               formatSize(sum(&Counts::bytes)));
    if (const uint64_t blocks = sum(&Counts::blocks); blocks != 0) {
      fmt::print("{} blocks of named objects, compared with their checksums\n", formatCount(blocks));
    }
    const auto apart = [](uint64_t count, const char* what) {
      if (count != 0) fmt::print("{} {}\n", formatCount(count), what);
    };
    apart(sum(&Counts::recycled), "recycled");
    apart(sum(&Counts::leftovers), "left over from replacements or copies that were cut short");
    apart(sum(&Counts::misplaced), "where no identifier leads");
    if (m_problemCount != 0) {
      fmt::print("{}\n", painted(Colour::Red, formatCount(m_problemCount) + " damaged"));
      if (m_removes) fmt::print("{} removed\n", formatCount(m_removed));
    } else if (m_worst != ExitStatus::Success) {
      fmt::print("no damage in what could be read\n");
    } else {
      fmt::print("{}\n", painted(Colour::Green, "no damage"));
    }
  }

  ordered_json asJson() const {
    return {{"files", sum(&Counts::files)},
            {"segments", sum(&Counts::segments)},
            {"sections", sum(&Counts::sections)},
            {"bytes", sum(&Counts::bytes)},
            {"recycled", sum(&Counts::recycled)},
            {"leftovers", sum(&Counts::leftovers)},
            {"misplaced", sum(&Counts::misplaced)},
            {"blocks", sum(&Counts::blocks)},
            {"removed", m_removed},
            {"problems", m_problems}};
  }

  std::vector<Counts> m_counts;
  const std::vector<std::string> m_volumes;  // none without a root
  const bool m_isObjectCache;                // not known without a root
  const bool m_isJson;
  const bool m_removes;
  std::mutex m_lock;  // guards what follows while threads run
  ExitStatus m_worst = ExitStatus::Success;
  uint64_t m_problemCount = 0;
  std::vector<Damaged> m_damaged;  // to be removed
  uint64_t m_removed = 0;
  ordered_json m_problems = ordered_json::array();
};

void run(Options options) {
  std::optional<RootClaim> claim;
  std::vector<std::string> volumes;
  bool isObjectCache = false;
  // As they are typed they need not tell which part of which volume they are.
  for (std::string& path : options.paths) path = canonicalPath(path);
  if (!options.root.empty()) {
    if (options.removes) claim.emplace(options.root);
    tellServer(options.root);
    const KnownCache known(options.root);
    if (options.removes) known.refuseMove();
    isObjectCache = known.isObjectCache;
    volumes = known.choosePresent({}, Stranger::Refuse);
    for (std::string& volume : volumes) volume = canonicalPath(volume);
    for (const std::string& path : options.paths) {
      if (belowVolume(volumes, path) != path) continue;
      throw Failure(ExitStatus::BadInput, path + ": lies on no volume of the cache");
    }
    if (options.paths.empty()) options.paths = volumes;
  }
  if (options.paths.empty()) {
    throw Failure(ExitStatus::BadInput, "verify: one of PATH and --root is required (see --help)");
  }
  Verification verification(options, volumes, isObjectCache);
  verification.run(options.paths);
  const ExitStatus status = verification.finish();
  if (status != ExitStatus::Success) throw Failure(status);
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "verify", "Checks every segment file below directories", HELP,
                                 [options] { run(*options); });
  command->add_option("PATH", options->paths, "Volumes, directories or files (default: the root's volumes)")
      ->type_name("");
  CLI::Option* root = addRoot(*command, options->root);
  command->add_flag("--remove", options->removes, "Delete what is damaged")->needs(root);
  command->add_option("--threads", options->threads, "How many work at once (default: one a processor)")
      ->type_name("N")
      ->check(CLI::Range(size_t{1}, size_t{1024}).description(""));
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::verify
