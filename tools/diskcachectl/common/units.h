// Sizes, counts and times as people write them.
#pragma once

#include <chrono>
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

// A whole number and s, m, h, d or w: "90m", "7d". Throws std::invalid_argument for anything else.
std::chrono::seconds parseAge(const std::string& text);

// "12 s", "3 min", "5 h", "8 d".
std::string formatAge(int64_t seconds);

// For options: replaces a size, or an age, by its number of bytes or seconds; returns why it cannot.
std::string sizeToNumber(std::string& text);
std::string ageToNumber(std::string& text);

}  // namespace diskcachectl
