// diskcachectl clean: what lies on volumes and serves nobody.
#include <dirent.h>
#include <fmt/core.h>
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
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "look/blockLook.h"
#include "look/knownCache.h"
#include "look/looking.h"
#include "look/openFiles.h"
#include "look/segmentDecoder.h"
#include "look/server.h"
#include "look/treeWalk.h"

namespace diskcachectl::clean {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Lists what lies on volumes and serves nobody: leftovers of replacements and copies (.temp, .copying), files that a kill cut short and that have no whole section, segments where no identifier leads, empty directories, and what is in "recycle" for longer than --recycled-for. --remove deletes it. Beside a running server only what was not changed for an hour counts and is not open in any process. Files that are no segments are left alone, and so are objects that are staged.

Exit status: 0 success, 2 bad input, 3 a directory that cannot be read or a file that cannot be removed.

Example:
  diskcachectl clean --root /var/cache/root --remove)";

constexpr int64_t HOUR = 3600;

struct Options {
  std::string root;
  std::vector<std::string> volumes;
  int64_t recycledFor = int64_t{7} * 24 * HOUR;
  bool removes = false;
  bool isJson = false;
};

struct Finding {
  std::string path;
  const char* why;
  uint64_t allocated;
  bool isDirectory;
};

class Cleaning {
 public:
  Cleaning(const Options& options, bool isObjectCache, bool hasServer)
      : m_options(options), m_isObjectCache(isObjectCache) {
    if (hasServer) m_open.emplace();
  }

  void look(const std::vector<std::string>& volumes) {
    TreeWalk walk(
        volumes, [this](const WalkedFile& file, size_t) { visit(file); },
        [this](const std::string& path, int error) { complain(path, error); });
    walk.runWithProgress("clean", 1, [] { return std::string("looking"); });
    addEmptyDirectories();
  }

  void finish() {
    uint64_t bytes = 0, removed = 0;
    ordered_json rows = ordered_json::array();
    for (const Finding& finding : m_findings) {
      const bool isGone = m_options.removes && remove(finding);
      removed += isGone;
      if (isGone || !m_options.removes) bytes += finding.allocated;
      if (m_options.isJson) {
        rows.push_back({{"path", finding.path},
                        {"why", finding.why},
                        {"allocated", finding.allocated},
                        {"removed", isGone}});
      } else {
        fmt::print("{:>10}  {:<16} {}\n", formatSize(finding.allocated), finding.why,
                   printable(finding.path));
      }
    }
    if (m_options.isJson) return printJson({{"found", rows}, {"removed", removed}, {"bytes", bytes}});
    const std::string done = m_options.removes ? formatCount(removed) + " removed" : "--remove deletes them";
    fmt::print("{} found, {}; {}\n", formatCount(m_findings.size()), formatSize(bytes), done);
  }

  ExitStatus worst() const { return m_worst; }

 private:
  struct Directory {
    uint64_t entries = 0;
    uint64_t allocated = 0;
    bool mayGo = false;  // below the top directories of a volume, and old enough
  };

