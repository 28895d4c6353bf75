// Reading through an ObjectCache: ranges, flights, the table of descriptors, the optional parts.
#include <array>
#include <barrier>
#include <future>
#include <thread>

#include "tests/support/clientFixture.h"
#include "tests/support/faults.h"
#include "tests/support/metricsFault.h"
#include "tests/support/process.h"

namespace ObjectStore {
namespace {

using ClientReadTest = ClientTest;

TEST_F(ClientReadTest, AnyRangeOfAnySizeComesFromDiskTheSecondTime) {
  for (const Verify verify : {Verify::Always, Verify::Once, Verify::Never}) {
    chosen.verify = verify;
    chosen.blockSize = 2 * SMALL_BLOCK;
    start();
    const uint64_t block = chosen.blockSize;
    for (const uint64_t size :
         {uint64_t{0}, uint64_t{1}, uint64_t{70000}, block - 1, block, block + 1, 3 * block + 5}) {
      const std::string key = std::to_string(static_cast<int>(verify)) + " of " + std::to_string(size);
      EXPECT_EQ(readAll(key, size), "right") << size;
      EXPECT_EQ(read(key, size, 0, 0), "right");
      EXPECT_EQ(asked(), 1U);
      for (uint64_t from = 0; from <= size; from += 30011)
        for (const size_t count : {size_t{1}, size_t{4096}, size_t{65536}, size_t{200000}})
          EXPECT_EQ(read(key, size, from, count), "right") << size << ": " << from << ", " << count;
      EXPECT_EQ(asked(), 0U) << size;
      ASSERT_TRUE(result.metadata);
      EXPECT_EQ(result.metadata->at("etag"), "v");
    }
  }
  EXPECT_EQ(read("key", 1, UINT64_MAX - 5, 100), "EINVAL");
}

TEST_F(ClientReadTest, AVersionIsAnObjectOfItsOwnWhichDoesNotChangeAndIsNotAskedAboutWhenKnown) {
  start();
  EXPECT_EQ(readAll("key", 1000, "v1"), "right");
  EXPECT_EQ(readAll("key", 2000, "v2"), "right");
  EXPECT_EQ(asked(), 2U);
  EXPECT_EQ(readAll("key", 1000, "v1"), "right");
  const ReadResult known = cache->describe("key", "v2");
  EXPECT_EQ(known.objectSize, 2000U);
  EXPECT_EQ(known.metadata->at("etag"), "v2");
  EXPECT_EQ(outcome(cache->describe("key", "v3").error), "ENOENT");
  cache->drop("key", "v2", 2000);
  EXPECT_EQ(outcome(cache->describe("key", "v2").error), "ENOENT");
  EXPECT_EQ(asked(), 0U);

  EXPECT_EQ(read("key", 3 * SMALL_BLOCK, 0, 10), "right");  // its first block
  EXPECT_EQ(read("key", 2 * SMALL_BLOCK, 0, 2 * SMALL_BLOCK), "ESTALE");
  EXPECT_NE(result.error.AsString().find("key"), std::string::npos);
  EXPECT_EQ(readAll("key", 3 * SMALL_BLOCK), "right");
}

TEST_F(ClientReadTest, AHundredThreadsOnOneColdKeyCostOneFetch) {
  start();
  const uint64_t size = 3 * SMALL_BLOCK + 7;
  std::atomic<unsigned> right{0};
  std::barrier together(100);
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 100; ++i) {
      threads.emplace_back([&] {
        together.arrive_and_wait();
        right += readAll("cold", size) == "right";
      });
    }
  }
  EXPECT_EQ(right, 100U);
  EXPECT_EQ(asked(), 1U);
}

