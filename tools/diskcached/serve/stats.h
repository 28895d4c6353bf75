// What the server counts besides its cache.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace diskcached {

// Every counter once: field, name and labels for Prometheus, what it counts. Those of one name stand
// together.
#define DISKCACHED_COUNTERS(X)                                                                             \
  X(accepted, "connections_accepted_total", "", "Connections accepted")                                    \
  X(refusedConnections, "connections_refused_total", "", "Connections answered with 503 for their number") \
  X(answers1, "answers_total", "{status=\"1xx\"}", "Answers by status")                                    \
  X(answers2, "answers_total", "{status=\"2xx\"}", "Answers by status")                                    \
  X(answers3, "answers_total", "{status=\"3xx\"}", "Answers by status")                                    \
  X(answers4, "answers_total", "{status=\"4xx\"}", "Answers by status")                                    \
  X(answers5, "answers_total", "{status=\"5xx\"}", "Answers by status")                                    \
  X(hits, "objects_total", "{result=\"hit\"}", "Objects served, by where their first bytes came from")     \
  X(misses, "objects_total", "{result=\"miss\"}", "Objects served, by where their first bytes came from")  \
  X(collapsed, "objects_total", "{result=\"collapsed\"}",                                                  \
    "Objects served, by where their first bytes came from")                                                \
  X(stale, "stale_answers_total", "", "Answers served stale while the store was in trouble")               \
  X(lookups, "lookups_total", "", "Looks at the store for an object's version")                            \
  X(passed, "passed_total", "", "Requests passed through")                                                 \
  X(uploads, "client_uploads_total", "", "PUT requests that were taken")                                   \
  X(deletes, "client_deletes_total", "", "DELETE requests that were taken")                                \
  X(purged, "purged_objects_total", "", "Objects forgotten by purges")                                     \
  X(timeouts, "client_timeouts_total", "", "Connections ended because nothing came or went")               \
  X(bodyBytes, "sent_body_bytes_total", "", "Bytes of bodies sent to clients")                             \
  X(fileBytes, "sent_file_bytes_total", "", "Bytes of these that went from disk without being copied")

struct Stats {
#define DISKCACHED_FIELD(field, name, labels, help) std::atomic<uint64_t> field = 0;
  DISKCACHED_COUNTERS(DISKCACHED_FIELD)
#undef DISKCACHED_FIELD
  std::atomic<uint64_t> connections{0};  // now

  void countAnswer(unsigned status) {
    std::atomic<uint64_t>* const classes[] = {&answers1, &answers2, &answers3, &answers4, &answers5};
    if (status >= 100 && status < 600) classes[status / 100 - 1]->fetch_add(1, std::memory_order_relaxed);
  }
};

}  // namespace diskcached
