// Eight threads do at random what clients do, beside restarts and volumes that move; every byte is compared with what
// it must be.
#include <random>
#include <thread>

#include "tests/support/clientFixture.h"
#include "tests/support/soak.h"

namespace ObjectStore {
namespace {

class ClientModelTest : public ClientTest {
 protected:
  static constexpr int KEYS = 40;
  static uint64_t sizeOf(size_t key) { return key * key * 181 % 300000; }

  void readOne(std::minstd_rand& random) {
    const size_t number = random() % KEYS;
    const std::string key = std::to_string(number), version = std::to_string(random() % 2);
    const uint64_t size = sizeOf(number), from = size == 0 ? 0 : random() % size;
    ReadResult got;
    EXPECT_EQ(readInto(got, key, size, from, random() % 200000, version), "right")
        << key << got.error.AsString();
  }
  void stageOne(std::minstd_rand& random) {
    const size_t number = random() % KEYS;
    const std::string told = stage(std::to_string(number), sizeOf(number), std::to_string(random() % 2));
    EXPECT_TRUE(told == "success" || told == "ENOSPC" || told == "EBUSY") << told;
  }
  // As soon as nothing is staged for a moment.
  std::string move(const std::string& volume, const std::string& destination) {
    for (;;) {
      const std::string told = outcome(cache->moveVolume(volume, destination));
      if (told != "EBUSY") return told;
      std::this_thread::yield();
    }
  }
  void work(unsigned seed, size_t operations) {
    std::minstd_rand random(seed);
    for (size_t i = 0; i < operations && !HasFailure(); ++i) {
      const auto choice = random() % 100;
      if (choice < 90) {
        readOne(random);
      } else if (choice < 95) {
        if (i > operations / 2) stageOne(random);  // the move begins before
      } else if (choice < 97) {
        const std::string told = outcome(cache->discardStaged(std::to_string(random() % KEYS), "1"));
        EXPECT_TRUE(told == "success" || told == "ENOENT") << told;
      } else if (choice < 99) {
        const size_t number = random() % KEYS;
        cache->drop(std::to_string(number), "1", sizeOf(number));
      } else {
        std::string text;
        cache->renderMetrics(text);
      }
    }
  }
};

TEST_F(ClientModelTest, EightThreadsRestartsAndMoves) {
  const size_t operations = soaked(250);
  ObjectCacheOptions chosen = options(2);
  chosen.maxBytes = 3 << 20;
  chosen.hotBlocks = 40;
  chosen.prefetchBlocks = 1;
  for (unsigned life = 0; life < 4; ++life) {
    chosen.verify = static_cast<Verify>(life % 3);
    chosen.maxHotBytes = life % 2 == 0 ? 17 * 1024 : 60'000;
    start(chosen);
    const auto uploadUnlessGivenUp = [](const StagedObject& object) {
      std::string bytes(object.size, 'x');
      const CZuError error = object.read(0, std::as_writable_bytes(std::span(bytes)));
      const bool isGivenUp = RMErrorUtil::GetErrNo(error) == ENOENT;
      EXPECT_TRUE(isGivenUp || bytes == bytesOf(object.key, object.version, 0, object.size));
      return error;
    };
    ASSERT_EQ(outcome(cache->flush(uploadUnlessGivenUp, 2)), "success");
    {
      std::vector<std::jthread> threads;
      for (unsigned t = 0; t < 8; ++t)
        threads.emplace_back([=, this] { work(life * 8 + t + 1, operations); });
      const std::string destination = dir / "moved" + std::to_string(life);
      EXPECT_EQ(move(chosen.volumes[life % 2], destination), "success");
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
