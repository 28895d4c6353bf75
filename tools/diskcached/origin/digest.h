// Digests that stores name objects and requests by.
#pragma once

#include <cstddef>
#include <span>
#include <string>

namespace diskcached {

// In hexadecimal digits.
std::string sha256Of(std::span<const std::byte> bytes);
std::string md5Of(std::span<const std::byte> bytes);

}  // namespace diskcached
