// An ObjectCache on directories of its own, in front of an origin that is a formula.
#pragma once

#include <gtest/gtest.h>
#include <xxhash.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/objectCache.h"
#include "tests/support/logCapture.h"
#include "tests/support/outcome.h"
#include "tests/support/tempDir.h"

namespace ObjectStore {

constexpr uint32_t SMALL_BLOCK = 64 * 1024;

// Bytes that tell object and place.
inline std::string bytesOf(std::string_view key, std::string_view version, uint64_t from, size_t count) {
  const std::string name = std::string(key) + '\n' + std::string(version);
  const uint64_t seed = XXH3_64bits(name.data(), name.size());
  std::string bytes(count, '\0');
  for (size_t i = 0; i < count; ++i) {
    const uint64_t word = (seed ^ ((from + i) >> 3)) * 0x9e3779b97f4a7c15U;
    bytes[i] = static_cast<char>(word >> (8 * ((from + i) & 7)));
  }
  return bytes;
}

class ClientTest : public ::testing::Test {
 protected:
  struct Asked {
    uint64_t from;
    uint64_t size;
  };

  void TearDown() override {
    cache.reset();
    EXPECT_LE(openDescriptors(), m_descriptors);
  }

  ObjectCacheOptions options(unsigned volumes = 1) {
    ObjectCacheOptions made;
    made.root = dir / "root";
    for (unsigned i = 1; i <= volumes; ++i) made.volumes.push_back(dir / "vol" + std::to_string(i));
    made.blockSize = SMALL_BLOCK;
    return made;
  }
  std::string openWith(const ObjectCacheOptions& chosen) {
    cache.reset();
    cache = std::make_unique<ObjectCache>(chosen);
    return outcome(cache->open());
  }
  void start(const ObjectCacheOptions& chosen) { ASSERT_EQ(openWith(chosen), "success"); }
  void start() { start(options()); }

  // The origin's answer for an object of `size` bytes.
  OriginAnswer answer(std::string_view key, std::string_view version, uint64_t size, uint64_t from,
                      std::span<std::byte> to) {
    ++originCalls;
    if (originErrNo != 0)
      return {.error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, originErrNo, "the origin")};
    const uint64_t count = from >= size ? 0 : std::min<uint64_t>(to.size(), size - from);
    const std::string bytes = bytesOf(key, version, from, count);
    std::copy_n(reinterpret_cast<const std::byte*>(bytes.data()), count, to.data());
    return {.objectSize = size, .metadata = {{"etag", std::string(version)}}};
  }
  // What a read gives, "right", or what is wrong with it.
  std::string read(std::string_view key, uint64_t size, uint64_t from, size_t count,
                   std::string_view version = "v") {
    std::string buffer(count, 'x');
    result =
        cache->read(key, version, from, std::as_writable_bytes(std::span(buffer)),
                    [&](uint64_t at, std::span<std::byte> to) { return answer(key, version, size, at, to); });
    if (!result) return outcome(result.error);
    const uint64_t expected = from >= size ? 0 : std::min<uint64_t>(count, size - from);
    if (result.bytes != expected) return "length " + std::to_string(result.bytes);
    if (result.objectSize != size) return "size " + std::to_string(result.objectSize);
    if (buffer.substr(0, expected) != bytesOf(key, version, from, expected)) return "wrong bytes";
    return "right";
  }
  std::string readAll(std::string_view key, uint64_t size, std::string_view version = "v") {
    return read(key, size, 0, size, version);
  }
  // How often the origin was asked since the last time.
  size_t asked() { return originCalls.exchange(0); }

  // Every block's file of a place ("blocks", "staged").
  std::vector<std::string> files(const std::string& place = "blocks") {
    std::vector<std::string> found;
    for (const auto& volume : std::filesystem::directory_iterator(dir.path())) {
      const auto below = volume.path() / place;
      if (!std::filesystem::is_directory(below)) continue;
      for (const auto& entry : std::filesystem::recursive_directory_iterator(below)) {
        if (entry.is_regular_file() && entry.path().filename().string().size() == 40)
          found.push_back(entry.path());
      }
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  TempDir dir;
  LogCapture log{LogLevel::Error - 1};
  const size_t m_descriptors = openDescriptors();
  std::atomic<size_t> originCalls{0};
  std::atomic<int> originErrNo{0};
  ReadResult result;
  std::unique_ptr<ObjectCache> cache;
};

}  // namespace ObjectStore
