// diskcachectl status: what an engine on a cache reports.
#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <charconv>
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "common/output.h"
#include "common/units.h"
#include "replay/cacheSession.h"

namespace diskcachectl {
namespace {

using nlohmann::ordered_json;
using ObjectStore::Volume;
using Values = std::map<std::string, std::string>;

constexpr const char* HELP =
    R"(Brings an engine of its own up on the volumes, with watermarks out of reach, and prints what it
reports. A server may be running on the root: its watermarks and counters are known to itself alone.
Mode lru lists all segments.
Exit status: 0 success, 2 bad input, 3 an error of the cache or the system.

Example:
  diskcachectl status --root /var/cache/root --volume /var/cache/a --format prometheus)";

struct Options : CacheOptions {
  std::string modeName = "random";
  std::string format = "table";
};

struct Status {
  Values status;
  Values counters;
  std::vector<Volume> volumes;
};

struct Metric {
  const char* key;
  const char* name;
  const char* type;
  int divisor;  // to base units
  const char* help;
};

constexpr Metric METRICS[] = {
    {"DC.HighWM", "diskcache_high_watermark_ratio", "gauge", 100,
     "Share of the capacity over which writers wait."},
    {"DC.LowWM", "diskcache_low_watermark_ratio", "gauge", 100,
     "Share of the capacity down to which is pruned."},
    {"DC.AlarmWM", "diskcache_alarm_watermark_ratio", "gauge", 100,
     "Share of the capacity over which to worry."},
    {"DC.TotalCache", "diskcache_capacity_bytes", "gauge", 1, "Size of the volumes' file systems."},
    {"DC.UsedCache", "diskcache_used_bytes", "gauge", 1, "Space in use on the volumes' file systems."},
    {"DC.SegmentsInCache", "diskcache_segments", "gauge", 1, "Segments created less deleted by this engine."},
    {"DC.LRUEntriesMax", "diskcache_recency_list_entries_limit", "gauge", 1, "Bound of the recency list."},
    {"DC.LRUEntriesCur", "diskcache_recency_list_entries", "gauge", 1, "Segments in the recency list."},
    {"DC.numPruned", "diskcache_pruned_segments_total", "counter", 1,
     "Segments handed to clients to give up."},
    {"DC.delayMs", "diskcache_write_delay_seconds_total", "counter", 1000,
     "Time that writers were made to wait."},
    {"DC.errOutOfSpace", "diskcache_out_of_space_errors_total", "counter", 1,
     "Writes refused for lack of space."}};

struct VolumeMetric {
  const char* name;
  const char* help;
  uint64_t (*value)(const Volume&);
};

constexpr VolumeMetric VOLUME_METRICS[] = {
    {"diskcache_volume_takes_new_segments", "Whether new segments may go to the volume.",
     [](const Volume& volume) { return uint64_t{volume.allow}; }},
    {"diskcache_volume_capacity_bytes", "Size of the volume's file system.",
     [](const Volume& volume) { return volume.total; }},
    {"diskcache_volume_free_bytes", "Free space of the volume's file system.",
     [](const Volume& volume) { return volume.free.value(); }},
    {"diskcache_volume_reserved_bytes", "Space that new segments leave free.",
     [](const Volume& volume) { return volume.reserved; }}};

// Numbers as numbers, the rest as text.
ordered_json asJson(const Values& values) {
  ordered_json object = ordered_json::object();
  for (const auto& [key, text] : values) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    object[key] = isNumber ? ordered_json(number) : ordered_json(text);
  }
  return object;
}

void printAsJson(const Status& status) {
  ordered_json volumes = ordered_json::array();
  for (const Volume& volume : status.volumes) {
    volumes.push_back({{"index", volume.index},
                       {"directory", volume.dir},
                       {"allow", volume.allow},
                       {"total", volume.total},
                       {"free", volume.free.value()},
                       {"reserved", volume.reserved}});
  }
  printJson({{"status", asJson(status.status)}, {"counters", asJson(status.counters)}, {"volumes", volumes}});
}

std::string escaped(const std::string& label) {
  std::string text;
  for (const char c : label) {
    if (c == '\\' || c == '"') text += '\\';
    text += c == '\n' ? "\\n" : std::string(1, c);
  }
  return text;
}

void printFront(const char* name, const char* type, const char* help) {
  fmt::print("# HELP {0} {1}\n# TYPE {0} {2}\n", name, help, type);
}

void printAsPrometheus(const Status& status) {
  Values values = status.status;
  values.insert(status.counters.begin(), status.counters.end());
  for (const Metric& metric : METRICS) {
    printFront(metric.name, metric.type, metric.help);
    const std::string& text = values.at(metric.key);
    fmt::print("{} {}\n", metric.name,
               metric.divisor == 1 ? text : fmt::format("{}", std::stod(text) / metric.divisor));
  }
  printFront("diskcache_mode_info", "gauge", "How segments are chosen to be given up.");
  fmt::print("diskcache_mode_info{{mode=\"{}\"}} 1\n", values.at("DC.PruningMode"));
  for (const VolumeMetric& metric : VOLUME_METRICS) {
    printFront(metric.name, "gauge", metric.help);
    for (const Volume& volume : status.volumes) {
      fmt::print("{}{{index=\"{}\",directory=\"{}\"}} {}\n", metric.name, volume.index, escaped(volume.dir),
                 metric.value(volume));
    }
  }
}

void printAsTable(const Status& status) {
  for (const Values* values : {&status.status, &status.counters}) {
    for (const auto& [key, text] : *values) fmt::print("{:<20} {}\n", key, text);
  }
  const std::string front = fmt::format("{:>5}  {:<11} {:>10} {:>10} {:>10}  DIRECTORY", "INDEX",
                                        "NEW SEGMENTS", "TOTAL", "FREE", "RESERVED");
  fmt::print("\n{}\n", painted(Colour::Bold, front));
  for (const Volume& volume : status.volumes) {
    fmt::print("{:>5}  {:<12} {:>10} {:>10} {:>10}  {}\n", volume.index, volume.allow ? "yes" : "no",
               formatSize(volume.total), formatSize(volume.free.value()), formatSize(volume.reserved),
               printable(volume.dir));
  }
}

void run(Options options) {
  if (options.modeName == "lru") options.mode = ObjectStore::PruningMode::Lru;
  CacheSession session(options, CacheSession::Use::Measure);
  Status status;
  session.cache().getStatus(status.status);
  session.cache().getCounters(status.counters);
  status.volumes = session.volumes();
  if (options.isJson || options.format == "json") {
    printAsJson(status);
  } else if (options.format == "prometheus") {
    printAsPrometheus(status);
  } else {
    printAsTable(status);
  }
}

}  // namespace

void addStatus(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = program.add_subcommand("status", "Prints what an engine on the cache reports");
  command->footer(HELP);
  addCacheOptions(*command, *options, true);
  command->add_option("--mode", options->modeName, "How segments would be given up")
      ->type_name("random|lru")
      ->check(CLI::IsMember({"random", "lru"}).description(""))
      ->capture_default_str();
  command->add_option("--format", options->format, "What to print")
      ->type_name("table|json|prometheus")
      ->check(CLI::IsMember({"table", "json", "prometheus"}).description(""))
      ->capture_default_str();
  command->callback([options] { run(*options); });
}

}  // namespace diskcachectl
