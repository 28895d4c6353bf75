// diskcachectl volumes: the volume file beside what the file systems say.
#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cerrno>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "look/volumeFile.h"

namespace diskcachectl {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Shows the volumes that a cache's root directory knows, each with its file system, and a migration that
is running or was cut short. A volume has room while more than its reserve of 5 % is free.
Exit status: 0 success, 1 a missing volume or a line of the volume file that makes no sense, 2 bad input.

Example:
  diskcachectl volumes --root /var/cache/root)";

std::string oneLine(const Migration& migration) {
  if (migration.index == 0) return "the file \"migrate\" makes no sense; the cache will not start";
  return fmt::format("volume {} is moving, or was when the cache ended, from {} to {}", migration.index,
                     printable(migration.source), printable(migration.destination));
}

void run(const std::string& root, bool isJson) {
  const VolumeFile file = readVolumeFile(root);
  const auto migration = readMigration(root);
  if (!file.isThere) {
    throw Failure(ExitStatus::BadInput, fmt::format("{}/volume_info: {}", root, std::strerror(ENOENT)));
  }
  for (const std::string& problem : file.problems) printError(problem);
  bool isSound = file.problems.empty();
  ordered_json volumes = ordered_json::array();
  if (!isJson) {
    fmt::print("{}\n", painted(Colour::Bold, fmt::format("{:>5}  {:<8} {:>10} {:>10} {:>10}  ROOM  DIRECTORY",
                                                         "INDEX", "STATE", "TOTAL", "FREE", "RESERVE")));
  }
  for (const auto& [index, dir] : file.volumes) {
    const auto room = measure(dir);
    isSound = isSound && room;
    if (!room && errno != ENOENT) printError(fmt::format("{}: {}", dir, std::strerror(errno)));
    if (isJson) {
      ordered_json volume = {{"index", index}, {"directory", dir}, {"present", room.has_value()}};
      volume["total"] = room ? ordered_json(room->total) : nullptr;
      volume["free"] = room ? ordered_json(room->free) : nullptr;
      volume["reserve"] = room ? ordered_json(room->reserve) : nullptr;
      volume["has_room"] = room && room->hasRoom();
      volumes.push_back(volume);
    } else if (room) {
      fmt::print("{:>5}  {:<8} {:>10} {:>10} {:>10}  {:<4}  {}\n", index, "present", formatSize(room->total),
                 formatSize(room->free), formatSize(room->reserve), room->hasRoom() ? "yes" : "no",
                 printable(dir));
    } else {
      fmt::print("{:>5}  {} {:>10} {:>10} {:>10}  {:<4}  {}\n", index, painted(Colour::Red, "missing "), "-",
                 "-", "-", "no", printable(dir));
    }
  }
  if (isJson) {
    ordered_json moving;
    if (migration) {
      moving = {{"index", migration->index},
                {"source", migration->source},
                {"destination", migration->destination}};
    }
    printJson({{"volumes", volumes}, {"migration", moving}, {"problems", file.problems}});
  } else if (migration) {
    fmt::print("{}\n", painted(Colour::Yellow, oneLine(*migration)));
  }
  if (!isSound) throw Failure(ExitStatus::CheckFailed);
}

}  // namespace

void addVolumesCommand(CLI::App& program) {
  struct Options {
    std::string root;
    bool isJson = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* command = program.add_subcommand("volumes", "Shows a cache's volumes and their file systems");
  command->footer(HELP);
  addRoot(*command, options->root)->required();
  addJson(*command, options->isJson);
  command->callback([options] { run(options->root, options->isJson); });
}

}  // namespace diskcachectl
