// diskcachectl explain: why a segment, or a block of a named object, is cached or is not.
#include <fmt/format.h>
#include <sys/stat.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "client/blockName.h"
#include "commands/commands.h"
#include "common/failure.h"
#include "common/identifier.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "look/blockLook.h"
#include "look/knownCache.h"
#include "look/looking.h"
#include "look/openFiles.h"
#include "look/segmentDecoder.h"
#include "look/server.h"
#include "replay/cacheSession.h"

namespace diskcachectl::explain {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Tells of a segment, or of an object's block by --key, whether it is cached, where, how old and how large, whole or not, and what keeps it from being pruned: a directory that pruning leaves alone, or a process that has it open. When it is not cached: what would have to be true, and what is in the way, volume by volume. It only looks.

Exit status: 0 cached and whole, 1 not cached or damaged, 2 bad input, 3 a file that cannot be read.

Example:
  diskcachectl explain --root /var/cache/root --key bucket/photo.jpg --version etag1)";

struct Options {
  std::string root;
  std::vector<std::string> volumes;
  std::string context;
  std::string id;
  std::string nonprunable;
  std::string key;
  std::string version;
  uint32_t block = 0;
  bool isJson = false;
};

struct Explained {
  FoundCopy copy;
  uint64_t bytes = 0;
  uint64_t allocated = 0;
  int64_t age = 0;
  std::vector<std::string> problems;
  std::vector<std::string> pins;
};

// What a volume has to say about a segment that is not on it.
struct Absence {
  std::string volume;
  std::vector<std::string> obstacles;  // none: it would be taken
  std::vector<std::string> traces;     // of its having been there
};

Explained explain(const FoundCopy& copy, const KnownCache& known, const Options& options,
                  const OpenFiles& open) {
  Explained found;
  found.copy = copy;
  const LookedAt file(copy.path, O_NOFOLLOW);
  struct stat status {};
  SegmentLayout layout;
  int rc = file.error();
  if (rc == 0) rc = fstat(file.fd(), &status) == 0 ? decodeSegment(file.fd(), layout) : errno;
  if (rc != 0) {
    if (rc != EINVAL && rc != EISDIR && rc != ELOOP && rc != ENOENT) fail(copy.path, rc);
    found.problems.emplace_back(rc == ENOENT ? std::strerror(rc) : "not a regular file");
    return found;
  }
  found.age = std::time(nullptr) - status.st_mtim.tv_sec;
  found.bytes = layout.bytes;
  found.allocated = layout.allocated;
  found.problems = layout.problems;
  if (layout.problems.empty() && known.isObjectCache && isBlock(copy.context, options.id)) {
    try {
      const std::string why = whyNoBlock(file.fd(), layout, options.id, true);
      if (!why.empty()) found.problems.push_back(why);
    } catch (const std::system_error& failed) {
      fail(copy.path, failed.code().value());
    }
  }
  if (copy.context == options.nonprunable) {
    found.pins.push_back(fmt::format("\"{}\" is left alone by pruning", options.nonprunable));
  }
  if (open.has(status)) found.pins.emplace_back("a process has it open");
  return found;
}

bool exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

