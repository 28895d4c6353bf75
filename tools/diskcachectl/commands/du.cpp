// diskcachectl du: what the segments of each volume take, beside what the engine accounts.
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "look/server.h"
#include "look/treeWalk.h"
#include "look/volumeFile.h"

namespace diskcachectl::du {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Adds up the segments of each volume by top-level directory: their number, their inodes (a directory takes one too), lengths ("bytes"), the space that they take on disk ("allocated", which knows holes and rounds up to blocks) and that of the directories themselves ("dirs"). Leftovers count as space, not as segments; "." stands for files directly in the volume, and "all" has the volume's own directory too. Below it what the engine accounts, which is all that the file system holds (total less free), the reserve that new segments leave alone, the room above it, the free inodes, and which of them keeps new segments out. --histogram adds how large and how old (since the last change) the segments are.

Exit status: 0 success, 1 bad lines in the volume file, 2 a volume that cannot be read, 3 a directory below one.

Example:
  diskcachectl du --root /var/cache/root)";

struct Options {
  std::string root;
  std::vector<std::string> volumes;
  bool hasHistograms = false;
  bool isJson = false;
};

struct Usage {
  uint64_t segments = 0;
  uint64_t inodes = 0;
  uint64_t bytes = 0;
  uint64_t allocated = 0;
  uint64_t dirBytes = 0;

  void add(const Usage& other) {
    segments += other.segments;
    inodes += other.inodes;
    bytes += other.bytes;
    allocated += other.allocated;
    dirBytes += other.dirBytes;
  }
};

// How many segments, and how many of their bytes on disk, have a value of at most each bound and above the last.
struct Histogram {
  struct Bar {
    uint64_t bound;
    uint64_t segments = 0;
    uint64_t allocated = 0;
  };
  static constexpr uint64_t NO_BOUND = std::numeric_limits<uint64_t>::max();

  void add(uint64_t value, uint64_t allocated) {
    const auto bar = std::find_if(bars.begin(), bars.end(), [&](const Bar& b) { return value <= b.bound; });
    ++bar->segments;
    bar->allocated += allocated;
  }
  std::vector<Bar> bars;
};
Histogram ofSizes() {
  return {{{uint64_t{4} << 10},
           {uint64_t{64} << 10},
           {uint64_t{1} << 20},
           {uint64_t{16} << 20},
           {uint64_t{256} << 20},
           {uint64_t{4} << 30},
           {Histogram::NO_BOUND}}};
}
Histogram ofAges() {
  return {{{60}, {3600}, {86400}, {7 * 86400}, {28 * 86400}, {364 * 86400}, {Histogram::NO_BOUND}}};
}

struct VolumeUsage {
  std::string dir;
  Room room{};
  Usage own{};                                              // its own directory
  std::map<std::string, Usage, std::less<>> directories{};  // on top of the volume, by name
  Histogram sizes = ofSizes();                              // of lengths in bytes
  Histogram ages = ofAges();                                // in seconds

  Usage& of(std::string_view top) {
    auto entry = directories.find(top);
    if (entry == directories.end()) entry = directories.try_emplace(std::string(top)).first;
    return entry->second;
  }
  Usage all() const {
    Usage sum = own;
    for (const auto& [name, usage] : directories) sum.add(usage);
    return sum;
  }
};

uint64_t allocatedOf(const struct stat& status) { return static_cast<uint64_t>(status.st_blocks) * 512; }

class Survey {
 public:
  ExitStatus run(const std::vector<std::string>& dirs) {
    std::vector<std::string> roots;
    for (const std::string& dir : dirs) {
      if (const auto room = measure(dir)) {
        volumes.push_back({dir, *room});
        roots.push_back(dir);
        addDirectory(volumes.back().own, AT_FDCWD, dir.c_str());
      } else {
        complain(dir, errno, ExitStatus::BadInput);
      }
    }
    TreeWalk walk(
        roots, [this](const WalkedFile& file, size_t) { visit(file); },
        [this](const std::string& path, int error) { complain(path, error, ExitStatus::Error); });
    if (!roots.empty()) walk.runWithProgress("du", 1, [this] { return formatCount(m_seen) + " files"; });
    return m_worst;
  }

