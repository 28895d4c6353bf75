// diskcachectl du: what the segments of each volume take, beside what the engine accounts.
#include <dirent.h>
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "look/server.h"
#include "look/treeWalk.h"
#include "look/volumeFile.h"

namespace diskcachectl {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Adds up the segments of each volume by top-level directory: their number, lengths ("bytes") and the
space that they take on disk ("allocated", which knows holes and rounds up to blocks). Leftovers count
as space, not as segments; "." stands for files directly in the volume. Below it what the engine
accounts, which is all that the file system holds (total less free), the reserve that new segments
leave alone, and the room above it.
Exit status: 0 success, 1 bad lines in the volume file, 2 a volume that cannot be read, 3 a directory below
one.

Example:
  diskcachectl du --root /var/cache/root)";

struct Options {
  std::string root;
  std::vector<std::string> volumes;
  bool isJson = false;
};

struct Usage {
  uint64_t segments = 0;
  uint64_t bytes = 0;
  uint64_t allocated = 0;

  void add(const Usage& other) {
    segments += other.segments;
    bytes += other.bytes;
    allocated += other.allocated;
  }
};

struct VolumeUsage {
  std::string dir;
  Room room{};
  std::map<std::string, Usage, std::less<>> directories;  // on top of the volume, by name
  Usage all() const {
    Usage sum;
    for (const auto& [name, usage] : directories) sum.add(usage);
    return sum;
  }
};

class Survey {
 public:
  ExitStatus run(const std::vector<std::string>& dirs) {
    std::vector<std::string> roots;
    for (const std::string& dir : dirs) {
      if (const auto room = measure(dir)) {
        volumes.push_back({dir, *room, {}});
        roots.push_back(dir);
      } else {
        complain(dir, errno, ExitStatus::BadInput);
      }
    }
    TreeWalk walk(
        roots, [this](const WalkedFile& file, size_t) { visit(file); },
        [this](const std::string& path, int error) { complain(path, error, ExitStatus::Error); });
    if (!roots.empty()) walk.run(1);
    return m_worst;
  }

  std::vector<VolumeUsage> volumes;

 private:
  void visit(const WalkedFile& file) {
    const bool isDirectory = file.type == DT_DIR;
    if (isDirectory && !file.relative.empty()) return;
    const std::string_view inside = file.relative.substr(0, file.relative.find('/'));
    const std::string_view top = isDirectory ? file.name : inside.empty() ? "." : inside;
    auto& directories = volumes[file.root].directories;
    auto entry = directories.find(top);
    if (entry == directories.end()) entry = directories.try_emplace(std::string(top)).first;
    if (!isDirectory) entry->second.add(usageOf(file));
  }

  static Usage usageOf(const WalkedFile& file) {
    struct stat status {};
    if (fstatat(file.dirFd, file.name, &status, AT_SYMLINK_NOFOLLOW) != 0) return {};  // deleted meanwhile
    const FileKind kind = kindOf(file);
    const bool isSegment = file.type == DT_REG && (kind == FileKind::Segment || kind == FileKind::Recycled);
    return {isSegment ? 1U : 0U, static_cast<uint64_t>(status.st_size),
            static_cast<uint64_t>(status.st_blocks) * 512};
  }

  void complain(const std::string& path, int error, ExitStatus status) {
    printError(fmt::format("{}: {}", path, std::strerror(error)));
    m_worst = std::max(m_worst, status);
  }

  ExitStatus m_worst = ExitStatus::Success;
};

void printRow(const std::string& name, const Usage& usage) {
  fmt::print("  {:<24} {:>12} {:>12} {:>12}\n", name, formatCount(usage.segments), formatSize(usage.bytes),
             formatSize(usage.allocated));
}

void printTable(const VolumeUsage& volume) {
  fmt::print("{}\n", painted(Colour::Bold, printable(volume.dir)));
  fmt::print("  {:<24} {:>12} {:>12} {:>12}\n", "", "SEGMENTS", "BYTES", "ALLOCATED");
  for (const auto& [name, usage] : volume.directories) printRow(printable(name), usage);
  printRow("all", volume.all());
  const Room& room = volume.room;
  const auto line = [](const char* name, uint64_t bytes) {
    fmt::print("  {:<24} {:>12} {:>12} {:>12}\n", name, "", "", formatSize(bytes));
  };
  line("used, to the engine", room.used());
  line("total", room.total);
  line("reserve", room.reserve);
  line("room left", room.left());
}

ordered_json asJson(const Usage& usage) {
  return {{"segments", usage.segments}, {"bytes", usage.bytes}, {"allocated", usage.allocated}};
}

ordered_json asJson(const VolumeUsage& volume) {
  ordered_json directories = ordered_json::array();
  for (const auto& [name, usage] : volume.directories) {
    ordered_json row = {{"directory", name}};
    row.update(asJson(usage));
    directories.push_back(row);
  }
  ordered_json object = {{"volume", volume.dir}, {"directories", directories}};
  object.update(asJson(volume.all()));
  object.update(ordered_json{{"total", volume.room.total},
                             {"free", volume.room.free},
                             {"used", volume.room.used()},
                             {"reserve", volume.room.reserve},
                             {"room", volume.room.left()}});
  return object;
}

void run(const Options& options) {
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
      all.push_back(asJson(volume));
    } else {
      printTable(volume);
    }
  }
  if (options.isJson) printJson({{"volumes", all}});
  if (worst != ExitStatus::Success) throw Failure(worst);
}

}  // namespace

void addDu(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = program.add_subcommand("du", "Adds up the space of volumes by top-level directory");
  command->footer(HELP);
  CLI::Option* root = addRoot(*command, options->root);
  CLI::Option* volumes = addVolumes(*command, options->volumes, true)->excludes(root);
  addJson(*command, options->isJson);
  command->callback([options, root, volumes] {
    if (root->empty() && volumes->empty()) {
      throw Failure(ExitStatus::BadInput, "du: one of --root and --volume is required (see --help)");
    }
    run(*options);
  });
}

}  // namespace diskcachectl
