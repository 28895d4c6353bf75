#include "workload/zipf.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numeric>
#include <utility>

#include "workload/mixing.h"

namespace workload {

ZipfDraw::ZipfDraw(uint32_t objects, double exponent, uint64_t seed)
    : m_seed(mix(seed)), m_cumulated(objects), m_objectOfRank(objects) {
  double sum = 0;
  for (uint32_t rank = 0; rank < objects; ++rank) {
    sum += std::pow(rank + 1.0, -exponent);
    m_cumulated[rank] = sum;
  }
  std::iota(m_objectOfRank.begin(), m_objectOfRank.end(), 0U);
  for (size_t i = objects - 1; i > 0; --i) {
    std::swap(m_objectOfRank[i], m_objectOfRank[mix(~m_seed ^ i) % (i + 1)]);
  }
}

uint32_t ZipfDraw::draw(uint64_t n) const {
  const double target = toUnitInterval(mix(m_seed + n)) * m_cumulated.back();
  const auto rank =
      std::upper_bound(m_cumulated.begin(), m_cumulated.end() - 1, target) - m_cumulated.begin();
  return m_objectOfRank[static_cast<size_t>(rank)];
}

}  // namespace workload
