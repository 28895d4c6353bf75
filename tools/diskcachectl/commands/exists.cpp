// diskcachectl exists: whether a segment is cached, and where.
#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/commands.h"
#include "common/options.h"
#include "common/output.h"
#include "look/knownCache.h"
#include "look/server.h"
#include "replay/cacheSession.h"

namespace diskcachectl::exists {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Prints the path of the file that readers get. A server may be running on the root.
Exit status: 0 it is there, 1 it is not, 2 bad input, 3 an error of the cache or the system.

Example:
  diskcachectl exists --root /var/cache/root --context data 0123abcd)";

void run(const SegmentOptions& options) {
  tellServer(options.root);
  const KnownCache known(options.root);
  const std::vector<FoundCopy> copies = known.find(known.choosePresent(options.volumes, Stranger::Accept),
                                                   options.context, options.nonprunable, options.id);
  if (!options.isJson) {
    if (copies.empty()) throw Failure(ExitStatus::CheckFailed, options.id + ": not in the cache");
    fmt::print("{}\n", printable(copies.front().path));
    return;
  }
  ordered_json answer = {
      {"exists", !copies.empty()}, {"volume", nullptr}, {"directory", nullptr}, {"path", nullptr}};
  if (!copies.empty()) {
    answer["volume"] = copies.front().volume;
    answer["directory"] = copies.front().directory;
    answer["path"] = copies.front().path;
  }
  printJson(answer);
  if (copies.empty()) throw Failure(ExitStatus::CheckFailed);
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<SegmentOptions>();
  CLI::App* command = addCommand(program, "exists", "Tells whether a segment is cached, and where", HELP,
                                 [options] { run(*options); });
  addSegmentOptions(*command, *options);
  makeVolumesOptional(*command);
}

}  // namespace diskcachectl::exists
