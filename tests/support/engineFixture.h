// A running engine on directories of its own, and short ways to put segments in and look at them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "diskcache/diskcache.h"
#include "tests/support/logCapture.h"
#include "tests/support/outcome.h"
#include "tests/support/tempDir.h"
#include "tests/support/testAccess.h"

namespace ObjectStore {

// A section over a text that outlives it. The operations that take a filled buffer do not write to it.
inline Section section(int32_t type, const std::string& text, int32_t subType = 0, uint64_t offset = 0) {
  Section made;
  made.type = type;
  made.subType = subType;
  made.len = made.bufferSize = text.size();
  made.off = offset;
  made.data = reinterpret_cast<unsigned char*>(const_cast<char*>(text.data()));
  return made;
}

constexpr int FAR_WM = 1000;  // percent; no disk is ever so full, so no write is delayed

struct EngineOptions {
  unsigned volumes = 1;
  PruningMode mode = PruningMode::Lru;  // starts no thread
  PersistentVolumes persistent = PersistentVolumes::No;
  uint64_t maxLruEntries = 1000;
  int lowWM = FAR_WM;
  MigrationCB migrationCallback = nullptr;
  std::string volumesIn = {};  // empty: in the fixture's directory
  PrunerCallback prunerCallback = {};
};

struct SegmentOperation {
  std::string name;
  bool touches;  // the recency list
  std::function<CZuError()> run;
};

struct EngineTest : ::testing::Test {
  using Access = DiskCacheTestAccess;

  // Makes the engine and registers `ctx`; called again, it starts a new engine on the same directories.
  void start() { start(options); }
  void start(const EngineOptions& chosen) {
    cache.reset();
    volumes.clear();
    const std::string parent = chosen.volumesIn.empty() ? dir.path() : chosen.volumesIn;
    for (unsigned i = 1; i <= chosen.volumes; ++i) {
      volumes.push_back(parent + "/vol" + std::to_string(i));
      fs::create_directories(volumes.back());
    }
    cache = std::make_unique<DiskCache>(chosen.persistent);
    ASSERT_EQ(outcome(cache->init(dir / "root", volumes, FAR_WM, chosen.lowWM, FAR_WM, chosen.maxLruEntries,
                                  chosen.migrationCallback, chosen.mode)),
              "success");
    ctx.prunerCallback = chosen.prunerCallback;
    ASSERT_EQ(outcome(cache->registerContext(ctx)), "success");
  }
  static DiskCacheContext makeContext(const std::string& name) {
    DiskCacheContext made;
    made.dir = name;
    made.nonprunableDir = "noprune-" + name;
    return made;
  }

  DiskCacheSpace& space() { return Access::space(*cache); }
  DiskcacheLRU& list() { return Access::lru(*cache); }
  CZuError create(const guid_t& guid, const std::vector<Section>& sections) {
    return cache->createSegment(ctx, guid, sections, false, false, false);
  }
  CZuError write(const guid_t& guid, const std::vector<Section>& sections,
                 ForceDiskLoc force = ForceDiskLoc::Default) {
    return cache->writeSections(ctx, guid, sections, false, force);
  }
  CZuError remove(const guid_t& guid, Recycle recycle = Recycle::No) {
    return cache->deleteSegment(ctx, guid, false, false, recycle);
  }
  // Each operation that tells how it ended, on this segment: first those that need it, the one that makes it last.
  std::vector<SegmentOperation> operationsOn(const guid_t& guid) {
    static const std::string text = "text";
    static const std::vector<Section> in{section(0, text)};
    const auto read = [=, this](bool touches) {
      std::string buffer = "....";
      std::vector<Section> out{section(0, buffer)};
      return cache->readSections(ctx, guid, out, touches);
    };
    const auto readAll = [=, this] {
      std::vector<SectionV> all;
      return cache->readAllSections(ctx, guid, all);
    };
    const auto readWhole = [=, this] {
      std::vector<unsigned char> data;
      return cache->readCompleteSection(ctx, guid, 0, data);
    };
    const auto askSize = [=, this] {
      uint64_t size = 0;
      return cache->getSectionSize(size, ctx, guid, 0, 0);
    };
    return {
        {"readSections", true, [=] { return read(true); }},
        {"readSections, quietly", false, [=] { return read(false); }},
        {"readAllSections", true, readAll},
        {"readCompleteSection", true, readWhole},
        {"getSectionSize", false, askSize},
        {"writeSections", true, [=, this] { return write(guid, in); }},
        {"replaceSegment", true, [=, this] { return cache->replaceSegment(ctx, guid, in); }},
        {"truncateSection", true, [=, this] { return cache->truncateSection(ctx, guid, 0, 0, 1); }},
        {"syncSegment", true, [=, this] { return cache->syncSegment(ctx, guid); }},
        {"copyOverrideSegment", false, [=, this] { return cache->copyOverrideSegment(ctx, guid, false); }},
        {"markDirty", true, [=, this] { return cache->markDirty(ctx, guid, true); }},
        {"moveToPrunable", true, [=, this] { return cache->moveToPrunable(ctx, guid); }},
        {"deleteSegment, recycling", false, [=, this] { return remove(guid, Recycle::Yes); }},
        {"deleteSegment", false, [=, this] { return remove(guid); }},
        {"createSegment", true, [=, this] { return create(guid, in); }}};
  }
  void put(const guid_t& guid, const std::string& text) {
    ASSERT_EQ(outcome(create(guid, {section(0, text)})), "success") << guid;
  }
  // A whole section's payload, or the outcome in brackets: "[ENOENT]".
  std::string get(const guid_t& guid, int32_t type = 0) {
    std::vector<unsigned char> data;
    const CZuError error = cache->readCompleteSection(ctx, guid, type, data);
    return error.IsError() ? '[' + outcome(error) + ']' : std::string(data.begin(), data.end());
  }

  std::string pathOf(const guid_t& guid) { return cache->guid2path(guid, ctx.volume, ctx.dir); }
  std::string nonPrunablePathOf(const guid_t& guid) {
    return cache->guid2path(guid, ctx.volume, ctx.nonprunableDir);
  }
  std::string bytesOf(const guid_t& guid) { return readFile(pathOf(guid)); }
  bool isCached(const guid_t& guid) { return fs::exists(pathOf(guid)); }

  // Declared in the order in which they must live: the engine goes before its log and directories.
  TempDir dir;
  LogCapture log{LogLevel::Segment};
  EngineOptions options;
  std::vector<std::string> volumes;
  DiskCacheContext ctx = makeContext("ctx");
  std::unique_ptr<DiskCache> cache;
};

}  // namespace ObjectStore
