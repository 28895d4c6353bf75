// An ObjectCache on directories of its own, in front of an origin that is a formula.
#pragma once

#include <gtest/gtest.h>
#include <xxhash.h>

#include <atomic>
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

struct ClientTest : ::testing::Test {
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
  std::string openWith(const ObjectCacheOptions& given) {
    cache.reset();
    cache = std::make_unique<ObjectCache>(given);
    return outcome(cache->open());
  }
  void start(const ObjectCacheOptions& given) { ASSERT_EQ(openWith(given), "success"); }
  void start() { start(chosen); }

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
    if (!buffer.starts_with(bytesOf(key, version, from, expected))) return "wrong bytes";
    return "right";
  }
  std::string readAll(std::string_view key, uint64_t size, std::string_view version = "v") {
    return read(key, size, 0, size, version);
  }
  std::string stage(std::string_view key, uint64_t size, std::string_view version = "v") {
    const std::string bytes = bytesOf(key, version, 0, size);
    const Metadata metadata = {{"etag", std::string(version)}};
    return outcome(cache->stage(key, version, std::as_bytes(std::span(bytes)), metadata));
  }
  // An upload, to which all that was staged must come, unless it was given up.
  static CZuError upload(const StagedObject& object, bool mayBeGivenUp = false) {
    std::string bytes(object.size, 'x');
    const CZuError error = object.read(0, std::as_writable_bytes(std::span(bytes)));
    if (mayBeGivenUp && RMErrorUtil::GetErrNo(error) == ENOENT) return error;
    EXPECT_EQ(bytes, bytesOf(object.key, object.version, 0, object.size));
    EXPECT_EQ(object.metadata.at("etag"), object.version);
    return error;
  }
  // How often the origin was asked since the last time.
  size_t asked() { return originCalls.exchange(0); }

  // Every block's file of a place ("blocks", "staged").
  std::vector<std::string> files(const std::string& place = "blocks") {
    std::vector<std::string> found;
    for (const std::string& name : treeOf(dir.path())) {
      const bool isBlock = name.size() - name.rfind('/') == 41;
      if (isBlock && name.find('/' + place + '/') != std::string::npos) found.push_back(dir / name);
    }
    return found;
  }

  TempDir dir;
  ObjectCacheOptions chosen = options();  // for the next start
  LogCapture log{LogLevel::Error - 1};
  size_t m_descriptors = openDescriptors();
  std::atomic<size_t> originCalls{0};
  std::atomic<int> originErrNo{0};
  static inline thread_local ReadResult result;  // of this thread's last read
  std::unique_ptr<ObjectCache> cache;
};

}  // namespace ObjectStore
