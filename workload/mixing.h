// Repeatable pseudo-random numbers: the same on every machine and in every thread. Not for secrets.
#pragma once

#include <cstdint>
#include <string_view>

namespace workload {

// One to one, and every bit of the input changes about half of the result's.
constexpr uint64_t mix(uint64_t value) {
  value += 0x9e3779b97f4a7c15U;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9U;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebU;
  return value ^ (value >> 31);
}

// A text's number; each `lane` is an independent function of the text.
constexpr uint64_t mix(std::string_view text, uint64_t lane) {
  uint64_t state = mix(lane);
  for (const char c : text) state = mix(state ^ static_cast<unsigned char>(c));
  return mix(state ^ text.size());
}

// A number in [0, 1) with 53 random bits.
constexpr double toUnitInterval(uint64_t mixed) { return static_cast<double>(mixed >> 11) * 0x1p-53; }

}  // namespace workload
