#include "replay/report.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <nlohmann/json.hpp>

#include "common/units.h"

namespace diskcachectl {
namespace {

struct Percentiles {
  double p50 = 0;
  double p90 = 0;
  double p99 = 0;
  double max = 0;
};

// To a tenth of a microsecond; the least value that `part` of all are not above.
double percentile(std::vector<float>& values, double part) {
  const auto rank = static_cast<size_t>(std::ceil(part * static_cast<double>(values.size())));
  const auto place = values.begin() + static_cast<std::ptrdiff_t>(std::max<size_t>(rank, 1) - 1);
  std::nth_element(values.begin(), place, values.end());
  return std::round(static_cast<double>(*place) * 10) / 10;
}

Percentiles percentiles(std::vector<float>& values) {
  if (values.empty()) return {};
  return {percentile(values, 0.5), percentile(values, 0.9), percentile(values, 0.99), percentile(values, 1)};
}

double ratio(double part, double whole) { return whole > 0 ? part / whole : 0; }

struct Figures {
  uint64_t hits;
  uint64_t misses;
  uint64_t requests;
  double hitRatio;
  double requestsPerS;
  Percentiles hitUs;
  Percentiles missUs;
};

Figures figuresOf(Report& report) {
  Figures figures;
  figures.hits = report.tally.hitUs.size();
  figures.misses = report.tally.missUs.size();
  figures.requests = figures.hits + figures.misses;
  const auto requests = static_cast<double>(figures.requests);
  figures.hitRatio = ratio(static_cast<double>(figures.hits), requests);
  figures.requestsPerS = ratio(requests, report.elapsedS);
  figures.hitUs = percentiles(report.tally.hitUs);
  figures.missUs = percentiles(report.tally.missUs);
  return figures;
}

nlohmann::ordered_json asJson(const Percentiles& us) {
  return {{"p50", us.p50}, {"p90", us.p90}, {"p99", us.p99}, {"max", us.max}};
}

}  // namespace

void Tally::merge(const Tally& other) {
  verifyFailures += other.verifyFailures;
  bytesRead += other.bytesRead;
  hitUs.insert(hitUs.end(), other.hitUs.begin(), other.hitUs.end());
  missUs.insert(missUs.end(), other.missUs.begin(), other.missUs.end());
  if (firstFailure.empty()) firstFailure = other.firstFailure;
}

std::string asTable(Report& report) {
  const Figures figures = figuresOf(report);
  std::string table;
  const auto row = [&table](const char* name, const std::string& value) {
    table += fmt::format("{:<16}{:>14}\n", name, value);
  };
  const auto latencies = [&table](const char* name, const Percentiles& us) {
    table +=
        fmt::format("{:<16}{:>14.1f}{:>12.1f}{:>12.1f}{:>12.1f}\n", name, us.p50, us.p90, us.p99, us.max);
  };
  row("requests", formatCount(figures.requests));
  row("hits", formatCount(figures.hits));
  row("misses", formatCount(figures.misses));
  row("hit ratio", fmt::format("{:.2f} %", figures.hitRatio * 100));
  row("rejected", formatCount(report.rejected()));
  row("bytes read", formatSize(report.tally.bytesRead));
  row("bytes written", formatSize(report.metrics.storedBytes));
  row("pruned", formatCount(report.metrics.evictedBlocks));
  row("wrong bytes", formatCount(report.tally.verifyFailures));
  row("requests/s", formatCount(static_cast<uint64_t>(std::llround(figures.requestsPerS))));
  table += fmt::format("{:<16}{:>14}{:>12}{:>12}{:>12}\n", "latency us", "p50", "p90", "p99", "max");
  latencies("  hit", figures.hitUs);
  latencies("  miss", figures.missUs);
  if (!report.leftOut.empty()) table += "left out: " + report.leftOut + '\n';
  return table;
}

std::string asJson(Report& report) {
  const Figures figures = figuresOf(report);
  const nlohmann::ordered_json json = {
      {"mode", report.mode},
      {"requests", figures.requests},
      {"hits", figures.hits},
      {"misses", figures.misses},
      {"hit_ratio", figures.hitRatio},
      {"rejected", report.rejected()},
      {"verify_failures", report.tally.verifyFailures},
      {"bytes_read", report.tally.bytesRead},
      {"bytes_written", report.metrics.storedBytes},
      {"pruned", report.metrics.evictedBlocks},
      {"elapsed_s", report.elapsedS},
      {"requests_per_s", figures.requestsPerS},
      {"latency_us", {{"hit", asJson(figures.hitUs)}, {"miss", asJson(figures.missUs)}}},
      {"status", report.metrics.engine},
      {"counters", report.metrics.engineCounters},
  };
  return json.dump(2) + '\n';
}

}  // namespace diskcachectl
