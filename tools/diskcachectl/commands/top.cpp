// diskcachectl top: the rates of a running server.
#include <fmt/core.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/units.h"
#include "live/metricsPage.h"

namespace diskcachectl::top {
namespace {

using nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;
using Figure = std::optional<double>;

constexpr const char* HELP =
    R"(Shows every second what a server has done since the second before, from the page of metrics at URL: the share of blocks that were on disk, MiB/s read from disk and asked of the origin, how many blocks were given up and how old they were, the time that writers were made to wait, and the room on each volume above its reserve. On a terminal the picture is drawn anew; into a pipe goes a line each second, with --json an object. "-" and null: the server does not tell.

Exit status: 0 success, 2 bad input, 3 the server does not answer at the start; later that is told, and it goes on.

Example:
  diskcachectl top http://localhost:9090/metrics)";

struct Options {
  std::string url;
  double interval = 1;
  uint64_t count = 0;
  bool isJson = false;
};

struct Sample {
  MetricsPage page;
  Clock::time_point at;
};

struct Rates {
  Figure hitRatio, diskBytes, originBytes, evictions, evictedAge, delay;
  std::vector<std::pair<std::string, double>> room;  // bytes by volume
};

// The first of several names under which servers tell a figure.
Figure firstOf(const MetricsPage& page, std::initializer_list<const char*> names, const char* label = "") {
  for (const char* name : names) {
    if (const Figure value = page.sum(name, label)) return value;
  }
  return std::nullopt;
}

class Difference {
 public:
  Difference(const Sample& before, const Sample& after)
      : m_before(before.page),
        m_after(after.page),
        m_seconds(std::max(std::chrono::duration<double>(after.at - before.at).count(), 1e-3)) {}

  // How much a counter rose; from 0 when its server was started anew.
  Figure rise(std::initializer_list<const char*> names, const char* label = "") const {
    const Figure now = firstOf(m_after, names, label);
    if (!now) return std::nullopt;
    const double then = firstOf(m_before, names, label).value_or(0);
    return *now >= then ? *now - then : *now;
  }
  Figure perSecond(std::initializer_list<const char*> names, const char* label = "") const {
    const Figure risen = rise(names, label);
    return risen ? Figure(*risen / m_seconds) : std::nullopt;
  }

