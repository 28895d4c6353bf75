// A tier of cache servers behind consistent hashing, simulated: hits, imbalance and keys moved for 1 to 64 nodes. The
// same figures on every machine; no disk, no sockets, no clock.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <list>
#include <numbers>
#include <numeric>
#include <unordered_map>
#include <vector>

#include "workload/mixing.h"
#include "workload/zipf.h"

namespace {

using workload::mix;

constexpr uint32_t OBJECTS = 200'000;
constexpr uint64_t REQUESTS = 2'000'000;
constexpr uint64_t WARMING = REQUESTS / 2;  // not counted
constexpr double EXPONENT = 0.9;
constexpr double MEDIAN_SIZE = 128 << 10, SIGMA = 1.5;  // log-normal
constexpr unsigned IN_FLIGHT = 16;                      // requests for each node at any time
constexpr double UNBOUNDED = 0;

struct Trace {
  std::vector<uint64_t> sizes;
  std::vector<uint32_t> requests;
  uint64_t bytes = 0;  // of all objects
};

Trace makeTrace() {
  Trace trace;
  for (uint64_t i = 0; i < OBJECTS; ++i) {
    const double u = 1 - workload::toUnitInterval(mix(2 * i)), v = workload::toUnitInterval(mix(2 * i + 1));
    const double normal = std::sqrt(-2 * std::log(u)) * std::cos(2 * std::numbers::pi * v);
    trace.sizes.push_back(static_cast<uint64_t>(MEDIAN_SIZE * std::exp(SIGMA * normal)) + 1);
  }
  trace.bytes = std::accumulate(trace.sizes.begin(), trace.sizes.end(), uint64_t{0});
  const workload::ZipfDraw draw(OBJECTS, EXPONENT, 1);
  for (uint64_t n = 0; n < REQUESTS; ++n) trace.requests.push_back(draw.draw(n));
  return trace;
}

// Each node stands at several points of a circle; an object belongs to the node of the next point.
class Ring {
 public:
  Ring(unsigned nodes, unsigned points) {
    for (uint64_t node = 0; node < nodes; ++node) {
      for (uint64_t point = 0; point < points; ++point)
        m_points.push_back({mix(mix(node + 1) + point), static_cast<unsigned>(node)});
    }
    std::sort(m_points.begin(), m_points.end(), [](const Point& a, const Point& b) { return a.at < b.at; });
  }
  // The first node from the object's place on that `mayTake` it; one of them must.
  template <typename MayTake>
  unsigned nodeOf(uint32_t object, MayTake mayTake) const {
    const auto next = std::lower_bound(m_points.begin(), m_points.end(), mix(~uint64_t{object}),
                                       [](const Point& point, uint64_t at) { return point.at < at; });
    size_t i = static_cast<size_t>(next - m_points.begin()) % m_points.size();
    while (!mayTake(m_points[i].node)) i = (i + 1) % m_points.size();
    return m_points[i].node;
  }
  unsigned nodeOf(uint32_t object) const {
    return nodeOf(object, [](unsigned) { return true; });
  }

 private:
  struct Point {
    uint64_t at;
    unsigned node;
  };
  std::vector<Point> m_points;
};

// Objects in order of their last use, up to a number of bytes.
class LruNode {
 public:
  explicit LruNode(uint64_t maxBytes) : m_maxBytes(maxBytes) {}
  // Whether it was there; it is from now on.
  bool ask(uint32_t object, const std::vector<uint64_t>& sizes) {
    if (const auto found = m_places.find(object); found != m_places.end()) {
      m_order.splice(m_order.begin(), m_order, found->second);
      return true;
    }
    if (sizes[object] > m_maxBytes) return false;
    for (m_bytes += sizes[object]; m_bytes > m_maxBytes; m_order.pop_back()) {
      m_bytes -= sizes[m_order.back()];
      m_places.erase(m_order.back());
    }
    m_order.push_front(object);
    m_places[object] = m_order.begin();
    return false;
  }

