// Sizes as people write them.
#pragma once

#include <cstdint>
#include <string>

namespace diskcachectl {

// A number, which may have a fraction, and a unit: none or B for bytes; K, M, G, T, P or KiB ... PiB for
// powers of 1024; KB ... PB for powers of 1000; in upper or lower case. Throws std::invalid_argument for
// anything else, and for more than 1 EiB.
uint64_t parseSize(const std::string& text);

// "512 B", "1.5 GiB".
std::string formatSize(uint64_t bytes);

// 1234567 as "1,234,567".
std::string formatCount(uint64_t count);

}  // namespace diskcachectl