Absence explainAbsence(const std::string& volume, const KnownCache& known, const Options& options) {
  Absence absence{volume, {}, {}};
  const auto room = measure(volume);
  if (!room) {
    absence.obstacles.push_back(fmt::format("the volume cannot be reached: {}", std::strerror(errno)));
    return absence;
  }
  for (const std::string& limit : room->limits()) {
    absence.obstacles.push_back(limit == "reserve"
                                    ? fmt::format("{} are free and {} of them are kept free",
                                                  formatSize(room->free), formatSize(room->reserve))
                                    : "no " + limit + " are left");
  }
  if (known.isObjectCache && !exists(volume + "/blocks/volume.id")) {
    absence.obstacles.emplace_back("it has no marker: is the disk mounted?");
  }
  const std::string path = segmentPath(volume, options.context, options.id);
  std::string dir = path.substr(0, path.find_last_of('/'));
  for (; dir.size() > volume.size(); dir.resize(dir.find_last_of('/'))) {
    struct stat status {};
    if (lstat(dir.c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
      absence.obstacles.push_back(dir + " is in the way of its directory");
    }
  }
  for (const char* suffix : {".temp", ".copying"}) {
    if (exists(path + suffix)) absence.traces.push_back(path + suffix + " was left over");
  }
  const std::string recycled = volume + "/recycle/" + options.id;
  if (exists(recycled))
    absence.traces.push_back(recycled + ": it was deleted, and can be had back from there");
  return absence;
}

ordered_json asJson(const std::vector<Explained>& found, const std::vector<Absence>& absences,
                    const Options& options) {
  ordered_json copies = ordered_json::array(), volumes = ordered_json::array();
  for (const Explained& one : found) {
    copies.push_back({{"path", one.copy.path},
                      {"volume", one.copy.volume},
                      {"bytes", one.bytes},
                      {"allocated", one.allocated},
                      {"age", one.age},
                      {"pinned_by", one.pins},
                      {"problems", one.problems}});
  }
  for (const Absence& absence : absences) {
    volumes.push_back(
        {{"directory", absence.volume}, {"obstacles", absence.obstacles}, {"traces", absence.traces}});
  }
  return {
      {"identifier", options.id}, {"cached", !found.empty()}, {"copies", copies}, {"absent_from", volumes}};
}

void printFound(const Explained& one, bool isUsed) {
  fmt::print("{} {}\n", isUsed ? "cached:" : "also there, but not used:", printable(one.copy.path));
  fmt::print("  {} long, {} on disk, unchanged for {}\n", formatSize(one.bytes), formatSize(one.allocated),
             formatAge(one.age));
  for (const std::string& problem : one.problems) {
    fmt::print("  {}\n", painted(Colour::Red, "not whole: " + printable(problem)));
  }
  if (one.problems.empty()) fmt::print("  whole\n");
  for (const std::string& pin : one.pins) fmt::print("  pinned: {}\n", printable(pin));
  if (one.pins.empty()) fmt::print("  may be pruned\n");
}

void printAbsent(const std::vector<Absence>& absences, const KnownCache& known, const Options& options) {
  fmt::print("not cached: {}\n", printable(options.id));
  if (known.isObjectCache) {
    fmt::print(
        "  It would be cached by the next read of the object in this version, if the server admits it.\n");
  } else {
    fmt::print("  It would be cached once the server makes it, on a volume that takes new segments:\n");
  }
  for (const Absence& absence : absences) {
    fmt::print("  {}: {}\n", printable(absence.volume),
               absence.obstacles.empty() ? "would take it"
                                         : printable(fmt::format("{}", fmt::join(absence.obstacles, "; "))));
    for (const std::string& trace : absence.traces) fmt::print("    {}\n", printable(trace));
  }
}

void run(Options options) {
  tellServer(options.root);
  const KnownCache known(options.root);
  if (options.key.empty() == options.id.empty()) {
    throw Failure(ExitStatus::BadInput,
                  "explain: CONTEXT and IDENTIFIER, or --key, are required (see --help)");
  }
  if (!options.key.empty()) {
    options.id =
        ObjectStore::blockName({ObjectStore::objectIdOf(options.key, options.version), options.block});
    options.context = BLOCKS;
    options.nonprunable = STAGED;
  }
  const std::vector<std::string> dirs = known.choose(options.volumes, Stranger::Accept);
  const OpenFiles open;
  std::vector<Explained> found;
  for (const FoundCopy& copy : known.find(dirs, options.context, options.nonprunable, options.id)) {
    found.push_back(explain(copy, known, options, open));
  }
  std::vector<Absence> absences;
  if (found.empty()) {
    for (const std::string& dir : dirs) absences.push_back(explainAbsence(dir, known, options));
  }
  if (options.isJson) {
    printJson(asJson(found, absences, options));
  } else if (found.empty()) {
    printAbsent(absences, known, options);
  } else {
    for (const Explained& one : found) printFound(one, &one == &found.front());
  }
  if (found.empty() || !found.front().problems.empty()) throw Failure(ExitStatus::CheckFailed);
}

std::string whyNoId(const std::string& id) {
  const std::string_view why = whyRefused(id);
  return why.empty() ? "" : fmt::format("\"{}\": {}", id, why);
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "explain", "Tells why a segment or object is cached or is not",
                                 HELP, [options] { run(*options); });
  addRoot(*command, options->root)->required();
  addVolumes(*command, options->volumes, false);
  makeVolumesOptional(*command);
  command->add_option("--nonprunable", options->nonprunable, "Its directory of what pruning leaves alone")
      ->type_name("NAME")
      ->check(CLI::Validator(whyNotBelow, ""));
  command->add_option("--key", options->key, "A named object instead of a segment")->type_name("KEY");
  command->add_option("--version", options->version, "The object's version")->type_name("TEXT");
  command->add_option("--block", options->block, "Which of its blocks, from 0")->type_name("N");
  command->add_option("CONTEXT", options->context, "The client's directory on the volumes")
      ->type_name("")
      ->check(CLI::Validator(whyNotBelow, ""));
  command->add_option("IDENTIFIER", options->id, "The segment's name")
      ->type_name("")
      ->check(CLI::Validator(whyNoId, ""));
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::explain