 private:
  const MetricsPage& m_before;
  const MetricsPage& m_after;
  const double m_seconds;
};

Figure quotient(Figure part, Figure whole) {
  return part && whole && *whole > 0 ? Figure(*part / *whole) : std::nullopt;
}

Rates ratesOf(const Sample& before, const Sample& after) {
  const Difference since(before, after);
  Rates rates;
  const Figure hits = since.rise({"diskcache_client_hits_total", "diskcache_list_hits_total"});
  const Figure misses = since.rise({"diskcache_client_misses_total", "diskcache_list_misses_total"});
  if (hits && misses) rates.hitRatio = quotient(hits, *hits + *misses);
  rates.diskBytes = since.perSecond({"diskcache_client_read_bytes_total"}, "from=\"disk\"");
  rates.originBytes = since.perSecond({"diskcache_client_read_bytes_total"}, "from=\"origin\"");
  rates.evictions = since.perSecond({"diskcache_client_evicted_blocks_total", "diskcache_evictions_total"});
  rates.evictedAge = quotient(since.rise({"diskcache_client_evicted_age_seconds_sum"}),
                              since.rise({"diskcache_client_evicted_age_seconds_count"}));
  rates.delay =
      since.perSecond({"diskcache_write_delay_seconds_total", "diskcache_client_engine_delay_seconds"});
  const auto& reserves = after.page.of("diskcache_volume_reserved_bytes");
  for (const auto& [labels, free] : after.page.of("diskcache_volume_free_bytes")) {
    const auto reserve = reserves.find(labels);
    const double left = free - (reserve == reserves.end() ? 0 : reserve->second);
    const std::string directory = labelOf(labels, "directory");
    rates.room.emplace_back(directory.empty() ? labels : directory, std::max(left, 0.0));
  }
  return rates;
}

std::string text(Figure figure, double factor, int digits) {
  return figure ? fmt::format("{:.{}f}", *figure * factor, digits) : "-";
}

constexpr double MIB = 1 << 20;

std::string timeOfDay() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return fmt::format("{:02}:{:02}:{:02}", local.tm_hour, local.tm_min, local.tm_sec);
}

std::string roomText(const Rates& rates) {
  std::string shown;
  for (const auto& [volume, bytes] : rates.room) {
    shown += fmt::format("{}{} {}", shown.empty() ? "" : ", ", printable(volume),
                         formatSize(static_cast<uint64_t>(bytes)));
  }
  return shown.empty() ? "-" : shown;
}

std::string ageText(const Rates& rates) {
  return rates.evictedAge ? formatAge(static_cast<int64_t>(*rates.evictedAge)) : "-";
}

void printHeading() {
  fmt::print("{:<8} {:>6} {:>10} {:>12} {:>9} {:>11} {:>8}  ROOM\n", "TIME", "HIT %", "DISK MiB/s",
             "ORIGIN MiB/s", "EVICTED/s", "EVICTED AGE", "DELAY %");
}

void printLine(const Rates& rates) {
  fmt::print("{:<8} {:>6} {:>10} {:>12} {:>9} {:>11} {:>8}  {}\n", timeOfDay(), text(rates.hitRatio, 100, 1),
             text(rates.diskBytes, 1 / MIB, 1), text(rates.originBytes, 1 / MIB, 1),
             text(rates.evictions, 1, 1), ageText(rates), text(rates.delay, 100, 1), roomText(rates));
}

void printScreen(const Options& options, const Rates& rates) {
  fmt::print("\033[H\033[2J{}  {}\n\n", painted(Colour::Bold, printable(options.url)), timeOfDay());
  const auto row = [](const char* name, const std::string& value) {
    fmt::print("{:<24} {:>12}\n", name, value);
  };
  row("hit ratio, %", text(rates.hitRatio, 100, 1));
  row("from disk, MiB/s", text(rates.diskBytes, 1 / MIB, 1));
  row("from the origin, MiB/s", text(rates.originBytes, 1 / MIB, 1));
  row("evicted/s", text(rates.evictions, 1, 1));
  row("age of the evicted", ageText(rates));
  row("writers delayed, %", text(rates.delay, 100, 1));
  for (const auto& [volume, bytes] : rates.room) {
    fmt::print("{:<24} {:>12}  {}\n", "room", formatSize(static_cast<uint64_t>(bytes)), printable(volume));
  }
}

void printObject(const Rates& rates) {
  const auto value = [](Figure figure) { return figure ? ordered_json(*figure) : ordered_json(); };
  ordered_json room = ordered_json::object();
  for (const auto& [volume, bytes] : rates.room) room[volume] = bytes;
  const ordered_json object = {{"time", std::time(nullptr)},
                               {"hit_ratio", value(rates.hitRatio)},
                               {"disk_bytes_per_s", value(rates.diskBytes)},
                               {"origin_bytes_per_s", value(rates.originBytes)},
                               {"evicted_per_s", value(rates.evictions)},
                               {"evicted_age_s", value(rates.evictedAge)},
                               {"delay_ratio", value(rates.delay)},
                               {"room", room}};
  fmt::print("{}\n", jsonText(object, -1));
}

void run(const Options& options) {
  HttpClient client;
  const auto take = [&] { return Sample{MetricsPage(client.get(options.url)), Clock::now()}; };
  auto before = std::make_unique<Sample>(take());
  const bool isTerminal = isatty(STDOUT_FILENO) == 1 && !options.isJson;
  if (!isTerminal && !options.isJson) printHeading();
  std::fflush(stdout);
  for (uint64_t i = 0; options.count == 0 || i < options.count; ++i) {
    std::this_thread::sleep_for(std::chrono::duration<double>(options.interval));
    try {
      Sample after = take();
      const Rates rates = ratesOf(*before, after);
      before = std::make_unique<Sample>(std::move(after));
      if (options.isJson) {
        printObject(rates);
      } else if (isTerminal) {
        printScreen(options, rates);
      } else {
        printLine(rates);
      }
    } catch (const Failure& failure) {
      printError(failure.what());
    }
    std::fflush(stdout);
  }
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command =
      addCommand(program, "top", "Shows the rates of a running server", HELP, [options] { run(*options); });
  command->add_option("URL", options->url, "The server's page of metrics")->required()->type_name("");
  command->add_option("--interval", options->interval, "Seconds from one look to the next")
      ->type_name("S")
      ->check(CLI::Range(0.01, 86400.0).description(""))
      ->check(CLI::Validator(whyNan, ""))
      ->capture_default_str();
  command->add_option("--count", options->count, "How many times (default: until it is ended)")
      ->type_name("N");
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::top
