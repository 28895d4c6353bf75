// Digests that stores name objects and requests by.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace diskcached {

// In hexadecimal digits.
std::string sha256Of(std::span<const std::byte> bytes);
std::string md5Of(std::span<const std::byte> bytes);
// As Content-MD5 has it.
std::string md5Base64Of(std::span<const std::byte> bytes);

// The bytes of a digest with a key.
std::string hmacSha256(std::string_view key, std::string_view text);
std::string hexOf(std::string_view bytes);

}  // namespace diskcached
