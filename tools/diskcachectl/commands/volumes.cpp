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
#include "look/server.h"
#include "look/volumeFile.h"

namespace diskcachectl::volumes {
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
  tellServer(root);
  const VolumeFile file = readVolumeFile(root);
  const auto migration = readMigration(root);
  if (!file.isThere) {
    throw Failure(ExitStatus::BadInput, fmt::format("{}/volume_info: {}", root, std::strerror(ENOENT)));
  }
  for (const std::string& problem : file.problems) printError(problem);
  bool isSound = file.problems.empty();
  ordered_json volumes = ordered_json::array();
  if (!isJson) {
    fmt::print("{}\n", painted(Colour::Bold,
                               fmt::format("{:>5}  {:<8} {}  DIRECTORY", "INDEX", "STATE", roomHeading())));
  }
  for (const auto& [index, dir] : file.volumes) {
    const auto room = measure(dir);
    isSound = isSound && room;
    if (!room && errno != ENOENT) printError(fmt::format("{}: {}", dir, std::strerror(errno)));
    if (isJson) {
      ordered_json volume = {{"index", index}, {"directory", dir}, {"present", room.has_value()}};
      volume.update(asJson(room));
      volumes.push_back(volume);
    } else {
      const std::string state = room ? "present " : painted(Colour::Red, "missing ");
      fmt::print("{:>5}  {} {}  {}\n", index, state, roomColumns(room), printable(dir));
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

void add(CLI::App& program) {
  struct Options {
    std::string root;
    bool isJson = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "volumes", "Shows a cache's volumes and their file systems", HELP,
                                 [options] { run(options->root, options->isJson); });
  addRoot(*command, options->root)->required();
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::volumes