 private:
  const uint64_t m_maxBytes;
  uint64_t m_bytes = 0;
  std::list<uint32_t> m_order;
  std::unordered_map<uint32_t, std::list<uint32_t>::iterator> m_places;
};

struct Outcome {
  double hitRatio = 0;
  double busiest = 0;  // requests of the busiest node over the mean
};

// With a bound, no node holds more than `bound` times the mean of the requests in flight; all take equally long.
Outcome run(const Trace& trace, const Ring& ring, unsigned nodes, uint64_t bytesOfNode, double bound) {
  std::vector<LruNode> caches(nodes, LruNode(bytesOfNode));
  std::vector<unsigned> inFlight(nodes);
  std::vector<unsigned> askedLately(size_t{IN_FLIGHT} * nodes, nodes);
  std::vector<uint64_t> asked(nodes);
  const auto most = static_cast<unsigned>(std::ceil(bound * IN_FLIGHT));
  uint64_t hits = 0;
  for (uint64_t n = 0; n < REQUESTS; ++n) {
    unsigned& slot = askedLately[n % askedLately.size()];
    if (slot < nodes) --inFlight[slot];
    const uint32_t object = trace.requests[n];
    const unsigned node =
        ring.nodeOf(object, [&](unsigned it) { return bound == UNBOUNDED || inFlight[it] < most; });
    slot = node;
    ++inFlight[node];
    const bool isHit = caches[node].ask(object, trace.sizes);
    if (n < WARMING) continue;
    hits += isHit ? 1 : 0;
    ++asked[node];
  }
  constexpr auto COUNTED = static_cast<double>(REQUESTS - WARMING);
  const auto busiest = static_cast<double>(*std::max_element(asked.begin(), asked.end()));
  return {static_cast<double>(hits) / COUNTED, busiest * nodes / COUNTED};
}

// The share of objects that belong to another node when there are `after` nodes instead of `before`.
double moved(unsigned before, unsigned after, unsigned points) {
  const Ring old(before, points), changed(after, points);
  uint32_t count = 0;
  for (uint32_t object = 0; object < OBJECTS; ++object)
    count += old.nodeOf(object) != changed.nodeOf(object) ? 1 : 0;
  return static_cast<double>(count) / OBJECTS;
}

double shareOfHottest(const Trace& trace) {
  std::vector<uint64_t> asked(OBJECTS);
  for (const uint32_t object : trace.requests) ++asked[object];
  return static_cast<double>(*std::max_element(asked.begin(), asked.end())) / REQUESTS;
}

// Objects of the node that has most of them, over the mean.
double mostKeys(const Ring& ring, unsigned nodes) {
  std::vector<uint32_t> keys(nodes);
  for (uint32_t object = 0; object < OBJECTS; ++object) ++keys[ring.nodeOf(object)];
  return static_cast<double>(*std::max_element(keys.begin(), keys.end())) * nodes / OBJECTS;
}

void printRow(const Trace& trace, unsigned nodes) {
  constexpr unsigned FEW = 16, MANY = 1600;  // points a node
  const Ring few(nodes, FEW), many(nodes, MANY);
  const uint64_t fixed = trace.bytes / 50, split = trace.bytes / 5 / nodes;
  const Outcome plain = run(trace, many, nodes, fixed, UNBOUNDED);
  const Outcome loose = run(trace, many, nodes, fixed, 1.5), tight = run(trace, many, nodes, fixed, 1.25);
  const Outcome plainSplit = run(trace, many, nodes, split, UNBOUNDED);
  const Outcome looseSplit = run(trace, many, nodes, split, 1.5);
  std::printf("%5u %8.1f %5.1f %5.1f %8.1f %5.1f %8.2f %5.2f %8.2f %5.2f %5.2f %8.1f %5.1f\n", nodes,
              100 * plain.hitRatio, 100 * loose.hitRatio, 100 * tight.hitRatio, 100 * plainSplit.hitRatio,
              100 * looseSplit.hitRatio, mostKeys(few, nodes), mostKeys(many, nodes), plain.busiest,
              loose.busiest, tight.busiest, 100 * moved(nodes, nodes + 1, MANY),
              nodes > 1 ? 100 * moved(nodes, nodes - 1, MANY) : 100.0);
  std::fflush(stdout);
}

}  // namespace

int main() {
  const Trace trace = makeTrace();
  std::printf("%u objects, %.0f GiB; %u requests of them, the hottest object is %.1f %% of these\n\n",
              OBJECTS, static_cast<double>(trace.bytes) / (1 << 30), static_cast<unsigned>(REQUESTS),
              100 * shareOfHottest(trace));
  std::puts("      hits %, 2 % of bytes     20 %        most keys       most requests       keys moved %");
  std::puts("            on each node    in all     over the mean       over the mean      a node");
  std::puts("nodes    plain   1.5  1.25    plain   1.5     16 p 1600p    plain   1.5  1.25    comes  goes");
  for (const unsigned nodes : {1U, 2U, 4U, 8U, 16U, 32U, 64U}) printRow(trace, nodes);
}
