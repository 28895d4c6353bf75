// diskcachectl rm: deletes a segment.
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

namespace diskcachectl::rm {
namespace {

using nlohmann::ordered_json;
using ObjectStore::Recycle;

constexpr const char* HELP =
    R"(Deletes the segment's files on every volume and prints their paths. What a cache of named objects has in its
context "staged" is the only copy. No server may be running on the root.
Exit status: 0 success, 1 there is no such segment, 2 bad input, 3 an error of the cache or the system.

Example:
  diskcachectl rm --root /var/cache/root --context data 0123abcd)";

struct Options : SegmentOptions {
  Recycle recycle = Recycle::No;
  bool addsVolume = false;
};

void run(Options options) {
  const RootClaim claim(options.root);
  const KnownCache known(options.root);
  known.refuseMove();
  options.volumes =
      known.choosePresent(options.volumes, options.addsVolume ? Stranger::Add : Stranger::Refuse);
  if (known.find(options.volumes, options.context, options.nonprunable, options.id).empty()) {
    throw Failure(ExitStatus::CheckFailed, options.id + ": not in the cache");
  }
  CacheSession session(options, CacheSession::Use::Change);
  ordered_json deleted = ordered_json::array();
  for (const Copy& copy : session.require(options)) {
    const auto error = session.cache().deleteSegment(copy.context, options.id, false, false, options.recycle);
    if (error.IsError()) fail(copy.path, error);
    deleted.push_back({{"volume", copy.volume}, {"directory", copy.directory}, {"path", copy.path}});
    if (!options.isJson) fmt::print("{}\n", printable(copy.path));
  }
  if (!options.isJson) return;
  const bool isRecycled = options.recycle == Recycle::Yes;
  printJson({{"identifier", options.id}, {"recycled", isRecycled}, {"deleted", deleted}});
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "rm", "Deletes a segment", HELP, [options] { run(*options); });
  addSegmentOptions(*command, *options);
  makeVolumesOptional(*command);
  addAddVolume(*command, options->addsVolume);
  command->add_flag_callback(
      "--recycle", [options] { options->recycle = Recycle::Yes; },
      "Move the files to the volume's directory \"recycle\" instead");
}

}  // namespace diskcachectl::rm