TEST_F(ClientReadTest, WaitersShareBytesAsTheyComeErrorsAndGiveUpByTheirDeadline) {
  start();
  const uint64_t size = 2 * SMALL_BLOCK;
  std::promise<void> firstIsThere, goOn;
  std::string whole(size, 'x');
  auto fetching = std::async(std::launch::async, [&] {
    return cache->read("key", "v", 0, std::as_writable_bytes(std::span(whole)), [&](OriginRequest& request) {
      const OriginAnswer told = answer("key", "v", size, request.from, request.to);
      request.arrived(SMALL_BLOCK + 1, size, told.metadata);
      firstIsThere.set_value();
      goOn.get_future().wait();
      originErrNo = ECONNRESET;
      return answer("key", "v", size, request.from, request.to);
    });
  });
  firstIsThere.get_future().wait();
  asked();
  EXPECT_EQ(read("key", size, 5, 100), "right");  // while the other thread is at its second block
  EXPECT_EQ(result.joined, 1U);
  std::string buffer(10, 'x');
  const auto untold = [](OriginRequest&) -> OriginAnswer { throw 1; };
  const ReadResult late = cache->read("key", "v", SMALL_BLOCK, std::as_writable_bytes(std::span(buffer)),
                                      untold, {.deadline = std::chrono::steady_clock::now()});
  EXPECT_EQ(outcome(late.error), "ETIMEDOUT");
  EXPECT_EQ(asked(), 0U);
  goOn.set_value();
  EXPECT_EQ(outcome(fetching.get().error), "ECONNRESET");
  originErrNo = 0;
  EXPECT_EQ(outcome(cache->read("thrown", "v", 0, std::as_writable_bytes(std::span(buffer)), untold).error),
            "EIO");
  EXPECT_EQ(readAll("key", size), "right");
}

TEST_F(ClientReadTest, AHitOfMemoryIsNoCallOneOfTheTableOneAndOneOfTheDiskThreeOrFour) {
  using Calls = std::vector<std::string>;
  for (const Verify verify : {Verify::Always, Verify::Never}) {
    for (const uint64_t size : {16384U, 16385U}) {
      chosen.verify = verify;
      start();
      const std::string key = std::to_string(size + static_cast<unsigned>(verify));
      EXPECT_EQ(readAll(key, size), "right");
      FaultPlan plan;
      EXPECT_EQ(readAll(key, size), "right");  // takes the descriptor into the table
      EXPECT_EQ(plan.takeTrace(), (Calls{"open", "preadv"}));
      EXPECT_EQ(readAll(key, size), "right");
      EXPECT_EQ(plan.takeTrace(), Calls{"pread"});
      const bool isSmall = size == 16384;
      for (const bool isKept : {false, isSmall}) {
        EXPECT_EQ(read(key, size, 100, 200), "right");
        const char* const plain = isSmall || verify == Verify::Never ? "pread" : "preadv";
        EXPECT_EQ(plan.takeTrace(), isKept ? Calls{} : Calls{plain});
        EXPECT_EQ(cache->metrics().hotBytes, isSmall ? size + 64 : 0);
      }
      EXPECT_EQ(cache->metrics().memoryHits, isSmall ? 1U : 0U);
      EXPECT_EQ(cache->metrics().memoryBytes, isSmall ? 200U : 0U);
    }
  }
  EXPECT_EQ(asked(), 4U);
}

TEST_F(ClientReadTest, MemoryKeepsOnlyBytesThatAreRightAndCostsNoAllocation) {
  for (const Verify verify : {Verify::Always, Verify::Once}) {
    chosen.verify = verify;
    start();
    const std::string key = "key " + std::to_string(static_cast<int>(verify));
    const auto damage = [&] {
      for (const std::string& path : files()) {
        std::string bytes = readFile(path);
        if (const size_t at = bytes.find(bytesOf(key, "v", 0, 300)); at != std::string::npos) bytes[at] ^= 1;
        writeFile(path, bytes);
      }
    };
    EXPECT_EQ(readAll(key, 300), "right");
    damage();
    EXPECT_EQ(outcome(cache->pin(key, "v", 0).error), "ENOENT");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(readAll(key, 300), "right");
    damage();
    EXPECT_EQ(read(key, 300, 299, 1), "right");  // would have kept all
    EXPECT_EQ(asked(), 3U);
    EXPECT_EQ(cache->metrics().damagedBlocks, 2U);
    EXPECT_EQ(cache->metrics().hotBytes, 0U);

    std::array<std::byte, 300> buffer;
    const auto noOrigin = [](OriginRequest&) { return OriginAnswer(); };
    for (const bool isKept : {false, true}) {
      for (int i = 0; i < 2; ++i) EXPECT_EQ(readAll(key, 300), "right");
      {
        const FailingNew failing(1);  // no memory for a copy is no more the caller's trouble than no disk
        const ReadResult got = cache->read(key, "v", 0, buffer, noOrigin);
        EXPECT_TRUE(failing.happened() != isKept && got);
      }
      EXPECT_EQ(cache->metrics().hotBytes, isKept ? 364U : 0U);
    }
    for (const std::string& path : files()) fs::remove(path);
    EXPECT_EQ(readAll(key, 300), "right");  // a block never changes
    EXPECT_EQ(asked(), 0U);
    cache->drop(key, "v", 300);
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(readAll(key, 300), "right") << "a new file is checked anew";
      damage();
    }
    for (int i = 0; i < 4; ++i) EXPECT_EQ(readAll(key, 300), "right");
    EXPECT_EQ(outcome(cache->pin(key, "v", 0).error), "success") << "mended";
    EXPECT_EQ(asked(), 3U);
    EXPECT_EQ(cache->metrics().hotBytes, 364U);
    EXPECT_EQ(stage(key, 400), "success");
    EXPECT_EQ(readAll(key, 400), "right") << "not what memory had kept";
  }
}

