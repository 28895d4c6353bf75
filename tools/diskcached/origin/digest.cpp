#include "origin/digest.h"

#include <fmt/core.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <stdexcept>

namespace diskcached {
namespace {

std::string digestOf(const EVP_MD* kind, std::span<const std::byte> bytes) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned size = 0;
  auto* const to = reinterpret_cast<unsigned char*>(digest.data());
  if (EVP_Digest(bytes.data(), bytes.size(), to, &size, kind, nullptr) != 1)
    throw std::runtime_error("a digest can't be taken");
  digest.resize(size);
  return digest;
}

}  // namespace

std::string sha256Of(std::span<const std::byte> bytes) { return hexOf(digestOf(EVP_sha256(), bytes)); }
std::string md5Of(std::span<const std::byte> bytes) { return hexOf(digestOf(EVP_md5(), bytes)); }

std::string md5Base64Of(std::span<const std::byte> bytes) {
  const std::string digest = digestOf(EVP_md5(), bytes);
  std::array<unsigned char, 32> text{};
  const int size = EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char*>(digest.data()),
                                   static_cast<int>(digest.size()));
  return {text.begin(), text.begin() + size};
}

std::string hmacSha256(std::string_view key, std::string_view text) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned size = 0;
  if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(text.data()), text.size(),
           reinterpret_cast<unsigned char*>(digest.data()), &size) == nullptr)
    throw std::runtime_error("a digest can't be taken");
  digest.resize(size);
  return digest;
}

std::string hexOf(std::string_view bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char byte : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  return text;
}

}  // namespace diskcached
