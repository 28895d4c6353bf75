#include "client/metrics.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace ObjectStore {

namespace {

constexpr std::string_view PREFIX = "diskcache_client_";

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.9g", value);
  return text;
}

class Renderer {
 public:
  explicit Renderer(std::string& out) : m_out(out) {}

  void value(std::string_view name, std::string_view labels, std::string_view type, std::string_view help,
             double value) {
    if (name != m_last) head(name, type, help);
    m_out.append(PREFIX).append(name).append(labels).append(" ").append(number(value)).append("\n");
  }
  void histogram(std::string_view name, std::string_view help, const Histogram& values, double first,
                 unsigned step) {
    head(name, "histogram", help);
    uint64_t total = 0;
    for (size_t i = 0; i < Histogram::BUCKETS; ++i) {
      total += values.counts[i];
      bucket(name, number(first * static_cast<double>(uint64_t{1} << (step * i))), total);
    }
    total += values.counts.back();
    bucket(name, "+Inf", total);
    m_out.append(PREFIX).append(name).append("_sum ").append(number(values.sum)).append("\n");
    m_out.append(PREFIX).append(name).append("_count ").append(std::to_string(total)).append("\n");
  }

 private:
  void head(std::string_view name, std::string_view type, std::string_view help) {
    m_out.append("# HELP ").append(PREFIX).append(name).append(" ").append(help).append("\n");
    m_out.append("# TYPE ").append(PREFIX).append(name).append(" ").append(type).append("\n");
    m_last = name;
  }
  void bucket(std::string_view name, std::string_view bound, uint64_t count) {
    m_out.append(PREFIX).append(name).append("_bucket{le=\"").append(bound).append("\"} ");
    m_out.append(std::to_string(count)).append("\n");
  }

  std::string& m_out;
  std::string m_last;
};

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
  Renderer renderer(out);
  const auto show = [](uint64_t value) { return static_cast<double>(value); };
#define DISKCACHE_CLIENT_RENDER(field, name, labels, help) \
  renderer.value(name, labels, "counter", help, show(metrics.field));
  DISKCACHE_CLIENT_COUNTERS(DISKCACHE_CLIENT_RENDER)
#undef DISKCACHE_CLIENT_RENDER
  renderer.value("used_bytes", "", "gauge", "Bytes on disk of all blocks", show(metrics.usedBytes));
  renderer.value("peak_bytes", "", "gauge", "Most bytes on disk since the start", show(metrics.peakBytes));
  renderer.value("staged_objects", "", "gauge", "Objects staged now", show(metrics.stagedNow));
  renderer.value("staged_bytes", "", "gauge", "Bytes staged now", show(metrics.stagedBytes));
  renderer.value("absent_volumes", "", "gauge", "Volumes without their marker", show(metrics.absentVolumes));
  renderer.value("hot_blocks", "", "gauge", "Descriptors of blocks open", show(metrics.hotBlocks));
  for (const auto& [key, text] : metrics.engine) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || key == "DC.LRUPtr") continue;  // a text or an address
    const bool isMilliseconds = key.ends_with("Ms");  // which Prometheus has no unit for
    const std::string name =
        isMilliseconds ? engineName(key.substr(0, key.size() - 2)) + "_seconds" : engineName(key);
    renderer.value(name, "", "untyped", "The engine's " + key, isMilliseconds ? value / 1000 : value);
  }
  renderer.histogram("hit_seconds", "Time of reads from disk, every 16th", metrics.hitSeconds, 1e-6, 1);
  renderer.histogram("miss_seconds", "Time of reads that needed the origin", metrics.missSeconds, 1e-6, 2);
  renderer.histogram("evicted_age_seconds", "Age of blocks given up for room", metrics.evictedSeconds, 1, 2);
}

}  // namespace ObjectStore
