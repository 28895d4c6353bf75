// diskcachectl ls: one line a segment.
#include <dirent.h>
#include <fmt/core.h>
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
#include <ctime>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "look/blockLook.h"
#include "look/looking.h"
#include "look/segmentDecoder.h"
#include "look/treeWalk.h"

namespace diskcachectl::ls {
namespace {

constexpr const char* HELP =
    R"(Lists the segments on volumes, in the order in which the file system gives them and in memory that does not grow with their number. --sort by place (volume, context and identifier), size (largest first) or age (longest unchanged first) holds all lines first, with --top only as many. TYPES are the sections that a segment's header names; "damaged" when it has no header ("types": null). Of a block of a named object key, version and number follow. What lies in "recycle" or was left over by a crash is not listed.

Exit status: 0 success, 2 a volume or context that cannot be read, 3 a directory below one.

Example:
  diskcachectl ls --volume /var/cache/a --volume /var/cache/b --sort size --top 20)";

struct Options {
  std::vector<std::string> volumes;
  std::string context;
  std::string sort;  // empty: as found
  size_t top = 0;    // 0: all
  bool isJson = false;
};

struct Line {
  std::string volume;
  std::string context;
  std::string identifier;
  uint64_t bytes = 0;
  uint64_t allocated = 0;
  int64_t modified = 0;  // seconds since 1970
  bool isSegment = false;
  std::vector<int32_t> types;
  std::optional<ObjectStore::BlockTrailer> block;

  auto place() const { return std::tie(volume, context, identifier); }
};

bool isPlacedBefore(const Line& a, const Line& b) { return a.place() < b.place(); }
bool isLarger(const Line& a, const Line& b) {
  return a.allocated != b.allocated ? a.allocated > b.allocated : isPlacedBefore(a, b);
}
bool isOlder(const Line& a, const Line& b) {
  return a.modified != b.modified ? a.modified < b.modified : isPlacedBefore(a, b);
}

std::string joined(const std::vector<int32_t>& types) {
  std::string text;
  for (const int32_t type : types) text += (text.empty() ? "" : ",") + std::to_string(type);
  return text;
}

// Whole objects would cost as much as finding the files.
std::string quoted(const std::string& text) { return jsonText(text, -1); }

// The lines that are printed, at once or in order at the end.
class Lines {
 public:
  Lines(const Options& options, std::function<void(const Line&)> print)
      : m_top(options.top), m_print(std::move(print)) {
    if (options.sort == "place") m_isBefore = isPlacedBefore;
    if (options.sort == "size") m_isBefore = isLarger;
    if (options.sort == "age") m_isBefore = isOlder;
  }

  bool isHeld() const { return m_isBefore != nullptr; }
  void add(const Line& line) {
    if (!isHeld()) {
      if (m_top == 0 || m_printed++ < m_top) m_print(line);
      return;
    }
    if (m_top == 0 || m_held.size() < m_top) {
      m_held.push_back(line);
    } else if (m_isBefore(line, m_held.front())) {
      std::pop_heap(m_held.begin(), m_held.end(), m_isBefore);
      m_held.back() = line;
    } else {
      return;
    }
    if (m_top != 0) std::push_heap(m_held.begin(), m_held.end(), m_isBefore);  // the last one is on top
  }
  void finish() {
    if (m_isBefore != nullptr) std::sort(m_held.begin(), m_held.end(), m_isBefore);
    for (const Line& line : m_held) m_print(line);
  }

 private:
  bool (*m_isBefore)(const Line&, const Line&) = nullptr;
  const size_t m_top;
  const std::function<void(const Line&)> m_print;
  size_t m_printed = 0;
  std::vector<Line> m_held;
};

class Listing {
 public:
  explicit Listing(const Options& options)
      : m_options(options), m_lines(options, [this](const Line& line) { print(line); }) {}

