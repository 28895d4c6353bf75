#include "origin/digest.h"

#include <fmt/core.h>
#include <openssl/evp.h>

#include <array>
#include <stdexcept>

namespace diskcached {
namespace {

std::string digestOf(const EVP_MD* kind, std::span<const std::byte> bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, kind, nullptr) != 1)
    throw std::runtime_error("a digest can't be taken");
  std::string text;
  for (unsigned i = 0; i < size; ++i) text += fmt::format("{:02x}", digest[i]);
  return text;
}

}  // namespace

std::string sha256Of(std::span<const std::byte> bytes) { return digestOf(EVP_sha256(), bytes); }
std::string md5Of(std::span<const std::byte> bytes) { return digestOf(EVP_md5(), bytes); }

}  // namespace diskcached