  std::vector<VolumeUsage> volumes;

 private:
  void visit(const WalkedFile& file) {
    m_seen.fetch_add(1, std::memory_order_relaxed);
    VolumeUsage& volume = volumes[file.root];
    const std::string_view inside = file.relative.substr(0, file.relative.find('/'));
    if (file.type == DT_DIR) {
      addDirectory(volume.of(inside.empty() ? file.name : inside), file.dirFd, file.name);
    } else {
      addFile(volume, volume.of(inside.empty() ? "." : inside), file);
    }
  }

  static void addDirectory(Usage& usage, int dirFd, const char* name) {
    struct stat status {};
    if (fstatat(dirFd, name, &status, 0) != 0) return;  // deleted meanwhile
    ++usage.inodes;
    usage.dirBytes += allocatedOf(status);
  }

  void addFile(VolumeUsage& volume, Usage& usage, const WalkedFile& file) const {
    struct stat status {};
    if (fstatat(file.dirFd, file.name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    const FileKind kind = kindOf(file);
    const bool isSegment = file.type == DT_REG && (kind == FileKind::Segment || kind == FileKind::Recycled);
    const auto bytes = static_cast<uint64_t>(status.st_size);
    usage.add({isSegment ? 1U : 0U, 1, bytes, allocatedOf(status), 0});
    if (!isSegment) return;
    volume.sizes.add(bytes, allocatedOf(status));
    const int64_t age = std::max<int64_t>(m_now - status.st_mtim.tv_sec, 0);
    volume.ages.add(static_cast<uint64_t>(age), allocatedOf(status));
  }

  void complain(const std::string& path, int error, ExitStatus status) {
    printError(fmt::format("{}: {}", path, std::strerror(error)));
    m_worst = std::max(m_worst, status);
  }

  const int64_t m_now = std::time(nullptr);
  std::atomic<uint64_t> m_seen{0};  // read by the progress bar meanwhile
  ExitStatus m_worst = ExitStatus::Success;
};

void printRow(const std::string& name, const Usage& usage) {
  fmt::print("  {:<24} {:>12} {:>12} {:>10} {:>10} {:>10}\n", name, formatCount(usage.segments),
             formatCount(usage.inodes), formatSize(usage.bytes), formatSize(usage.allocated),
             formatSize(usage.dirBytes));
}

void printHistogram(const char* title, const Histogram& histogram, std::string (*format)(uint64_t)) {
  fmt::print("  {:<24} {:>12} {:>23} {:>10}\n", title, "SEGMENTS", "", "ALLOCATED");
  uint64_t last = 0;
  for (const Histogram::Bar& bar : histogram.bars) {
    const std::string name =
        bar.bound == Histogram::NO_BOUND ? "above " + format(last) : "up to " + format(bar.bound);
    last = bar.bound;
    if (bar.segments == 0) continue;
    fmt::print("  {:<24} {:>12} {:>23} {:>10}\n", name, formatCount(bar.segments), "",
               formatSize(bar.allocated));
  }
}

std::string formatSeconds(uint64_t seconds) { return formatAge(static_cast<int64_t>(seconds)); }

void printTable(const VolumeUsage& volume, bool hasHistograms) {
  fmt::print("{}\n", painted(Colour::Bold, printable(volume.dir)));
  fmt::print("  {:<24} {:>12} {:>12} {:>10} {:>10} {:>10}\n", "", "SEGMENTS", "INODES", "BYTES", "ALLOCATED",
             "DIRS");
  for (const auto& [name, usage] : volume.directories) printRow(printable(name), usage);
  printRow("all", volume.all());
  const Room& room = volume.room;
  const auto line = [](const char* name, const std::string& value) {
    fmt::print("  {:<24} {:>48}\n", name, value);
  };
  line("used, to the engine", formatSize(room.used()));
  line("total", formatSize(room.total));
  line("reserve", formatSize(room.reserve));
  line("room left", formatSize(room.left()));
  line("free inodes", room.inodes == 0 ? "not counted" : formatCount(room.freeInodes));
  line("room", room.hasRoom() ? "yes" : fmt::format("no: {}", fmt::join(room.limits(), ", ")));
  if (!hasHistograms) return;
  printHistogram("length", volume.sizes, formatSize);
  printHistogram("unchanged for", volume.ages, formatSeconds);
}

ordered_json asJson(const Usage& usage) {
  return {{"segments", usage.segments},
          {"inodes", usage.inodes},
          {"bytes", usage.bytes},
          {"allocated", usage.allocated},
          {"directory_bytes", usage.dirBytes}};
}

ordered_json asJson(const Histogram& histogram) {
  ordered_json bars = ordered_json::array();
  for (const Histogram::Bar& bar : histogram.bars) {
    const bool isBounded = bar.bound != Histogram::NO_BOUND;
    bars.push_back({{"up_to", isBounded ? ordered_json(bar.bound) : ordered_json()},
                    {"segments", bar.segments},
                    {"allocated", bar.allocated}});
  }
  return bars;
}

ordered_json asJson(const VolumeUsage& volume, bool hasHistograms) {
  ordered_json directories = ordered_json::array();
  for (const auto& [name, usage] : volume.directories) {
    ordered_json row = {{"directory", name}};
    row.update(asJson(usage));
    directories.push_back(row);
  }
  ordered_json object = {{"volume", volume.dir}, {"directories", directories}};
  object.update(asJson(volume.all()));
  object.update(ordered_json{{"used", volume.room.used()}, {"room", volume.room.left()}});
  // The volume's inodes are counted above; these are its file system's.
  ordered_json room = asJson(std::optional(volume.room));
  room["total_inodes"] = room["inodes"];
  room.erase("inodes");
  object.update(room);
  if (hasHistograms)
    object.update(ordered_json{{"sizes", asJson(volume.sizes)}, {"ages", asJson(volume.ages)}});
  return object;
}

void run(const Options& options) {
  if (options.root.empty() && options.volumes.empty()) {
    throw Failure(ExitStatus::BadInput, "du: one of --root and --volume is required (see --help)");
  }
  std::vector<std::string> dirs = options.volumes;
  auto worst = ExitStatus::Success;
  if (dirs.empty()) {
    tellServer(options.root);
    const VolumeFile file = readVolumeFile(options.root);
    if (!file.isThere) {
      throw Failure(ExitStatus::BadInput,
                    fmt::format("{}/volume_info: {}", options.root, std::strerror(ENOENT)));
    }
    for (const std::string& problem : file.problems) printError(problem);
    if (!file.problems.empty()) worst = ExitStatus::CheckFailed;
    for (const KnownVolume& volume : file.volumes) dirs.push_back(volume.dir);
  }
  Survey survey;
  worst = std::max(worst, survey.run(dirs));
  ordered_json all = ordered_json::array();
  for (const VolumeUsage& volume : survey.volumes) {
    if (options.isJson) {
      all.push_back(asJson(volume, options.hasHistograms));
    } else {
      printTable(volume, options.hasHistograms);
    }
  }
  if (options.isJson) printJson({{"volumes", all}});
  if (worst != ExitStatus::Success) throw Failure(worst);
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "du", "Adds up the space of volumes by top-level directory", HELP,
                                 [options] { run(*options); });
  CLI::Option* root = addRoot(*command, options->root);
  addVolumes(*command, options->volumes, true)->excludes(root);
  command->add_flag("--histogram", options->hasHistograms, "Add how large and how old the segments are");
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::du