TEST_F(ClientReadTest, MemoryIsBoundedAndAScanDoesNotFlushIt) {
  constexpr uint64_t SIZE = 4000, COST = SIZE + 64;
  for (const uint64_t wrong : {1U, 17U * 1024 - 1}) {
    chosen.maxHotBytes = wrong;
    EXPECT_EQ(openWith(chosen), "EINVAL") << wrong;
  }
  chosen.maxHotBytes = 10 * COST + COST / 2;
  start();
  const auto readFavourites = [&] {
    const uint64_t before = cache->metrics().memoryHits;
    for (int i = 0; i < 8; ++i) EXPECT_EQ(readAll("favourite" + std::to_string(i), SIZE), "right");
    EXPECT_LE(cache->metrics().hotBytes, chosen.maxHotBytes);
    return cache->metrics().memoryHits - before;
  };
  for (int i = 0; i < 4; ++i) readFavourites();
  EXPECT_EQ(cache->metrics().hotBytes, 8 * COST);
  for (int pass = 0; pass < 3; ++pass) {  // the origin, the disk, the table
    for (int i = 0; i < 200; ++i) EXPECT_EQ(readAll(std::to_string(i), SIZE), "right");
    EXPECT_EQ(readFavourites(), 8U);
  }
}

TEST_F(ClientReadTest, APinGivesTheBytesAsLongAsItIsHeld) {
  const auto textOf = [](const PinnedBlock& pinned) {
    std::string bytes(pinned.length, '\0');
    EXPECT_EQ(pread(pinned.fd, bytes.data(), bytes.size(), static_cast<off_t>(pinned.fileOffset)),
              static_cast<ssize_t>(bytes.size()));
    return bytes;
  };
  for (const Verify verify : {Verify::Always, Verify::Once, Verify::Never}) {
    chosen.verify = verify;
    start();
    const std::string key = "key " + std::to_string(static_cast<int>(verify));
    const uint64_t size = 2 * SMALL_BLOCK + 500;
    EXPECT_EQ(outcome(cache->pin(key, "v", 0).error), "ENOENT");
    EXPECT_EQ(outcome(cache->pin(key, "v", UINT64_MAX).error), "EINVAL");
    EXPECT_EQ(readAll(key, size), "right");
    start();
    asked();
    for (int pass = 0; pass < 2; ++pass) {  // from disk and from the table
      for (const uint64_t offset : {uint64_t{0}, uint64_t{70000}, uint64_t{2 * SMALL_BLOCK + 499}}) {
        const PinnedBlock pinned = cache->pin(key, "v", offset);
        ASSERT_EQ(outcome(pinned.error), "success");
        EXPECT_EQ(pinned.length, std::min<uint64_t>(size - offset, SMALL_BLOCK - offset % SMALL_BLOCK));
        EXPECT_EQ(textOf(pinned), bytesOf(key, "v", offset, pinned.length));
        EXPECT_EQ(pinned.objectSize, size);
        EXPECT_EQ(pinned.metadata->at("etag"), "v");
      }
    }
    EXPECT_EQ(cache->pin(key, "v", size).length, 0U);
    EXPECT_EQ(cache->pin(key, "v", 10, 20).length, 20U);
    EXPECT_EQ(cache->metrics().coldHits, 3U);
    const PinnedBlock kept = cache->pin(key, "v", SMALL_BLOCK, 100);
    cache->drop(key, "v", size);
    EXPECT_EQ(outcome(cache->pin(key, "v", SMALL_BLOCK).error), "ENOENT");
    EXPECT_EQ(stage(key, 300), "success");
    EXPECT_EQ(textOf(cache->pin(key, "v", 0)), bytesOf(key, "v", 0, 300));
    cache.reset();
    EXPECT_EQ(textOf(kept), bytesOf(key, "v", SMALL_BLOCK, 100));
    EXPECT_EQ(asked(), 0U);
  }
}

