// The share of requests that a cache of each size would have answered.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "curve/stackDistance.h"

namespace diskcachectl {

struct CurvePoint {
  uint64_t entries = 0;  // a cache of so many objects has this hit ratio,
  uint64_t bytes = 0;    // and the smallest cache of so many bytes one that is no lower
  double hitRatio = 0;
  double error = 0;  // of a sample: standard error of the hit ratio
};

// Takes all requests, or those for a share of the objects: then distances stand for so many times as many.
class HitCurve {
 public:
  // `share` in (0, 1].
  HitCurve(double share, bool keepsSize);

  void request(std::string_view id, uint32_t size);
  // No more requests after this.
  void finish();

  uint64_t requests() const { return m_requests; }
  uint64_t objects() const;
  // The sizes at which a cache could differ: every one, or at most `most` of them, evenly by their logarithm; the
  // last one holds all objects.
  std::vector<uint64_t> sizes(uint64_t most) const;
  CurvePoint at(uint64_t entries) const;

 private:
  static constexpr size_t GROUPS = 16;  // of objects, whose differences tell how far a sample may be off

  struct Tally {
    std::vector<uint64_t> hits;  // by distance in entries; after finish() at that distance or nearer
    uint64_t requests = 0;
  };

  // Of the whole sample, after finish(); `reach` in its objects.
  double hitsWithin(uint64_t reach) const;

  const double m_share;
  const uint64_t m_limit;  // an object belongs to the sample when its hash is not above
  const bool m_keepsSize;
  StackDistance m_distance;
  std::vector<Tally> m_tallies;   // one, or one a group
  std::vector<uint64_t> m_bytes;  // distances of all that were found, in rising order after finish()
  uint64_t m_requests = 0;        // of the whole trace
  uint64_t m_sampled = 0;
};

}  // namespace diskcachectl
