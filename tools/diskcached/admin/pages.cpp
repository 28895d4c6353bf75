#include "admin/pages.h"

#include <fmt/core.h>

#include <nlohmann/json.hpp>

#include "http/target.h"

namespace diskcached {
namespace {

struct Line {
  const char* name;
  const char* labels;
  const char* help;
  const char* type;
  uint64_t value;
};

void render(const Line& line, std::string& out, std::string& lastName) {
  if (lastName != line.name) {
    out += fmt::format("# HELP diskcached_{0} {1}\n# TYPE diskcached_{0} {2}\n", line.name, line.help,
                       line.type);
    lastName = line.name;
  }
  out += fmt::format("diskcached_{}{} {}\n", line.name, line.labels, line.value);
}

void renderOwnMetrics(Service& service, std::string& out) {
  std::string last;
  const Stats& stats = service.stats;
#define DISKCACHED_LINE(field, name, labels, help) \
  render({name, labels, help, "counter", stats.field}, out, last);
  DISKCACHED_COUNTERS(DISKCACHED_LINE)
#undef DISKCACHED_LINE
  const OriginFigures& origin = service.origin.figures();
  for (const Line& line : {
           Line{"origin_requests_total", "", "Requests to the store, each try", "counter", origin.requests},
           Line{"origin_errors_total", "", "Tries that failed", "counter", origin.errors},
           Line{"origin_retries_total", "", "Tries after the first", "counter", origin.retries},
           Line{"origin_body_bytes_total", "", "Bytes of bodies that came from the store", "counter",
                origin.bytes},
           Line{"connections", "", "Clients connected", "gauge", stats.connections},
           Line{"index_entries", "", "Objects whose versions are in memory", "gauge", service.index.size()},
           Line{"memory_bytes", "", "Bytes of bodies in memory", "gauge", service.memoryUsed()},
           Line{"queued", "{pool=\"disk\"}", "Calls that wait for a thread", "gauge", service.disks.queued()},
           Line{"queued", "{pool=\"store\"}", "Calls that wait for a thread", "gauge",
                service.fetchers.queued()},
           Line{"queued", "{pool=\"change\"}", "Calls that wait for a thread", "gauge",
                service.changers.queued()},
           Line{"queued", "{pool=\"pass\"}", "Calls that wait for a thread", "gauge",
                service.passers.queued()},
       }) {
    render(line, out, last);
  }
}

const char* nameOf(Phase phase) {
  switch (phase) {
    case Phase::Starting: return "starting";
    case Phase::Ready: return "ready";
    case Phase::Stopping: return "stopping";
  }
  return "";
}

std::string dumped(const nlohmann::ordered_json& object) {
  return object.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}

nlohmann::ordered_json progressOf(const StartState::Snapshot& now) {
  nlohmann::ordered_json object = {{"state", nameOf(now.phase)}};
  if (now.phase == Phase::Starting) object["found_blocks"] = now.blocks, object["volume"] = now.volume;
  return object;
}

Page metricsPage(Service& service, const StartState::Snapshot& now) {
  Page page{.type = "text/plain; version=0.0.4"};
  if (now.phase != Phase::Starting) service.cache.renderMetrics(page.body);
  renderOwnMetrics(service, page.body);
  return page;
}

Page statusPage(Service& service, const StartState::Snapshot& now) {
  nlohmann::ordered_json object = progressOf(now);
  object["version"] = DISKCACHE_VERSION;
  object["origin"] = service.options()->origin;
  object["connections"] = service.stats.connections.load();
  object["index_entries"] = service.index.size();
  object["memory_bytes"] = service.memoryUsed();
  if (now.phase != Phase::Starting) {
    const ObjectStore::ObjectCacheMetrics cache = service.cache.metrics();
    const ObjectStore::StagedStatus staged = service.cache.staged();
    object["max_bytes"] = service.options()->maxBytes;
    object["used_bytes"] = cache.usedBytes;
    object["absent_volumes"] = cache.absentVolumes;
    object["staged"] = {
        {"objects", staged.objects}, {"bytes", staged.bytes}, {"oldest_seconds", staged.oldest.count()}};
    object["objects"] = {{"hits", service.stats.hits.load()},
                         {"misses", service.stats.misses.load()},
                         {"collapsed", service.stats.collapsed.load()},
                         {"stale", service.stats.stale.load()}};
  }
  return {.type = "application/json", .body = dumped(object)};
}

Page purge(Service& service, const StartState::Snapshot& now, std::string_view query) {
  const auto prefix = queryValue(query, "prefix");
  if (!prefix) return {400, "text/plain", "POST /purge?prefix=... (empty: all)\n"};
  if (now.phase != Phase::Ready) return {503, "text/plain", std::string(nameOf(now.phase)) + '\n'};
  const auto taken =
      service.index.takePrefix(prefix->starts_with('/') ? std::string_view(*prefix).substr(1) : *prefix);
  for (const auto& [key, info] : taken) service.cache.drop(key, info->version, info->size);
  service.stats.purged += taken.size();
  return {.type = "application/json", .body = dumped({{"purged", taken.size()}})};
}

}  // namespace

Page adminPage(Service& service, StartState& start, std::string_view method, std::string_view target) {
  const size_t mark = std::min(target.find('?'), target.size());
  const std::string_view path = target.substr(0, mark);
  const StartState::Snapshot now = start.now();
  if (path == "/purge") {
    if (method != "POST") return {405, "text/plain", "POST\n"};
    return purge(service, now, target.substr(std::min(mark + 1, target.size())));
  }
  if (method != "GET" && method != "HEAD") return {405, "text/plain", "GET\n"};
  if (path == "/healthz") return {.body = "ok\n"};
  if (path == "/readyz")
    return {now.phase == Phase::Ready ? 200U : 503U, "application/json", dumped(progressOf(now))};
  if (path == "/metrics") return metricsPage(service, now);
  if (path == "/status") return statusPage(service, now);
  return {404, "text/plain", "/metrics /healthz /readyz /status, POST /purge?prefix=\n"};
}

}  // namespace diskcached
