#include "curve/hitCurve.h"

#include <xxhash.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace diskcachectl {

namespace {

uint64_t limitOf(double share) {
  return share >= 1 ? std::numeric_limits<uint64_t>::max() : static_cast<uint64_t>(share * 0x1p64);
}

uint64_t scaled(uint64_t value, double factor) {
  return factor == 1 ? value : static_cast<uint64_t>(std::llround(static_cast<double>(value) * factor));
}

}  // namespace

HitCurve::HitCurve(double share, bool keepsSize)
    : m_share(share), m_limit(limitOf(share)), m_keepsSize(keepsSize), m_tallies(share < 1 ? GROUPS : 1) {}

void HitCurve::request(std::string_view id, uint32_t size) {
  ++m_requests;
  const XXH128_hash_t hash = XXH3_128bits(id.data(), id.size());
  if (hash.high64 > m_limit) return;
  ++m_sampled;
  // The table goes by the low half's low bits.
  Tally& tally = m_tallies[m_tallies.size() == 1 ? 0 : hash.low64 >> 60];
  ++tally.requests;
  const Distance distance = m_distance.request({hash.high64, hash.low64}, size, m_keepsSize);
  if (!distance.isKnown) return;
  if (distance.entries >= tally.hits.size()) {
    tally.hits.resize(std::max<size_t>(distance.entries + 1, tally.hits.size() * 2));
  }
  ++tally.hits[distance.entries];
  m_bytes.push_back(distance.bytes);
}

void HitCurve::finish() {
  std::sort(m_bytes.begin(), m_bytes.end());
  for (Tally& tally : m_tallies) {
    for (size_t i = 1; i < tally.hits.size(); ++i) tally.hits[i] += tally.hits[i - 1];
  }
}

uint64_t HitCurve::objects() const { return scaled(m_distance.objects(), 1 / m_share); }

std::vector<uint64_t> HitCurve::sizes(uint64_t most) const {
  const uint64_t last = objects();
  // Below one object of the sample there is nothing to tell apart.
  const uint64_t first = std::max<uint64_t>(scaled(1, 1 / m_share), 1);
  std::vector<uint64_t> sizes;
  if (most == 0 && m_share >= 1) {
    for (uint64_t size = 1; size <= last; ++size) sizes.push_back(size);
    return sizes;
  }
  if (most == 0) most = std::min<uint64_t>(m_distance.objects(), 1000);
  const double span = std::log(static_cast<double>(std::max(last, first)) / static_cast<double>(first));
  for (uint64_t i = 0; i < most; ++i) {
    const double part = most == 1 ? 1 : static_cast<double>(i) / static_cast<double>(most - 1);
    const uint64_t size = scaled(first, std::exp(span * part));
    if (sizes.empty() || size > sizes.back()) sizes.push_back(std::min(size, last));
  }
  if (sizes.empty() || sizes.back() != last) sizes.push_back(last);
  return sizes;
}

double HitCurve::hitsWithin(uint64_t reach) const {
  double sum = 0;
  for (const Tally& tally : m_tallies) {
    if (!tally.hits.empty())
      sum += static_cast<double>(tally.hits[std::min<uint64_t>(reach, tally.hits.size() - 1)]);
  }
  return sum;
}

CurvePoint HitCurve::at(uint64_t entries) const {
  const uint64_t reach = m_share >= 1 ? entries : scaled(entries, m_share);
  CurvePoint point{entries};
  std::vector<double> hits(m_tallies.size());
  double sum = 0;
  for (size_t i = 0; i < m_tallies.size(); ++i) {
    const std::vector<uint64_t>& of = m_tallies[i].hits;
    if (!of.empty()) hits[i] = static_cast<double>(of[std::min<uint64_t>(reach, of.size() - 1)]);
    sum += hits[i];
  }
  if (m_sampled == 0) return point;
  const auto sampled = static_cast<double>(m_sampled);
  point.hitRatio = sum / sampled;
  if (sum > 0) point.bytes = scaled(m_bytes[static_cast<size_t>(sum) - 1], 1 / m_share);
  if (hits.size() == 1) return point;
  // How much the groups of objects differ from the whole: the error of a ratio estimated from clusters.
  double squares = 0;
  for (size_t i = 0; i < hits.size(); ++i) {
    const double off = hits[i] - point.hitRatio * static_cast<double>(m_tallies[i].requests);
    squares += off * off;
  }
  const auto groups = static_cast<double>(GROUPS);
  const double clusters = std::sqrt(squares * groups / (groups - 1)) / sampled;
  // A distance counted in a sample is off by itself, which tells where the curve is steep.
  const auto off = static_cast<uint64_t>(std::ceil(std::sqrt(static_cast<double>(reach) * (1 - m_share))));
  const double rise = hitsWithin(reach + off) - sum;
  const double fall = sum - hitsWithin(reach - std::min(reach, off));
  point.error = std::hypot(clusters, std::max(rise, fall) / sampled);
  return point;
}

}  // namespace diskcachectl
