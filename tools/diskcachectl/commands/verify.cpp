// diskcachectl verify: every segment file of whole volumes, checked.
#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>

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
#include <string>
#include <thread>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/progress.h"
#include "common/units.h"
#include "look/looking.h"
#include "look/segmentDecoder.h"
#include "look/treeWalk.h"

namespace diskcachectl {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Checks segment files like "inspect" does, below directories (whole volumes, or parts of them) or one by
one. There are no checksums: what is checked is that a file's records are where its header says and
whole. Files in "recycle", leftovers of replacements and copies that were cut short (.temp, .copying)
and files where no identifier leads are counted apart. One that a running server is writing at this
moment may seem damaged.
Exit status: 0 all sound, 1 damage, 2 a path that cannot be used, 3 a file or directory below one that cannot
be read.

Example:
  diskcachectl verify /var/cache/a /var/cache/b)";

// One a thread; added up at the end.
struct alignas(64) Counts {
  std::atomic<uint64_t> files{0};  // read by the progress bar meanwhile
  uint64_t segments = 0;
  uint64_t sections = 0;
  uint64_t bytes = 0;
  uint64_t recycled = 0;
  uint64_t leftovers = 0;
  uint64_t misplaced = 0;
  SegmentLayout layout;  // its memory serves every file of the thread
};

class Verification {
 public:
  Verification(size_t threads, bool isJson) : m_counts(threads), m_isJson(isJson) {}

  void run(const std::vector<std::string>& paths) {
    std::vector<std::string> directories;
    for (const std::string& path : paths) {
      struct stat status {};
      if (stat(path.c_str(), &status) != 0) {
        complain(path, errno, ExitStatus::BadInput);
      } else if (S_ISDIR(status.st_mode)) {
        directories.push_back(path);
      } else {
        ++m_counts[0].files;
        check(AT_FDCWD, path.c_str(), path, m_counts[0]);
      }
    }
    Progress progress("verify");
    TreeWalk walk(
        directories, [this](const WalkedFile& file, size_t thread) { visit(file, m_counts[thread]); },
        [this](const std::string& path, int error) { complain(path, error, ExitStatus::Error); });
    walk.run(m_counts.size(), [&](double part) {
      progress.show(part, fmt::format("{} files", formatCount(sum(&Counts::files))));
    });
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
    if (!layout.problems.empty()) report(pathOf(named), fmt::format("{}", fmt::join(layout.problems, "; ")));
  }

  void report(const std::string& path, const std::string& problem) {
    const std::scoped_lock lock(m_lock);
    ++m_problemCount;
    if (m_isJson) {
      m_problems.push_back({{"path", path}, {"problem", problem}});
    } else {
      fmt::print("{}: {}\n", printable(path), painted(Colour::Red, problem));
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
    const auto apart = [](uint64_t count, const char* what) {
      if (count != 0) fmt::print("{} {}\n", formatCount(count), what);
    };
    apart(sum(&Counts::recycled), "recycled");
    apart(sum(&Counts::leftovers), "left over from replacements or copies that were cut short");
    apart(sum(&Counts::misplaced), "where no identifier leads");
    if (m_problemCount != 0) {
      fmt::print("{}\n", painted(Colour::Red, formatCount(m_problemCount) + " damaged"));
    } else if (m_worst != ExitStatus::Success) {
      fmt::print("no damage in what could be read\n");
    } else {
      fmt::print("{}\n", painted(Colour::Green, "no damage"));
    }
  }

  ordered_json asJson() const {
    return {{"files", sum(&Counts::files)},         {"segments", sum(&Counts::segments)},
            {"sections", sum(&Counts::sections)},   {"bytes", sum(&Counts::bytes)},
            {"recycled", sum(&Counts::recycled)},   {"leftovers", sum(&Counts::leftovers)},
            {"misplaced", sum(&Counts::misplaced)}, {"problems", m_problems}};
  }

  std::vector<Counts> m_counts;
  const bool m_isJson;
  std::mutex m_lock;  // guards what follows while threads run
  ExitStatus m_worst = ExitStatus::Success;
  uint64_t m_problemCount = 0;
  ordered_json m_problems = ordered_json::array();
};

}  // namespace

void addVerify(CLI::App& program) {
  struct Options {
    std::vector<std::string> paths;
    size_t threads = std::max(1U, std::thread::hardware_concurrency());
    bool isJson = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* command = program.add_subcommand("verify", "Checks every segment file below directories");
  command->footer(HELP);
  command->add_option("PATH", options->paths, "Volumes, directories or files")->required()->type_name("");
  command->add_option("--threads", options->threads, "How many work at once (default: one a processor)")
      ->type_name("N")
      ->check(CLI::Range(size_t{1}, size_t{1024}).description(""));
  addJson(*command, options->isJson);
  command->callback([options] {
    Verification verification(options->threads, options->isJson);
    verification.run(options->paths);
    const ExitStatus status = verification.finish();
    if (status != ExitStatus::Success) throw Failure(status);
  });
}

}  // namespace diskcachectl
