// What an engine tells of itself as a page of metrics. The names of figures that can be seen from outside too are
// those that the tool's `status` gives them.
#include <sys/statvfs.h>

#include <cstring>
#include <optional>

#include "diskcache/diskcache.h"
#include "diskcache/diskcacheState.h"
#include "support/log.h"
#include "support/metricsText.h"

namespace ObjectStore {

namespace {

constexpr const char* COUNTER = "counter";
constexpr const char* GAUGE = "gauge";

double seconds(uint64_t milliseconds) { return static_cast<double>(milliseconds) / 1000; }

void renderStatus(DiskCacheState& engine, MetricsText& page) {
  const bool isRandom = engine.settings.pruningMode == PruningMode::Random;
  page.value("mode_info", isRandom ? "{mode=\"random\"}" : "{mode=\"lru\"}", GAUGE,
             "How the cache gives segments up; always 1.", 1);
  page.value("root_shared", "", GAUGE, "Whether another engine had the root directory at the start.",
             int{engine.isRootShared});
  int high = 0, low = 0, alarm = 0;
  engine.space.getWatermarks(high, low, alarm);
  const auto watermark = [&](const char* name, const char* help, int percent) {
    page.value(name, "", GAUGE, help, percent / 100.0);
  };
  watermark("high_watermark_ratio", "Used share of the capacity above which writers are delayed.", high);
  watermark("low_watermark_ratio", "Used share of the capacity down to which the pruner gives up.", low);
  watermark("alarm_watermark_ratio", "Used share of the capacity that the client is warned at.", alarm);
  page.value("capacity_bytes", "", GAUGE, "Size of the volumes' file systems when last measured.",
             engine.space.capacity());
  page.value("used_bytes", "", GAUGE, "Space in use when last measured, and accounted since.",
             engine.space.used());
  if (const std::optional<int64_t> files = engine.space.files()) {
    page.value("segments", "", GAUGE,
               "Segments that the start found and that were made since, less those removed; mode lru only.",
               *files);
  }
  page.value("recency_list_entries_limit", "", GAUGE, "Segments that the recency list may hold.",
             engine.lru.maxEntries());
  page.value("recency_list_entries", "", GAUGE, "Segments in the recency list.", engine.lru.entries());
}

void renderCounters(DiskCacheSpace& space, MetricsText& page) {
  EngineCounters& counters = space.counters();
  const Stats& stats = space.stats();
  page.value("list_hits_total", "", COUNTER, "Uses of segments that the recency list knew.",
             uint64_t{counters.listHits});
  page.value("list_misses_total", "", COUNTER, "Uses of segments that it did not know, creations left out.",
             uint64_t{counters.listMisses});
  const auto evictions = [&](const char* labels, uint64_t value) {
    page.value("evictions_total", labels, COUNTER,
               "Segments that the client gave up for the list, and that the pruner handed to it.", value);
  };
  evictions("{by=\"list\"}", counters.givenUp);
  evictions("{by=\"pruner\"}", stats.numPruned.value());
  for (size_t operation = 0; operation < WRITE_OPERATIONS.size(); ++operation) {
    for (size_t outcome = 0; outcome < WRITE_OUTCOMES.size(); ++outcome) {
      const std::string labels = std::string("{operation=\"") + WRITE_OPERATIONS[operation] +
                                 "\",outcome=\"" + WRITE_OUTCOMES[outcome] + "\"}";
      page.value("writes_total", labels, COUNTER, "Calls that write segments, by how they ended.",
                 counters.writes[operation][outcome].value());
    }
  }
  page.value("write_delay_seconds_total", "", COUNTER, "Time that writers were made to wait.",
             seconds(stats.delayMs.value()));
  page.value("out_of_space_errors_total", "", COUNTER, "Writes refused for lack of space.",
             stats.errOutOfSpace.value());
}

void renderFailures(MetricsText& page) {
  for (int number = 0; number < FAILURE_NUMBERS; ++number) {
    const uint64_t count = failuresOf(number);
    if (count == 0) continue;
    const char* const name = strerrorname_np(number);
    page.value("errors_total",
               "{errno=\"" + std::to_string(number) + "\",name=\"" + (name ? name : "") + "\"}", COUNTER,
               "Failures by system error number, of all engines in the process; misses left out.", count);
  }
}

// A volume with its file system as it is now.
struct MeasuredVolume {
  std::string labels;
  const Volume& volume;
  std::optional<struct statvfs> now{};

  uint64_t capacity() const { return uint64_t{now->f_blocks} * now->f_frsize; }
  uint64_t free() const { return uint64_t{now->f_bavail} * now->f_frsize; }
  bool hasRoom() const {
    return volume.listPos && free() >= volume.reserved && (now->f_files == 0 || now->f_favail > 0);
  }
};

struct VolumeMetric {
  const char* name;
  const char* help;
  uint64_t (*value)(const MeasuredVolume&);
};

constexpr VolumeMetric VOLUME_METRICS[] = {
    {"volume_has_room", "Whether the volume takes a new segment.",
     [](const MeasuredVolume& v) { return uint64_t{v.hasRoom()}; }},
    {"volume_capacity_bytes", "Size of the volume's file system.",
     [](const MeasuredVolume& v) { return v.capacity(); }},
    {"volume_free_bytes", "Free space of the volume's file system.",
     [](const MeasuredVolume& v) { return v.free(); }},
    {"volume_reserved_bytes", "Space that new segments leave free.",
     [](const MeasuredVolume& v) { return v.volume.reserved; }},
    {"volume_inodes", "Inodes of the volume's file system; 0: it does not count them.",
     [](const MeasuredVolume& v) { return uint64_t{v.now->f_files}; }},
    {"volume_free_inodes", "Free inodes of the volume's file system.",
     [](const MeasuredVolume& v) { return uint64_t{v.now->f_favail}; }}};

// Measured without the volumes' lock: a disk that does not answer keeps nobody else.
void renderVolumes(DiskCacheVolumes& volumes, MetricsText& page) {
  std::vector<Volume> records;
  volumes.getVolumeStats(records);
  std::vector<MeasuredVolume> measured;
  for (const Volume& volume : records) {
    if (volume.dir.empty()) continue;
    MeasuredVolume& now =
        measured.emplace_back(MeasuredVolume{"{index=\"" + std::to_string(volume.index) + "\",directory=\"" +
                                                 MetricsText::escaped(volume.dir) + "\"}",
                                             volume});
    struct statvfs status {};
    if (statvfs(volume.dir.c_str(), &status) == 0) now.now = status;
  }
  for (const MeasuredVolume& volume : measured) {
    page.value("volume_present", volume.labels, GAUGE, "Whether the volume's file system answers.",
               int{volume.now.has_value()});
  }
  for (const VolumeMetric& metric : VOLUME_METRICS) {
    for (const MeasuredVolume& volume : measured) {
      if (volume.now) page.value(metric.name, volume.labels, GAUGE, metric.help, metric.value(volume));
    }
  }
}

}  // namespace

void DiskCache::renderMetrics(std::string& out) {
  MetricsText page(out, "diskcache_");
  renderStatus(*m_state, page);
  renderCounters(m_state->space, page);
  renderFailures(page);
  renderVolumes(m_state->volumes, page);
}

}  // namespace ObjectStore
