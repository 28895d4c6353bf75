// diskcachectl ls: one line a segment.
#include <dirent.h>
#include <fmt/core.h>
#include <sys/stat.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "look/looking.h"
#include "look/segmentDecoder.h"
#include "look/treeWalk.h"

namespace diskcachectl {
namespace {

constexpr const char* HELP =
    R"(Lists the segments on volumes, in the order in which the file system gives them and in memory that does
not grow with their number; --sort by volume, context and identifier holds all lines first. TYPES are
the sections that a segment's header names; "damaged" when it has no header ("types": null). What lies
in "recycle" or was left over by a crash is not listed.
Exit status: 0 success, 2 a volume or context that cannot be read, 3 a directory below one.

Example:
  diskcachectl ls --volume /var/cache/a --volume /var/cache/b --context images --sort)";

struct Options {
  std::vector<std::string> volumes;
  std::string context;
  bool isSorted = false;
  bool isJson = false;
};

struct Line {
  std::string volume;
  std::string context;
  std::string identifier;
  uint64_t bytes = 0;
  uint64_t allocated = 0;
  bool isSegment = false;
  std::vector<int32_t> types;

  auto place() const { return std::tie(volume, context, identifier); }
};

std::string joined(const std::vector<int32_t>& types) {
  std::string text;
  for (const int32_t type : types) text += (text.empty() ? "" : ",") + std::to_string(type);
  return text;
}

// Whole objects would cost as much as finding the files.
std::string quoted(const std::string& text) { return jsonText(text, -1); }

class Listing {
 public:
  explicit Listing(const Options& options) : m_options(options) {}

  ExitStatus run() {
    const std::vector<std::string> roots = readableRoots();
    begin();
    TreeWalk walk(
        roots, [this](const WalkedFile& file, size_t) { visit(file); },
        [this](const std::string& path, int error) { complain(path, error, ExitStatus::Error); });
    if (!roots.empty()) {
      walk.run(1);
    } else if (m_worst == ExitStatus::Success) {
      complain(m_options.context, ENOENT, ExitStatus::BadInput);
    }
    std::sort(m_held.begin(), m_held.end(),
              [](const Line& a, const Line& b) { return a.place() < b.place(); });
    for (const Line& line : m_held) print(line);
    if (m_options.isJson) fmt::print("\n]}}\n");
    return m_worst;
  }

 private:
  std::vector<std::string> readableRoots() {
    std::vector<std::string> roots;
    for (const std::string& volume : m_options.volumes) {
      const std::string root = m_options.context.empty() ? volume : volume + '/' + m_options.context;
      const LookedAt opened(root, O_DIRECTORY);
      // A context needs not be on every volume.
      const bool isMissingContext = opened.error() == ENOENT && LookedAt(volume, O_DIRECTORY).error() == 0;
      if (isMissingContext) continue;
      if (opened.error() != 0) {
        complain(root, opened.error(), ExitStatus::BadInput);
      } else {
        roots.push_back(root);
        m_volumes.push_back(volume);
      }
    }
    return roots;
  }

  void visit(const WalkedFile& file) {
    if (kindOf(file) != FileKind::Segment || file.type != DT_REG) return;
    const LookedAt opened(file.dirFd, file.name, O_NOFOLLOW);
    struct stat status {};
    if (opened.error() == ENOENT) return;  // deleted since it was listed
    if (opened.error() != 0 || fstat(opened.fd(), &status) != 0) {
      return complain(file.path(), opened.error() != 0 ? opened.error() : errno, ExitStatus::Error);
    }
    m_line.volume = m_volumes[file.root];
    m_line.context = m_options.context;
    const std::string_view below = placeOf(file).context;
    if (!below.empty()) m_line.context.append(m_line.context.empty() ? "" : "/").append(below);
    m_line.identifier = file.name;
    m_line.bytes = static_cast<uint64_t>(status.st_size);
    m_line.allocated = static_cast<uint64_t>(status.st_blocks) * 512;
    m_line.isSegment = readSectionTypes(opened.fd(), m_line.types);
    if (m_options.isSorted) {
      m_held.push_back(m_line);
    } else {
      print(m_line);
    }
  }

  void begin() const {
    if (m_options.isJson) {
      fmt::print("{{\"segments\": [");
    } else {
      fmt::print("{}\n",
                 painted(Colour::Bold, fmt::format("{:>10} {:>10}  {:<11} VOLUME  CONTEXT  IDENTIFIER",
                                                   "BYTES", "ALLOCATED", "TYPES")));
    }
  }

  void print(const Line& line) {
    if (!m_options.isJson) {
      fmt::print("{:>10} {:>10}  {:<11} {}  {}  {}\n", formatSize(line.bytes), formatSize(line.allocated),
                 line.isSegment ? joined(line.types) : "damaged", printable(line.volume),
                 printable(line.context), printable(line.identifier));
      return;
    }
    const std::string types = line.isSegment ? '[' + joined(line.types) + ']' : "null";
    fmt::print("{}\n{{", m_isFirst ? "" : ",");
    fmt::print(
        R"("volume": {}, "context": {}, "identifier": {}, "bytes": {}, "allocated": {}, "types": {}}})",
        quoted(line.volume), quoted(line.context), quoted(line.identifier), line.bytes, line.allocated,
        types);
    m_isFirst = false;
  }

  void complain(const std::string& path, int error, ExitStatus status) {
    printError(fmt::format("{}: {}", path, std::strerror(error)));
    m_worst = std::max(m_worst, status);
  }

  const Options& m_options;
  std::vector<std::string> m_volumes;  // of each root of the walk
  Line m_line;
  std::vector<Line> m_held;
  bool m_isFirst = true;
  ExitStatus m_worst = ExitStatus::Success;
};

}  // namespace

void addLs(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = program.add_subcommand("ls", "Lists the segments on volumes");
  command->footer(HELP);
  addVolumes(*command, options->volumes, true)->required();
  command->add_option("--context", options->context, "Only this directory of the volumes")->type_name("NAME");
  command->add_flag("--sort", options->isSorted, "Sort by volume, context and identifier");
  addJson(*command, options->isJson);
  command->callback([options] {
    const ExitStatus status = Listing(*options).run();
    if (status != ExitStatus::Success) throw Failure(status);
  });
}

}  // namespace diskcachectl