  void visit(const WalkedFile& file) {
    if (isLostAndFound(file)) return;
    ++m_directories[file.dir].entries;
    struct stat status {};
    if (fstatat(file.dirFd, file.name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;  // deleted meanwhile
    if (file.type == DT_DIR) {
      Directory& directory = m_directories[file.path()];
      directory.allocated = static_cast<uint64_t>(status.st_blocks) * 512;
      directory.mayGo = !file.relative.empty() && isSettled(status);
    } else if (const char* why = whyUseless(file, status); why != nullptr && isSettled(status)) {
      m_findings.push_back({file.path(), why, static_cast<uint64_t>(status.st_blocks) * 512, false});
      --m_directories[file.dir].entries;
    }
  }

  // Belongs to the file system.
  static bool isLostAndFound(const WalkedFile& file) {
    constexpr std::string_view NAME = "lost+found";
    return file.relative.empty() ? file.name == NAME
                                 : file.relative.substr(0, file.relative.find('/')) == NAME;
  }

  // Nobody is at work on it.
  bool isSettled(const struct stat& status) const {
    return !m_open || (m_now - status.st_mtim.tv_sec >= HOUR && !m_open->has(status));
  }

  const char* whyUseless(const WalkedFile& file, const struct stat& status) {
    switch (kindOf(file)) {
      case FileKind::Own: return nullptr;
      case FileKind::Leftover: return S_ISREG(status.st_mode) ? "left over" : nullptr;
      // Its being moved there is a change of the file's record, not of its bytes.
      case FileKind::Recycled:
        if (file.relative.empty()) return nullptr;  // of a volume that is called "recycle"
        return m_now - status.st_ctim.tv_sec >= m_options.recycledFor ? "recycled" : nullptr;
      case FileKind::Segment: break;
    }
    if (!S_ISREG(status.st_mode) || isStaged(file.relative)) return nullptr;
    const LookedAt opened(file.dirFd, file.name, O_NOFOLLOW);
    if (opened.error() != 0 || decodeSegment(opened.fd(), m_layout) != 0) return nullptr;
    const SegmentPlace place = placeOf(file);
    if (!place.isInPlace) return m_layout.isSegment ? "in a wrong place" : nullptr;
    if (place.context.empty()) return nullptr;  // no client's
    // The trailer is written last. A segment gives the sections that are whole when the next one is cut.
    const bool isUseless =
        m_isObjectCache && isBlock(file.relative, file.name)
            ? m_layout.isCutShort ||
                  (m_layout.isSegment && m_layout.find(ObjectStore::TRAILER_SECTION) == nullptr)
            : m_layout.isCutShort && !m_layout.hasWholeSection();
    return isUseless ? "cut short" : nullptr;
  }

  // From the deepest on, so that what holds only empty directories is empty too.
  void addEmptyDirectories() {
    std::vector<std::string> deepestFirst;
    for (const auto& [path, directory] : m_directories) {
      if (directory.mayGo) deepestFirst.push_back(path);
    }
    const auto depth = [](const std::string& path) { return std::count(path.begin(), path.end(), '/'); };
    std::stable_sort(deepestFirst.begin(), deepestFirst.end(),
                     [&](const std::string& a, const std::string& b) { return depth(a) > depth(b); });
    for (const std::string& path : deepestFirst) {
      const Directory& directory = m_directories[path];
      if (directory.entries != 0) continue;
      m_findings.push_back({path, "empty", directory.allocated, true});
      --m_directories[path.substr(0, path.find_last_of('/'))].entries;
    }
  }

  bool remove(const Finding& finding) {
    const int rc = finding.isDirectory ? rmdir(finding.path.c_str()) : unlink(finding.path.c_str());
    if (rc == 0) return true;
    // A server may have put something there, or have removed it itself.
    const bool isTaken = errno == ENOENT || (finding.isDirectory && errno == ENOTEMPTY);
    if (!isTaken) complain(finding.path, errno);
    return false;
  }

  void complain(const std::string& path, int error) {
    printError(fmt::format("{}: {}", path, std::strerror(error)));
    m_worst = ExitStatus::Error;
  }

  const Options& m_options;
  const bool m_isObjectCache;
  const int64_t m_now = std::time(nullptr);
  std::optional<OpenFiles> m_open;  // beside a server
  std::map<std::string, Directory> m_directories;
  std::vector<Finding> m_findings;
  SegmentLayout m_layout;
  ExitStatus m_worst = ExitStatus::Success;
};

void run(const Options& options) {
  tellServer(options.root);
  const bool hasServer = serverOn(options.root).has_value();
  std::optional<RootClaim> claim;
  if (options.removes && !hasServer) claim.emplace(options.root);
  const KnownCache known(options.root);
  if (options.removes) known.refuseMove();  // its copies look like leftovers
  Cleaning cleaning(options, known.isObjectCache, hasServer);
  cleaning.look(known.choosePresent(options.volumes, Stranger::Refuse));
  cleaning.finish();
  if (cleaning.worst() != ExitStatus::Success) throw Failure(cleaning.worst());
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command =
      addCommand(program, "clean", "Lists or removes what serves nobody", HELP, [options] { run(*options); });
  addRoot(*command, options->root)->required();
  addVolumes(*command, options->volumes, true);
  makeVolumesOptional(*command);
  command
      ->add_option("--recycled-for", options->recycledFor, "How long \"recycle\" keeps a file (default: 7d)")
      ->type_name("AGE")
      ->transform(CLI::Validator(ageToNumber, ""));
  command->add_flag("--remove", options->removes, "Delete what is found");
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::clean