  ExitStatus run() {
    const std::vector<std::string> roots = readableRoots();
    begin();
    TreeWalk walk(
        roots, [this](const WalkedFile& file, size_t) { visit(file); },
        [this](const std::string& path, int error) { complain(path, error, ExitStatus::Error); });
    if (!roots.empty()) {
      // Between lines on a terminal a bar would be in the way.
      if (m_lines.isHeld() || m_options.isJson || isatty(STDOUT_FILENO) != 1) {
        walk.runWithProgress("ls", 1, [this] { return formatCount(m_seen) + " files"; });
      } else {
        walk.run(1);
      }
    } else if (m_worst == ExitStatus::Success) {
      complain(m_options.context, ENOENT, ExitStatus::BadInput);
    }
    m_lines.finish();
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
    m_line.modified = status.st_mtim.tv_sec;
    ObjectStore::SegmentHeader header;
    m_line.isSegment = readHeader(opened.fd(), header);
    m_line.types.clear();
    m_line.block.reset();
    if (m_line.isSegment) {
      typesOf(header, m_line.types);
      if (isBlock(m_line.context, m_line.identifier)) {
        const uint64_t trailer = header.sectionOffset[ObjectStore::TRAILER_SECTION];
        try {
          m_line.block = readTrailer(opened.fd(), trailer, m_line.bytes);
        } catch (const std::system_error& failed) {
          complain(file.path(), failed.code().value(), ExitStatus::Error);
        }
      }
    }
    m_lines.add(m_line);
    m_seen.fetch_add(1, std::memory_order_relaxed);
  }

  void begin() const {
    if (m_options.isJson) {
      fmt::print("{{\"segments\": [");
    } else {
      fmt::print("{}\n",
                 painted(Colour::Bold, fmt::format("{:>10} {:>10} {:>7}  {:<11} VOLUME  CONTEXT  IDENTIFIER",
                                                   "BYTES", "ALLOCATED", "AGE", "TYPES")));
    }
  }

  static std::string blockText(const Line& line) {
    if (!line.block) return "";
    return fmt::format("  block {} of {} {}", line.block->number, printable(line.block->key),
                       printable(line.block->version));
  }

  void print(const Line& line) {
    if (!m_options.isJson) {
      fmt::print("{:>10} {:>10} {:>7}  {:<11} {}  {}  {}{}\n", formatSize(line.bytes),
                 formatSize(line.allocated), formatAge(m_now - line.modified),
                 line.isSegment ? joined(line.types) : "damaged", printable(line.volume),
                 printable(line.context), printable(line.identifier), blockText(line));
      return;
    }
    const std::string types = line.isSegment ? '[' + joined(line.types) + ']' : "null";
    fmt::print("{}\n{{", m_isFirst ? "" : ",");
    fmt::print(
        R"("volume": {}, "context": {}, "identifier": {}, "bytes": {}, "allocated": {}, "modified": {}, "types": {})",
        quoted(line.volume), quoted(line.context), quoted(line.identifier), line.bytes, line.allocated,
        line.modified, types);
    if (line.block) {
      fmt::print(R"(, "key": {}, "version": {}, "block": {})", quoted(line.block->key),
                 quoted(line.block->version), line.block->number);
    }
    fmt::print("}}");
    m_isFirst = false;
  }

  void complain(const std::string& path, int error, ExitStatus status) {
    printError(fmt::format("{}: {}", path, std::strerror(error)));
    m_worst = std::max(m_worst, status);
  }

  const Options& m_options;
  std::vector<std::string> m_volumes;  // of each root of the walk
  Line m_line;
  Lines m_lines;
  const int64_t m_now = std::time(nullptr);
  std::atomic<uint64_t> m_seen{0};  // read by the progress bar meanwhile
  bool m_isFirst = true;
  ExitStatus m_worst = ExitStatus::Success;
};

void run(const Options& options) {
  const ExitStatus status = Listing(options).run();
  if (status != ExitStatus::Success) throw Failure(status);
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command =
      addCommand(program, "ls", "Lists the segments on volumes", HELP, [options] { run(*options); });
  addVolumes(*command, options->volumes, true)->required();
  command->add_option("--context", options->context, "Only this directory of the volumes")->type_name("NAME");
  command
      ->add_option_function<std::string>(
          "--sort", [options](const std::string& key) { options->sort = key.empty() ? "place" : key; },
          "Sort by place (volume, context, identifier; as without a word), size or age")
      ->expected(0, 1)
      ->type_name("place|size|age")
      ->check(CLI::IsMember({"", "place", "size", "age"}).description(""));
  command->add_option("--top", options->top, "Only the first N")
      ->type_name("N")
      ->check(CLI::Range(size_t{1}, size_t{1} << 48).description(""));
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::ls
