// Write-back: staging, flushing, and what survives.
#include <sys/wait.h>

#include <future>
#include <mutex>
#include <set>

#include "tests/support/clientFixture.h"
#include "tests/support/faults.h"

namespace ObjectStore {
namespace {

using ClientStageTest = ClientTest;

auto soon() { return std::chrono::steady_clock::now() + LONGEST_WAIT; }

TEST_F(ClientStageTest, StagedObjectsAreReadAtOnceSurviveAndAreFlushedInOrder) {
  chosen = options(2);
  chosen.maxBytes = 40 * SMALL_BLOCK;
  start();
  const std::vector<size_t> sizes = {0, 1, SMALL_BLOCK, 3 * SMALL_BLOCK + 1};
  EXPECT_EQ(readAll("size 65536", SMALL_BLOCK), "right");  // the prunable copy gives way
  for (const size_t size : sizes) EXPECT_EQ(stage("size " + std::to_string(size), size), "success");
  EXPECT_EQ(stage("size 1", 1), "success");  // again
  for (size_t i = 0; i < sizes.size(); ++i) EXPECT_EQ(cache->stagedObjects().at(i)->size, sizes[i]);
  EXPECT_FALSE(cache->drained(std::chrono::steady_clock::now()));
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(cache->staged().objects, 4U);
    EXPECT_EQ(cache->staged().bytes, 4 * SMALL_BLOCK + 2U);
    // Pruning leaves them alone, and so does who drops them.
    cache->drop("size 1", "v", 1);
    for (int i = 0; i < 60; ++i) EXPECT_EQ(readAll("other" + std::to_string(i), SMALL_BLOCK), "right");
    asked();
    for (const size_t size : sizes) EXPECT_EQ(readAll("size " + std::to_string(size), size), "right");
    EXPECT_EQ(asked(), 0U);
    start();
  }
  std::multiset<size_t> uploaded;
  const auto note = [&](const StagedObject& object) {
    uploaded.insert(object.size);
    return upload(object);
  };
  EXPECT_EQ(outcome(cache->flush(note, 0)), "success");
  EXPECT_EQ(uploaded, std::multiset<size_t>(sizes.begin(), sizes.end()));
  EXPECT_TRUE(cache->drained(soon()));
  EXPECT_TRUE(files("staged").empty());
  EXPECT_EQ(readAll("size 196609", 196609), "right");
  EXPECT_EQ(asked(), 0U);  // prunable now, and still there
  for (int i = 0; i < 60; ++i) EXPECT_EQ(readAll("more" + std::to_string(i), SMALL_BLOCK), "right");
  asked();
  EXPECT_EQ(readAll("size 65536", SMALL_BLOCK), "right");
  EXPECT_EQ(asked(), 1U);
}

TEST_F(ClientStageTest, FailedUploadsAreTriedAgainByWorkersThatCloseEnds) {
  start();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(stage(std::to_string(i), 1000), "success");
  std::mutex mutex;
  std::set<std::string> failed;
  const auto failOnce = [&](const StagedObject& object) {
    {
      const std::lock_guard lock(mutex);
      if (object.key.size() == 1 && failed.insert(object.key).second) throw std::runtime_error("once");
    }
    return upload(object);
  };
  EXPECT_EQ(outcome(cache->flush(failOnce, 3)), "success");
  EXPECT_EQ(outcome(cache->flush(failOnce, 3)), "EALREADY");
  EXPECT_TRUE(cache->drained(soon()));
  EXPECT_EQ(cache->metrics().failedUploads, 10U);
  EXPECT_EQ(cache->metrics().uploadedObjects, 20U);
  EXPECT_EQ(stage("later", 5), "success");
  EXPECT_TRUE(cache->drained(soon()));
  cache->close();
  EXPECT_EQ(stage("closed", 5), "EBADF");
}

// A kill at each call leaves what is staged, and what is given up, whole or not there.
TEST_F(ClientStageTest, WhatIsGivenUpStaysSoAndAKillLeavesAllOrNothing) {
  const size_t size = 3 * SMALL_BLOCK;
  bool isGivenUp = false;
  size_t whole = 0;
  for (size_t call = 1; !isGivenUp; ++call) {
    ASSERT_LT(call, 200U);
    start();
    EXPECT_EQ(stage("key", size), "success");
    cache.reset();
    const pid_t child = fork();
    if (child == 0) {
      if (openWith(options()) != "success") _exit(1);
      FaultPlan plan;
      plan.killAt(call);
      const bool isSuccess =
          stage("other", SMALL_BLOCK + 1) == "success" && !cache->discardStaged("key", "v").IsError();
      plan.clearFaults();
      _exit(isSuccess ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    isGivenUp = WIFEXITED(status);
    EXPECT_TRUE(!isGivenUp || WEXITSTATUS(status) == 0);
    start();
    const size_t isThere = cache->stagedObjects("key").size(), isNew = cache->stagedObjects("other").size();
    EXPECT_EQ(files("staged").size(), 3 * isThere + 2 * isNew);
    for (const auto& object : cache->stagedObjects()) EXPECT_EQ(outcome(upload(*object)), "success");
    EXPECT_EQ(outcome(cache->discardStaged("other", "v")), isNew ? "success" : "ENOENT");
    whole += isThere + isNew;
    EXPECT_FALSE(isGivenUp && (isThere || !isNew));
  }
  EXPECT_GT(whole, 3U);
  FaultPlan plan;
  EXPECT_EQ(stage("key", size), "success");
  plan.failAlways("unlink", EIO);
  EXPECT_EQ(outcome(cache->discardStaged("key", "v")), "EIO");
  EXPECT_EQ(cache->staged().bytes, size);  // as it was
  EXPECT_EQ(readAll("key", size), "right");
  plan.clearFaults();
  plan.takeTrace();
  EXPECT_EQ(outcome(cache->discardStaged("key", "v")), "success");
  EXPECT_EQ(plan.count("fsync"), 1U);
  EXPECT_EQ(cache->metrics().usedBytes, 0U);
  EXPECT_EQ(outcome(cache->discardStaged("key", "v")), "ENOENT");
}

TEST_F(ClientStageTest, AnUploadUnderWayCountsNoMoreWhenItsObjectIsGivenUp) {
  start();
  std::promise<void> began, mayGoOn;
  std::vector<std::string> read;
  const auto upload = [&](const StagedObject& object) {
    if (read.empty()) {
      began.set_value();
      mayGoOn.get_future().wait();
    }
    read.push_back(outcome(object.read(0, {})));
    return CZuError();
  };
  EXPECT_EQ(stage("key", 1000), "success");
  EXPECT_EQ(outcome(cache->flush(upload, 1)), "success");
  began.get_future().wait();
  EXPECT_EQ(outcome(cache->discardStaged("key", "v")), "success");
  EXPECT_EQ(stage("key", 1000), "success");  // anew: what comes of the first upload is not this one's
  mayGoOn.set_value();
  EXPECT_TRUE(cache->drained(soon()));
  EXPECT_EQ(read, (std::vector<std::string>{"ENOENT", "success"}));
  EXPECT_EQ(cache->metrics().uploadedObjects, 1U);
}

// The first of two blocks is damaged, or was never finished: then the object was never staged, and goes.
TEST_F(ClientStageTest, AStagedBlockThatIsDamagedIsKeptForWhoCanSaveIt) {
  const size_t size = SMALL_BLOCK + 1;
  static constexpr size_t PAYLOAD = 136, TRAILER = PAYLOAD + 16 + SMALL_BLOCK;  // where their records begin
  const struct {
    const char* how;
    void (*change)(std::string& bytes);
    bool isKept;
  } cases[] = {{"payload", [](auto& bytes) { bytes[1000] ^= 1; }, true},
               {"trailer", [](auto& bytes) { bytes.back() ^= 1; }, true},
               {"header", [](auto& bytes) { bytes.front() ^= 1; }, true},
               {"the trailer's place", [](auto& bytes) { bytes[19] ^= 1; }, true},
               {"the payload's length", [](auto& bytes) { bytes[PAYLOAD + 8] ^= 1; }, true},
               {"the trailer's length", [](auto& bytes) { bytes[TRAILER + 9] ^= 1; }, true},
               {"no front", [](auto& bytes) { bytes.replace(TRAILER, 16, 16, '\0'); }, false},
               {"cut", [](auto& bytes) { bytes.pop_back(); }, false},
               {"no trailer", [](auto& bytes) { bytes.resize(SMALL_BLOCK); }, false},
               {"zeros at its end", [](auto& bytes) { bytes.replace(bytes.size() - 8, 8, 8, '\0'); }, false},
               {"first sector", [](auto& bytes) { bytes.replace(0, 512, 512, '\0'); }, true},
               {"zeros", [](auto& bytes) { bytes.assign(bytes.size(), '\0'); }, false}};
  std::string all(size, 'x');
  const auto take = [&](const StagedObject& object) {
    return object.read(0, std::as_writable_bytes(std::span(all)));
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.how);
    start();
    EXPECT_EQ(stage("key", size), "success");
    const std::string path = files("staged").at(0);
    std::string bytes = readFile(path);
    c.change(bytes);
    writeFile(path, bytes);
    EXPECT_EQ(readAll("key", size), "right");
    EXPECT_EQ(outcome(cache->flush(take, 0)), "EIO");
    EXPECT_TRUE(files().empty());
    for (int pass = 0; pass < 2; ++pass) {
      start();
      EXPECT_EQ(cache->staged().objects, c.isKept ? 1U : 0U);
      EXPECT_EQ(files("staged").size(), c.isKept ? 2U : 0U);
      EXPECT_EQ(outcome(cache->flush(take, 0)), c.isKept ? "EIO" : "success");
    }
    EXPECT_EQ(stage("key", size), "success") << "by who has the right bytes still";
    EXPECT_EQ(outcome(cache->flush(take, 0)), "success");
    cache->drop("key", "v", size);
  }
}

TEST_F(ClientStageTest, WhatAStartCannotLookAtIsThereAtTheNextOne) {
  const size_t size = SMALL_BLOCK + 1;
  const ObjectCacheOptions both = options(2);
  start(both);
  const auto flushed = [&](const std::string& key) {
    start(both);
    EXPECT_EQ(cache->staged().objects, 1U) << key;
    EXPECT_EQ(outcome(cache->flush([](const auto& object) { return upload(object); }, 0)), "success") << key;
    EXPECT_TRUE(files("staged").empty());
  };
  for (const auto& volume : both.volumes) {
    EXPECT_EQ(stage(volume, size), "success");
    ObjectCacheOptions one = both;
    one.volumes = {volume};
    start(one);
    {
      FaultPlan plan;
      plan.failAlways("write", EIO);
      EXPECT_EQ(stage(volume, size), "EIO") << "what lies on the other one";
    }
    flushed(volume);
  }
  for (const int errNo : {EIO, ENOMEM}) {
    for (const std::string call : {"pread", "readdir"}) {
      EXPECT_EQ(stage(call, size, std::to_string(errNo)), "success");
      {
        FaultPlan plan;
        plan.failAlways(call, errNo);
        if (call == "pread") plan.failAlways("preadv", errNo);
        EXPECT_EQ(openWith(both), errNo == EIO ? "success" : "ENOMEM");
        EXPECT_EQ(cache->staged().objects, 0U);
        cache->drop(call, std::to_string(errNo), size);
      }
      flushed(call);
    }
  }
  // Staged again while its volume was away, and now it is back.
  EXPECT_EQ(stage("key", 1000), "success");
  cache.reset();
  const std::string path = files("staged").at(0), there = dir / "vol1", other = dir / "vol2";
  const bool isThere = path.starts_with(there);
  const std::string copy = (isThere ? other : there) + path.substr(there.size());
  writeFile(copy, readFile(path));
  flushed("key");
  // The second time was cut short, and the first one is damaged.
  EXPECT_EQ(stage("key", 1000), "success");
  cache.reset();
  const std::string first = files("staged").at(0), bytes = readFile(first);
  writeFile(first, std::string(bytes).replace(200, 1, 1, static_cast<char>(bytes[200] ^ 1)));
  writeFile((first.starts_with(there) ? other : there) + first.substr(there.size()), bytes.substr(0, 500));
  start(both);
  EXPECT_EQ(cache->staged().objects, 1U);
  EXPECT_EQ(stage("key", 1000), "success");
  EXPECT_EQ(readFile(first).size(), bytes.size());
}

TEST_F(ClientStageTest, WantOfDescriptorsOrMemoryGivesNothingUp) {
  const size_t size = 2 * SMALL_BLOCK;
  start();
  for (const auto& [call, errNo] : {std::pair{"open", EMFILE}, {"pread", EIO}}) {
    EXPECT_EQ(stage("key", size), "success");
    FaultPlan plan;
    plan.failAlways(call, errNo);
    EXPECT_EQ(stage("key", size), "EIO") << call;
    plan.clearFaults();
    EXPECT_EQ(files("staged").size(), 2U) << call;
  }
  size_t opens = 0;
  {
    const FaultPlan plan;
    start();
    opens = plan.count("open");
  }
  for (size_t nth = 1; nth <= opens; ++nth) {
    FaultPlan plan;
    plan.fail("open", nth, EMFILE);
    EXPECT_TRUE(openWith(chosen) != "success" || cache->staged().objects == 1) << nth;
  }
  start();
  EXPECT_EQ(outcome(cache->discardStaged("key", "v")), "success");
  const std::string bytes(size, 'x');
  for (size_t nth = 1, isOver = 0; isOver == 0; ++nth) {
    CZuError error;
    {
      const FailingNew failing(nth);
      error = cache->stage("key", "v", std::as_bytes(std::span(bytes)));
      isOver = failing.happened() ? 0 : 1;
    }
    EXPECT_EQ(files("staged").size(), error.IsError() ? 0U : 2U) << nth;
    EXPECT_TRUE(error.IsError() || outcome(cache->discardStaged("key", "v")) == "success") << nth;
  }
}

TEST_F(ClientStageTest, WhatCannotBeStagedLeavesNothing) {
  chosen.maxBytes = 4 * SMALL_BLOCK;
  start();
  EXPECT_EQ(stage("too large", 5 * SMALL_BLOCK), "ENOSPC");
  EXPECT_TRUE(files("staged").empty());
  for (const char* call : {"fsync", "write", "mkdir"}) {
    FaultPlan plan;
    plan.failAlways(call, EIO);
    EXPECT_EQ(stage("key", 2 * SMALL_BLOCK), "EIO") << call;
    plan.clearFaults();
    EXPECT_TRUE(files("staged").empty());
  }
  EXPECT_EQ(cache->metrics().usedBytes, 0U);
  EXPECT_EQ(cache->staged().objects, 0U);
  EXPECT_EQ(stage("key", 2 * SMALL_BLOCK), "success");
  chosen.blockSize = 2 * SMALL_BLOCK;
  EXPECT_EQ(openWith(chosen), "EINVAL");  // staged in other blocks
}

}  // namespace
}  // namespace ObjectStore