TEST_F(ClientReadTest, NeighboursComeTogetherAndAheadAndAdmissionAndExpiryDecideWhatStays) {
  chosen.maxFetch = 4 * SMALL_BLOCK;
  start();
  const uint64_t size = 10 * SMALL_BLOCK;
  EXPECT_EQ(read("key", size, 5 * SMALL_BLOCK, 1), "right");
  EXPECT_EQ(readAll("key", size), "right");
  EXPECT_EQ(asked(), 4U);  // 5, then 0 to 3, 4, 6 to 9
  EXPECT_EQ(result.misses, 9U);
  EXPECT_EQ(result.hits, 1U);

  chosen.prefetchBlocks = 2;
  start();
  for (uint64_t at = 0; at < 6 * SMALL_BLOCK; at += SMALL_BLOCK / 2)
    EXPECT_EQ(read("read on", 6 * SMALL_BLOCK, at, SMALL_BLOCK / 2), "right");
  EXPECT_EQ(asked(), 3U);  // 0, then 1 to 3, then 4 and 5
  EXPECT_EQ(cache->metrics().prefetchedBlocks, 3U);

  chosen.admit = [](const Admission& asked) { return asked.objectSize < 1000 || asked.uses >= 2; };
  start();
  EXPECT_EQ(readAll("small", 999), "right");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(readAll("large", 5000), "right");
  EXPECT_EQ(asked(), 3U);  // large ones from their second use on
  EXPECT_EQ(cache->metrics().refusedAdmission, 1U);

  chosen.maxAge = std::chrono::hours(1);
  start();
  EXPECT_EQ(readAll("young", 100), "right");
  EXPECT_EQ(readAll("young", 100), "right");
  EXPECT_EQ(asked(), 1U);
  chosen.maxAge = std::chrono::seconds(1);
  start();
  EXPECT_TRUE(eventually([&] { return readAll("young", 100) == "right" && asked() > 0; }));
  EXPECT_GE(cache->metrics().expiredBlocks, 1U);
}

TEST_F(ClientReadTest, MetricsAreOneTextThatAddsUp) {
  start();
  EXPECT_EQ(readAll("key", 100), "right");
  for (int i = 0; i < 32; ++i) EXPECT_EQ(readAll("key", 100), "right");
  std::string text;
  cache->renderMetrics(text);
  for (const char* line :
       {"diskcache_client_hits_total{from=\"memory\"} 29\n",
        "diskcache_client_hits_total{from=\"table\"} 2\n", "diskcache_client_hot_bytes 164\n",
        "diskcache_client_misses_total 1\n", "# TYPE diskcache_client_hit_seconds histogram\n",
        "diskcache_client_miss_seconds_count 1\n", "diskcache_client_hit_seconds_count 2\n",
        "diskcache_writes_total{operation=\"create\",outcome=\"done\"} 1\n", "diskcache_segments 1\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
  EXPECT_EQ(faultOf(text), "");
  EXPECT_NE(faultOf(text + text), "");
  EXPECT_NE(faultOf(text + "diskcache_client_hits_total{from=\"table\"} x\n"), "");
}

}  // namespace
}  // namespace ObjectStore
