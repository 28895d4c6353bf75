// diskcachectl status: what can be known of a cache from outside.
#include <dirent.h>
#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "look/knownCache.h"
#include "look/server.h"
#include "look/treeWalk.h"

namespace diskcachectl::status {
namespace {

using nlohmann::ordered_json;

constexpr const char* HELP =
    R"(Prints what can be known of a cache without its server: its volumes, their file systems, whether a server runs and, with --mode lru, how many segments there are, which a start in mode lru would put into its list. Watermarks, counters and the list are known to the server alone: see "top" for those. It only looks.

Exit status: 0 success, 2 bad input, 3 a directory that cannot be read.

Example:
  diskcachectl status --root /var/cache/root --format prometheus)";

constexpr const char* NOT_KNOWN = "not known from outside";

struct Options {
  std::string root;
  std::vector<std::string> volumes;
  bool isJson = false;
  std::string mode = "random";
  std::string format = "table";
};

struct VolumeStatus {
  ObjectStore::VolIndex index;
  std::string dir;
  std::optional<Room> room;
};

struct Status {
  std::optional<Server> server;
  std::vector<VolumeStatus> volumes;
  std::optional<uint64_t> segments;

  uint64_t sum(uint64_t (*of)(const Room&)) const {
    uint64_t total = 0;
    for (const VolumeStatus& volume : volumes) total += volume.room ? of(*volume.room) : 0;
    return total;
  }
  uint64_t total() const {
    return sum([](const Room& room) { return room.total; });
  }
  uint64_t used() const {
    return sum([](const Room& room) { return room.used(); });
  }
};

// A figure of a server's, and how Prometheus would know it.
struct Metric {
  const char* key;
  const char* name;
};
constexpr Metric OF_THE_SERVER[] = {{"DC.PruningMode", "diskcache_mode_info"},
                                    {"DC.HighWM", "diskcache_high_watermark_ratio"},
                                    {"DC.LowWM", "diskcache_low_watermark_ratio"},
                                    {"DC.AlarmWM", "diskcache_alarm_watermark_ratio"},
                                    {"DC.SegmentsInCache", "diskcache_segments"},
                                    {"DC.LRUEntriesMax", "diskcache_recency_list_entries_limit"},
                                    {"DC.LRUEntriesCur", "diskcache_recency_list_entries"}};
constexpr Metric COUNTERS[] = {{"DC.numPruned", "diskcache_evictions_total"},
                               {"DC.delayMs", "diskcache_write_delay_seconds_total"},
                               {"DC.errOutOfSpace", "diskcache_out_of_space_errors_total"}};

struct VolumeMetric {
  const char* name;
  const char* help;
  uint64_t (*value)(const Room&);
};
constexpr VolumeMetric VOLUME_METRICS[] = {
    {"diskcache_volume_has_room", "Whether the file system would take a new segment.",
     [](const Room& room) { return uint64_t{room.hasRoom()}; }},
    {"diskcache_volume_capacity_bytes", "Size of the volume's file system.",
     [](const Room& room) { return room.total; }},
    {"diskcache_volume_free_bytes", "Free space of the volume's file system.",
     [](const Room& room) { return room.free; }},
    {"diskcache_volume_reserved_bytes", "Space that new segments leave free.",
     [](const Room& room) { return room.reserve; }},
    {"diskcache_volume_inodes", "Inodes of the volume's file system; 0: it does not count them.",
     [](const Room& room) { return room.inodes; }},
    {"diskcache_volume_free_inodes", "Free inodes of the volume's file system.",
     [](const Room& room) { return room.freeInodes; }}};

void printAsJson(const Status& status) {
  ordered_json engine, counters, volumes = ordered_json::array();
  for (const Metric& metric : OF_THE_SERVER) engine[metric.key] = nullptr;
  engine["DC.TotalCache"] = status.total();
  engine["DC.UsedCache"] = status.used();
  for (const Metric& metric : COUNTERS) counters[metric.key] = nullptr;
  for (const VolumeStatus& volume : status.volumes) {
    ordered_json row = {
        {"index", volume.index}, {"directory", volume.dir}, {"present", volume.room.has_value()}};
    row.update(asJson(volume.room));
    volumes.push_back(row);
  }
  ordered_json server;
  if (status.server) server = {{"pid", status.server->pid}, {"name", status.server->name}};
  printJson({{"server", server},
             {"segments", status.segments ? ordered_json(*status.segments) : nullptr},
             {"status", engine},
             {"counters", counters},
             {"volumes", volumes}});
}

std::string escaped(const std::string& label) {
  std::string text;
  for (const char c : label) {
    if (c == '\\' || c == '"') text += '\\';
    text += c == '\n' ? "\\n" : std::string(1, c);
  }
  return text;
}

void printFront(const char* name, const char* help) {
  fmt::print("# HELP {0} {1}\n# TYPE {0} gauge\n", name, help);
}

void printGauge(const char* name, const char* help, uint64_t value) {
  printFront(name, help);
  fmt::print("{} {}\n", name, value);
}

// What is not known is left out: a figure that stands for nothing would be taken for one.
void printAsPrometheus(const Status& status) {
  printGauge("diskcache_server_running", "Whether a server has the cache in use.",
             uint64_t{status.server.has_value()});
  printGauge("diskcache_capacity_bytes", "Size of the volumes' file systems.", status.total());
  printGauge("diskcache_used_bytes", "Space in use on the volumes' file systems.", status.used());
  if (status.segments) {
    printGauge("diskcache_segments_on_disk", "Segment files on the volumes.", *status.segments);
  }
  for (const VolumeMetric& metric : VOLUME_METRICS) {
    printFront(metric.name, metric.help);
    for (const VolumeStatus& volume : status.volumes) {
      if (!volume.room) continue;
      fmt::print("{}{{index=\"{}\",directory=\"{}\"}} {}\n", metric.name, volume.index, escaped(volume.dir),
                 metric.value(*volume.room));
    }
  }
  fmt::print("# {}:\n", NOT_KNOWN);
  for (const auto& metrics : {std::vector<Metric>(std::begin(OF_THE_SERVER), std::end(OF_THE_SERVER)),
                              std::vector<Metric>(std::begin(COUNTERS), std::end(COUNTERS))}) {
    for (const Metric& metric : metrics) fmt::print("#   {}\n", metric.name);
  }
}

void printAsTable(const Status& status) {
  const auto row = [](const char* name, const std::string& value) { fmt::print("{:<20} {}\n", name, value); };
  row("server", status.server ? printable(status.server->text()) : "none runs, as far as the system tells");
  row("segments", status.segments ? formatCount(*status.segments) : "not counted (--mode lru counts them)");
  row("DC.TotalCache", formatSize(status.total()));
  row("DC.UsedCache", formatSize(status.used()));
  for (const Metric& metric : OF_THE_SERVER) row(metric.key, NOT_KNOWN);
  for (const Metric& metric : COUNTERS) row(metric.key, NOT_KNOWN);
  fmt::print("\n{}\n", painted(Colour::Bold, fmt::format("{:>5}  {}  DIRECTORY", "INDEX", roomHeading())));
  for (const VolumeStatus& volume : status.volumes) {
    fmt::print("{:>5}  {}  {}\n", volume.index, roomColumns(volume.room), printable(volume.dir));
  }
}

uint64_t countSegments(const std::vector<VolumeStatus>& volumes, ExitStatus& worst) {
  std::vector<std::string> roots;
  for (const VolumeStatus& volume : volumes) {
    if (volume.room) roots.push_back(volume.dir);
  }
  std::atomic<uint64_t> count{0};  // read by the progress bar meanwhile
  TreeWalk walk(
      roots,
      [&](const WalkedFile& file, size_t) {
        count += file.type == DT_REG && kindOf(file) == FileKind::Segment;
      },
      [&](const std::string& path, int error) {
        printError(fmt::format("{}: {}", path, std::strerror(error)));
        worst = ExitStatus::Error;
      });
  if (!roots.empty()) walk.runWithProgress("status", 1, [&] { return formatCount(count) + " segments"; });
  return count;
}

void run(const Options& options) {
  auto worst = ExitStatus::Success;
  const KnownCache known(options.root);
  Status status;
  status.server = serverOn(options.root);
  for (const std::string& dir : known.choose(options.volumes, Stranger::Accept)) {
    const auto volume = std::find_if(known.volumes.begin(), known.volumes.end(),
                                     [&](const KnownVolume& v) { return v.dir == dir; });
    const ObjectStore::VolIndex index = volume == known.volumes.end() ? 0 : volume->index;
    status.volumes.push_back({index, dir, measure(dir)});
  }
  if (options.mode == "lru") status.segments = countSegments(status.volumes, worst);
  if (options.isJson || options.format == "json") {
    printAsJson(status);
  } else if (options.format == "prometheus") {
    printAsPrometheus(status);
  } else {
    printAsTable(status);
  }
  if (worst != ExitStatus::Success) throw Failure(worst);
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "status", "Prints what can be known of a cache from outside", HELP,
                                 [options] { run(*options); });
  addRoot(*command, options->root)->required();
  addVolumes(*command, options->volumes, true);
  makeVolumesOptional(*command);
  addJson(*command, options->isJson);
  command->add_option("--mode", options->mode, "lru counts the segments on the volumes")
      ->type_name("random|lru")
      ->check(CLI::IsMember({"random", "lru"}).description(""))
      ->capture_default_str();
  command->add_option("--format", options->format, "What to print")
      ->excludes(command->get_option("--json"))
      ->type_name("table|json|prometheus")
      ->check(CLI::IsMember({"table", "json", "prometheus"}).description(""))
      ->capture_default_str();
}

}  // namespace diskcachectl::status
