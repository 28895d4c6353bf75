// Drawing objects by a Zipf law: the k-th most popular one is drawn in proportion to 1 / k^exponent.
#pragma once

#include <cstdint>
#include <vector>

namespace workload {

// Constant after construction; any thread may draw. The n-th draw depends on the seed and n alone, and which
// objects are popular on the seed alone.
class ZipfDraw {
 public:
  // `objects` is at least 1, `exponent` at least 0 (0: all alike).
  ZipfDraw(uint32_t objects, double exponent, uint64_t seed);
  uint32_t draw(uint64_t n) const;

 private:
  uint64_t m_seed;
  std::vector<double> m_cumulated;  // weight of this and all more popular ranks
  std::vector<uint32_t> m_objectOfRank;
};

}  // namespace workload
