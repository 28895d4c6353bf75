// Eight threads do at random what clients do, beside restarts and volumes that move; every byte is compared with what
// it must be.
#include <random>
#include <thread>

#include "tests/support/clientFixture.h"
#include "tests/support/soak.h"

namespace ObjectStore {
namespace {

struct ClientModelTest : ClientTest {
  void work(unsigned seed, size_t operations) {
    std::minstd_rand random(seed);
    for (size_t i = 0; i < operations && !HasFailure(); ++i) {
      const size_t choice = random() % 100, number = random() % 40;
      const std::string key = std::to_string(number), version = std::to_string(random() % 2);
      const uint64_t size = number * number * 181 % 300000, from = size == 0 ? 0 : random() % size;
      if (choice < 90) {
        EXPECT_EQ(read(key, size, from, random() % 200000, version), "right")
            << key << result.error.AsString();
      } else if (choice < 95) {
        if (i <= operations / 2) continue;  // the move begins before
        const std::string told = stage(key, size, version);
        EXPECT_TRUE(told == "success" || told == "ENOSPC" || told == "EBUSY") << told;
      } else if (choice < 97) {
        const std::string told = outcome(cache->discardStaged(key, version));
        EXPECT_TRUE(told == "success" || told == "ENOENT") << told;
      } else if (choice < 99) {
        cache->drop(key, version, size);
      } else {
        std::string text;
        cache->renderMetrics(text);
      }
    }
  }
};

TEST_F(ClientModelTest, EightThreadsRestartsAndMoves) {
  const size_t operations = soaked(250);
  chosen = options(2);
  chosen.maxBytes = 3 << 20;
  chosen.hotBlocks = 40;
  chosen.prefetchBlocks = 1;
  for (unsigned life = 0; life < 4; ++life) {
    chosen.verify = static_cast<Verify>(life % 3);
    chosen.maxHotBytes = life % 2 == 0 ? 17 * 1024 : 60'000;
    start();
    const auto uploadUnlessGivenUp = [](const StagedObject& object) { return upload(object, true); };
    ASSERT_EQ(outcome(cache->flush(uploadUnlessGivenUp, 2)), "success");
    {
      std::vector<std::jthread> threads;
      for (unsigned t = 0; t < 8; ++t)
        threads.emplace_back([=, this] { work(life * 8 + t + 1, operations); });
      const std::string destination = dir / "moved" + std::to_string(life);
      std::string told = "EBUSY";  // until nothing is staged for a moment
      while (told == "EBUSY") told = outcome(cache->moveVolume(chosen.volumes[life % 2], destination));
      EXPECT_EQ(told, "success");
      fs::remove_all(std::exchange(chosen.volumes[life % 2], destination));
    }
    EXPECT_TRUE(cache->drained(std::chrono::steady_clock::now() + LONGEST_WAIT));
    const ObjectCacheMetrics metrics = cache->metrics();
    EXPECT_LE(metrics.peakBytes, chosen.maxBytes);
    EXPECT_LE(metrics.hotBlocks, chosen.hotBlocks);
    EXPECT_LE(metrics.hotBytes, chosen.maxHotBytes);
    EXPECT_GT(metrics.memoryHits, 0U);
    EXPECT_GT(metrics.evictedBlocks, 50U);
    EXPECT_GT(metrics.hotHits + metrics.coldHits, 100U);
    EXPECT_EQ(metrics.damagedBlocks, 0U);
    uint64_t onDisk = 0;
    for (const std::string& path : files()) onDisk += (fs::file_size(path) + 4095) / 4096 * 4096;
    EXPECT_EQ(metrics.usedBytes, onDisk);  // nothing is lost sight of
  }
}

}  // namespace
}  // namespace ObjectStore
