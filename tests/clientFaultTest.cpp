// Disks that fail, files that are damaged, processes that are killed: right bytes or the origin's error.
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <set>

#include "client/blockTrailer.h"
#include "tests/support/clientFixture.h"
#include "tests/support/faults.h"
#include "tests/support/soak.h"

namespace ObjectStore {
namespace {

using ClientFaultTest = ClientTest;
constexpr uint64_t SIZE = 2 * SMALL_BLOCK + 100;

TEST_F(ClientFaultTest, NoFailingCallOfTheSystemIsTheCallersTrouble) {
  chosen = options(2);
  chosen.maxBytes = 6 * (SMALL_BLOCK + 8192);
  const auto script = [&](int run) {
    const std::string key = "key" + std::to_string(run);
    EXPECT_EQ(readAll(key, SIZE), "right") << run;
    EXPECT_EQ(readAll(key, SIZE), "right") << run;
    EXPECT_EQ(read(key, SIZE, 70000, 1000), "right") << run;
    EXPECT_EQ(readAll("next" + std::to_string(run), SIZE), "right") << run;  // evicts
  };
  start();
  std::set<std::string> calls;
  {
    FaultPlan plan;
    script(-1);
    for (const std::string& call : plan.trace()) calls.insert(call);
  }
  EXPECT_GE(calls.size(), 12U);
  int run = 0;
  for (const std::string& call : calls) {
    for (const int errNo : {EIO, ENOSPC, EROFS, EMFILE, ENOENT, 0}) {  // 0: cut short
      for (const size_t nth : {1U, 2U, 0U}) {                          // 0: from the first one on
        SCOPED_TRACE(call + ' ' + outcome(errNo) + ' ' + std::to_string(nth));
        {
          FaultPlan plan;
          plan.skipSleeps();
          const size_t first = std::max<size_t>(nth, 1);
          errNo == 0 ? plan.shortTransfer(call, first, 5) : plan.fail(call, first, errNo);
          if (nth == 0) plan.forGood();
          script(++run);
          plan.clearFaults();
        }
        script(run);
      }
    }
  }
  EXPECT_GT(cache->metrics().refusedByDisk, 0U);
  // What the faults left behind is found by the next start, and counted.
  start();
  EXPECT_LE(cache->metrics().usedBytes, chosen.maxBytes);
  script(0);
}

// Anywhere, in place and at any moment, also below descriptors that are open.
TEST_F(ClientFaultTest, ReadsOfDamagedFilesAreNeverWrong) {
  chosen.blockSize = 2 * SMALL_BLOCK;  // so that a second chunk is damaged too
  chosen.hotBlocks = 16;
  chosen.maxHotBytes = 17 * 1024;
  start();
  std::minstd_rand random(3);
  const size_t reads = soaked(2000);
  for (size_t i = 0; i < reads; ++i) {
    const size_t object = random() % 20, size = object * object * 400 + 1, from = random() % size;
    ASSERT_EQ(read(std::to_string(object), size, from, random() % 70000), "right") << i;
    if (i % 2 == 0) continue;
    const std::vector<std::string> all = files();
    const std::string& path = all[random() % all.size()];
    const auto length = fs::file_size(path);
    if (random() % 16 == 0) {
      fs::resize_file(path, random() % (length + 100));
    } else if (length > 0) {
      std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
      file.seekp(static_cast<std::streamoff>(random() % 4 == 0 ? random() % std::min<size_t>(length, 200)
                                                               : random() % length));
      file.put(static_cast<char>(random()));
    }
  }
  const ObjectCacheMetrics metrics = cache->metrics();
  EXPECT_GT(metrics.damagedBlocks, reads / 20);
  EXPECT_GT(metrics.memoryHits, 0U);
}

TEST_F(ClientFaultTest, ATrailerComesBackAndNoDamageToItGoesUnnoticed) {
  BlockTrailer trailer;
  trailer.number = 2;
  trailer.blockSize = 1 << 17;
  trailer.objectSize = (2 << 17) + 65537;
  trailer.payloadSize = 65537;
  trailer.madeAt = 0x0102030405;
  trailer.checksums = {0x1111111111111111, 0x2222222222222222};
  trailer.key = "key";
  trailer.version = "v";
  trailer.metadata = {{"a", "xy"}, {"b", ""}};
  const std::vector<std::byte> bytes = encodeTrailer(trailer);
  const auto back = decodeTrailer(bytes);
  ASSERT_TRUE(back);
  EXPECT_EQ(encodeTrailer(*back), bytes);
  for (size_t at = 0; at < bytes.size(); ++at) {
    EXPECT_FALSE(decodeTrailer(std::span(bytes).first(at))) << at;
    std::vector<std::byte> damaged = bytes;
    damaged[at] ^= std::byte{0x10};
    EXPECT_FALSE(decodeTrailer(damaged)) << at;
    // The same with a checksum that fits: no length may be believed, whatever comes of it.
    const uint64_t checksum = checksumOf(std::span(damaged).first(damaged.size() - 8));
    for (unsigned i = 0; i < 8; ++i)
      damaged[damaged.size() - 8 + i] = static_cast<std::byte>(checksum >> (8 * i));
    const bool isAccepted = decodeTrailer(damaged).has_value();
    const bool isTextOrTime = (at >= 32 && at < 40) || at >= 56;
    EXPECT_TRUE(isTextOrTime || !isAccepted) << at;
  }
  BlockTrailer lacking = trailer, endless = trailer;
  lacking.checksums.pop_back();
  endless.metadata["long"] = std::string(MAX_TRAILER_SIZE, 'x');
  for (const BlockTrailer& wrong : {lacking, endless}) EXPECT_FALSE(decodeTrailer(encodeTrailer(wrong)));
}

TEST_F(ClientFaultTest, WhateverStandsInABlocksPlace) {
  start();
  EXPECT_EQ(readAll("key", 1000), "right");
  const std::string path = files().at(0);
  EXPECT_EQ(readAll("other", 1000), "right");
  const std::string other = files().at(files().at(0) == path);
  for (const int kind : {0, 1, 2, 3}) {
    cache->drop("key", "v", 1000);
    EXPECT_EQ(readAll("key", 1000), "right");
    fs::remove(path);
    if (kind == 3) fs::copy(other, path);
    if (kind == 0) fs::create_symlink("/etc/passwd", path);
    if (kind == 1) fs::create_symlink("/nowhere", path);
    if (kind == 2) fs::create_directory(path);
    start();
    asked();
    EXPECT_EQ(readAll("key", 1000), "right") << kind;
    EXPECT_EQ(asked(), 1U);
  }
  fs::remove(path);
}

TEST_F(ClientFaultTest, AKillAnywhereCostsNoObjectAndNoStagedByte) {
  chosen = options(2);
  chosen.maxBytes = 20 * SMALL_BLOCK;
  const std::string told = dir / "told";  // the keys that the children have staged
  const auto live = [&](unsigned life) {
    ASSERT_EQ(openWith(chosen), "success");
    for (unsigned i = 0; i < 4; ++i) {
      const std::string key = std::to_string(life) + "-" + std::to_string(i);
      EXPECT_EQ(readAll("object" + std::to_string((life + i) % 8), SIZE), "right");
      if (stage(key, SIZE) != "success") continue;
      std::ofstream(told, std::ios::app) << key << '\n';
    }
  };
  std::set<std::string> staged;
  std::minstd_rand random(7);
  for (unsigned life = 0; life < soaked(30); ++life) {
    const pid_t child = fork();
    if (child == 0) {
      FaultPlan plan;
      if (life > 0) plan.killAt(1 + random() % 1500);
      live(life);
      plan.clearFaults();
      _exit(0);
    }
    random();
    waitpid(child, nullptr, 0);
    std::ifstream keys(told);
    staged.insert(std::istream_iterator<std::string>(keys), {});
    chosen.maxBytes = (20 + 4 * staged.size()) * SMALL_BLOCK;
  }
  EXPECT_GT(staged.size(), 10U);
  start();
  asked();
  for (const std::string& key : staged) EXPECT_EQ(readAll(key, SIZE), "right") << key;
  EXPECT_EQ(asked(), 0U);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(readAll("object" + std::to_string(i), SIZE), "right");
  for (const auto& object : cache->stagedObjects()) staged.erase(object->key);
  EXPECT_TRUE(staged.empty()) << "all are to be uploaded";
  EXPECT_EQ(outcome(cache->flush([](const auto& object) { return upload(object); }, 0)), "success");
  EXPECT_TRUE(files("staged").empty());
}

}  // namespace
}  // namespace ObjectStore
