#include "client/metrics.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string_view>

#include "support/metricsText.h"

namespace ObjectStore {

namespace {

constexpr std::string_view PREFIX = "diskcache_client_";

void renderHistogram(MetricsText& page, const std::string& name, std::string_view help,
                     const Histogram& values, double first, unsigned step) {
  page.head(name, "histogram", help);
  const auto bucket = [&](const std::string& bound, uint64_t count) {
    page.sample(name + "_bucket", "{le=\"" + bound + "\"}", count);
  };
  uint64_t total = 0;
  for (size_t i = 0; i < Histogram::BUCKETS; ++i) {
    total += values.counts[i];
    bucket(MetricsText::text(first * static_cast<double>(uint64_t{1} << (step * i))), total);
  }
  total += values.counts.back();
  bucket("+Inf", total);
  page.sample(name + "_sum", "", values.sum);
  page.sample(name + "_count", "", total);
}

// "DC.LRUEntriesCur" as "engine_lru_entries_cur".
std::string engineName(std::string_view key) {
  std::string name = "engine_";
  key.remove_prefix(std::min<size_t>(3, key.size()));
  for (size_t i = 0; i < key.size(); ++i) {
    const bool isUpper = std::isupper(static_cast<unsigned char>(key[i])) != 0;
    if (isUpper && i > 0 && std::islower(static_cast<unsigned char>(key[i - 1])) != 0) name += '_';
    name += static_cast<char>(std::tolower(static_cast<unsigned char>(key[i])));
  }
  return name;
}

}  // namespace

void AtomicHistogram::add(uint64_t value) {
  size_t bucket = 0;
  while (bucket < Histogram::BUCKETS && value > m_first << (m_step * bucket)) ++bucket;
  m_counts[bucket].fetch_add(1, std::memory_order_relaxed);
  m_sum.fetch_add(value, std::memory_order_relaxed);
}

Histogram AtomicHistogram::read(double perUnit) const {
  Histogram values;
  for (size_t i = 0; i < values.counts.size(); ++i)
    values.counts[i] = m_counts[i].load(std::memory_order_relaxed);
  values.sum = static_cast<double>(m_sum.load(std::memory_order_relaxed)) / perUnit;
  return values;
}

void Metrics::fill(ObjectCacheMetrics& out) const {
  const auto total = [&](Count counter) {
    uint64_t sum = 0;
    for (const Stripe& stripe : m_stripes)
      sum += stripe.counters[static_cast<unsigned>(counter)].load(std::memory_order_relaxed);
    return sum;
  };
#define DISKCACHE_CLIENT_FILL(field, name, labels, help) out.field = total(Count::field);
  DISKCACHE_CLIENT_COUNTERS(DISKCACHE_CLIENT_FILL)
#undef DISKCACHE_CLIENT_FILL
  out.hitSeconds = hits.read(1e9);
  out.missSeconds = misses.read(1e9);
  out.evictedSeconds = evicted.read(1);
}

void renderPrometheus(const ObjectCacheMetrics& metrics, std::string& out) {
  MetricsText page(out, PREFIX);
#define DISKCACHE_CLIENT_RENDER(field, name, labels, help) \
  page.value(name, labels, "counter", help, metrics.field);
  DISKCACHE_CLIENT_COUNTERS(DISKCACHE_CLIENT_RENDER)
#undef DISKCACHE_CLIENT_RENDER
  page.value("used_bytes", "", "gauge", "Bytes on disk of all blocks", metrics.usedBytes);
  page.value("peak_bytes", "", "gauge", "Most bytes on disk since the start", metrics.peakBytes);
  page.value("staged_objects", "", "gauge", "Objects staged now", metrics.stagedNow);
  page.value("staged_bytes", "", "gauge", "Bytes staged now", metrics.stagedBytes);
  page.value("absent_volumes", "", "gauge", "Volumes without their marker", metrics.absentVolumes);
  page.value("hot_blocks", "", "gauge", "Descriptors of blocks open", metrics.hotBlocks);
  page.value("hot_bytes", "", "gauge", "Bytes of memory that keep small blocks", metrics.hotBytes);
  auto engine = metrics.engine;
  engine.insert(metrics.engineCounters.begin(), metrics.engineCounters.end());
  for (const auto& [key, text] : engine) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || key == "DC.LRUPtr") continue;  // a text or an address
    const bool isMilliseconds = key.ends_with("Ms");  // which Prometheus has no unit for
    const std::string name =
        isMilliseconds ? engineName(key.substr(0, key.size() - 2)) + "_seconds" : engineName(key);
    page.value(name, "", "untyped", "The engine's " + key, isMilliseconds ? value / 1000 : value);
  }
  renderHistogram(page, "hit_seconds", "Time of reads from memory or disk, every 16th", metrics.hitSeconds,
                  1e-6, 1);
  renderHistogram(page, "miss_seconds", "Time of reads that needed the origin", metrics.missSeconds, 1e-6, 2);
  renderHistogram(page, "evicted_age_seconds", "Age of blocks given up for room", metrics.evictedSeconds, 1,
                  2);
}

}  // namespace ObjectStore
