// diskcachectl inspect: what is in a segment file.
#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "look/blockLook.h"
#include "look/knownCache.h"
#include "look/looking.h"
#include "look/segmentDecoder.h"

namespace diskcachectl::inspect {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Decodes segment files: the header, every section record in file order (a dead one was replaced by a
record further on), holes, sizes, and whatever is wrong. The files are only looked at. One that a
running server is writing at this moment may seem damaged: look again. Of a block of a named object the key, the
version and the block's number are shown as well. --json prints a list, whatever the number of files.

Exit status: 0 sound, 1 damaged or no segment, 2 a file that cannot be read.

Example:
  diskcachectl inspect /var/cache/a/images/0a/1b/0a1b2c3d)";

struct Inspected {
  std::string path;
  SegmentLayout layout;
  std::vector<Extent> holes;
  std::optional<ObjectStore::BlockTrailer> block;
};

void printTable(const Inspected& file) {
  const SegmentLayout& layout = file.layout;
  fmt::print("{}\n", painted(Colour::Bold, printable(file.path)));
  fmt::print("  {} ({} bytes), {} allocated, {} dead\n", formatSize(layout.bytes), layout.bytes,
             formatSize(layout.allocated), formatSize(layout.deadBytes));
  if (layout.isSegment) {
    const std::string last = layout.lastSection < 0 ? "none" : std::to_string(layout.lastSection);
    fmt::print("  version {}, last section {}\n", layout.version, last);
  }
  if (file.block) {
    fmt::print("  block {} of \"{}\", version \"{}\" ({})\n", file.block->number, printable(file.block->key),
               printable(file.block->version), formatSize(file.block->objectSize));
  }
  if (!layout.records.empty()) fmt::print("  type  sub-type        offset        length\n");
  for (const Record& record : layout.records) {
    fmt::print("  {:>4}  {:>8}  {:>12}  {:>12}  {}\n", record.front.type, record.front.subType, record.offset,
               record.front.len, record.isLive ? "live" : painted(Colour::Yellow, "dead"));
  }
  for (const Extent& hole : file.holes)
    fmt::print("  hole of {} at {}\n", formatSize(hole.length), hole.offset);
  for (const std::string& problem : layout.problems)
    fmt::print("  {}\n", painted(Colour::Red, printable(problem)));
}

ordered_json asJson(const Inspected& file) {
  const SegmentLayout& layout = file.layout;
  ordered_json sections = ordered_json::array();
  for (const Record& record : layout.records) {
    sections.push_back({{"type", record.front.type},
                        {"subType", record.front.subType},
                        {"offset", record.offset},
                        {"length", record.front.len},
                        {"live", record.isLive}});
  }
  ordered_json holes = ordered_json::array();
  for (const Extent& hole : file.holes) holes.push_back({{"offset", hole.offset}, {"length", hole.length}});
  return {{"path", file.path},
          {"bytes", layout.bytes},
          {"allocated", layout.allocated},
          {"version", layout.version},
          {"sections", sections},
          {"last_section", layout.lastSection},
          {"holes", holes},
          {"dead_bytes", layout.deadBytes},
          {"block", file.block ? blockAsJson(*file.block) : ordered_json()},
          {"problems", layout.problems}};
}

// A system error number or 0.
int inspect(Inspected& file) {
  const LookedAt opened(file.path);
  if (opened.error() != 0) return opened.error();
  const int rc = decodeSegment(opened.fd(), file.layout);
  if (rc != 0) return rc;
  file.holes = holesOf(opened.fd(), file.layout.bytes);
  const std::filesystem::path path(canonicalPath(file.path));
  if (!isMarkedBlock(path.parent_path().native(), path.filename().native())) return 0;
  const Record* trailer = file.layout.find(ObjectStore::TRAILER_SECTION);
  try {
    if (trailer != nullptr) file.block = readTrailer(opened.fd(), trailer->offset, file.layout.bytes);
    const std::string why = whyNoBlock(opened.fd(), file.layout, path.filename().native(), true);
    if (!why.empty()) file.layout.problems.push_back(why);
  } catch (const std::system_error& failed) {
    return failed.code().value();
  }
  return 0;
}

void run(const std::vector<std::string>& paths, bool isJson) {
  auto worst = ExitStatus::Success;
  ordered_json all = ordered_json::array();
  for (const std::string& path : paths) {
    Inspected file{path, {}, {}, {}};
    if (const int rc = inspect(file); rc != 0) {
      printError(fmt::format("{}: {}", path, rc == EINVAL ? "not a regular file" : std::strerror(rc)));
      worst = ExitStatus::BadInput;
      continue;
    }
    if (!file.layout.problems.empty()) worst = std::max(worst, ExitStatus::CheckFailed);
    if (isJson) {
      all.push_back(asJson(file));
    } else {
      printTable(file);
    }
  }
  if (isJson) printJson(all);
  if (worst != ExitStatus::Success) throw Failure(worst);
}

}  // namespace

void add(CLI::App& program) {
  struct Options {
    std::vector<std::string> paths;
    bool isJson = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "inspect", "Decodes segment files and names what is wrong", HELP,
                                 [options] { run(options->paths, options->isJson); });
  command->add_option("FILE", options->paths, "Segment files")->required()->type_name("");
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::inspect
