// The engine's page of metrics: each figure after operations whose outcome is known.
#include <algorithm>

#include "diskcache/diskcacheSpace.h"
#include "support/metricsText.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"
#include "tests/support/metricsFault.h"

namespace ObjectStore {
namespace {

class MetricsTest : public EngineTest {
 protected:
  MetricsTest() {
    options.maxLruEntries = 5;
    options.prunerCallback = [this](auto& /*dir*/, auto& /*path*/, auto& guid) {
      return !remove(guid).IsError();
    };
  }
  void TearDown() override { cache.reset(); }

  std::string page() {
    std::string text;
    cache->renderMetrics(text);
    EXPECT_EQ(faultOf(text), "") << text;
    return '\n' + text;
  }
  // -1 for one that is not told.
  double metric(const std::string& name) {
    const std::string text = page();
    const size_t at = text.find("\ndiskcache_" + name + ' ');
    return at == std::string::npos ? -1
                                   : std::stod(text.substr(text.find_last_of(' ', text.find('\n', at + 1))));
  }
  double writes(const std::string& operation, const std::string& outcome) {
    return metric("writes_total{operation=\"" + operation + "\",outcome=\"" + outcome + "\"}");
  }
  // Of all engines in this process: only the difference tells.
  double errors(int number) {
    return std::max(
        metric("errors_total{errno=\"" + std::to_string(number) + "\",name=\"" + outcome(number) + "\"}"),
        0.0);
  }
  double ofVolume(const std::string& name) {
    return metric("volume_" + name + "{index=\"1\",directory=\"" + MetricsText::escaped(volumes[0]) + "\"}");
  }
  // Segments on the disk, by a walk.
  double segmentFiles() {
    double files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(volumes[0]))
      files += entry.is_regular_file() && entry.path().string().find("/recycle/") == std::string::npos;
    return files;
  }
};

TEST_F(MetricsTest, EachOperationCountsWhereItBelongs) {
  options.volumesIn = dir / "a \"b\\c";
  start();
  using Figures = std::vector<double>;
  const auto figures = [&] {
    Figures all{metric("list_hits_total"), metric("list_misses_total"),
                metric("evictions_total{by=\"list\"}")};
    for (const char* outcome : {"done", "no_room", "failed"}) all.push_back(writes("create", outcome));
    for (const char* outcome : {"done", "failed"}) all.push_back(writes("write", outcome));
    all.push_back(writes("replace", "done"));
    for (const int number : {ENOENT, EEXIST, EINVAL, ENOSPC}) all.push_back(errors(number));
    return all;
  };
  const auto look = [&](const guid_t& guid) { return get(guid), CZuError(); };
  const auto make = [&](const guid_t& guid) { return create(guid, {section(0, "text")}); };
  const auto change = [&](const guid_t& guid) { return write(guid, {section(0, "TEXT")}); };
  const auto makeInFullCache = [&] {
    cache->setOutOfSpace(true);
    CZuError error = make("ffff");
    cache->setOutOfSpace(false);
    return error;
  };
  const auto replace = [&] { return cache->replaceSegment(ctx, "eeee", {section(0, "new")}); };
  for (const char* guid : {"aaaa", "bbbb", "cccc", "dddd", "eeee"}) put(guid, "text");
  const auto readCut = [&] { return FaultPlan().fail("fread", 3, EINVAL), operationsOn("aaaa")[2].run(); };
  const auto recycle = [&] { return FaultPlan().fail("rename", 1, EINVAL), remove("aaaa", Recycle::Yes); };
  std::vector<SectionPlace> places(1);
  int fd = -1;
  const std::tuple<std::string, std::string, Figures, std::function<CZuError()>> cases[] = {
      {"a hit", "success", {1}, [&] { return look("aaaa"); }},
      {"a payload in part", "EINVAL", {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, readCut},
      {"not recycled", "EINVAL", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, recycle},
      {"missed, so bbbb goes", "success", {0, 1, 1, 0, 0, 0, 0, 0, 0, 1}, [&] { return look("none"); }},
      {"a miss asked for", "ENOENT", {}, [&] { return cache->openSection(fd, places, ctx, "gone"); }},
      {"there already", "EEXIST", {0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}, [&] { return make("aaaa"); }},
      {"a bad name", "EINVAL", {0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1}, [&] { return make("a/b"); }},
      {"a write", "success", {1, 0, 0, 0, 0, 0, 1}, [&] { return change("aaaa"); }},
      {"a write to none", "ENOENT", {1, 0, 0, 0, 0, 0, 0, 1, 0, 1}, [&] { return change("none"); }},
      {"a replacement", "success", {1, 0, 0, 0, 0, 0, 0, 0, 1}, replace},
      {"full, so cccc goes", "ENOSPC", {0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}, makeInFullCache},
  };
  for (const auto& [name, result, risen, call] : cases) {
    Figures expected = figures();
    for (size_t i = 0; i < risen.size(); ++i) expected[i] += risen[i];
    EXPECT_EQ(outcome(call()), result) << name;
    EXPECT_EQ(figures(), expected) << name;
  }
  EXPECT_EQ(metric("segments"), 3);
  EXPECT_EQ(metric("recency_list_entries_limit"), 5);
  EXPECT_EQ(metric("high_watermark_ratio"), FAR_WM / 100.0);
  EXPECT_EQ(metric("mode_info{mode=\"lru\"}"), 1);
  space().stats().delayMs += 1'234'567'890;
  EXPECT_EQ(metric("write_delay_seconds_total"), 1'234'567.89);
  EXPECT_EQ(ofVolume("capacity_bytes"), fs::space(volumes[0]).capacity);
  EXPECT_EQ(ofVolume("has_room"), 1);
  EXPECT_EQ(ofVolume("present"), 1);
  FaultPlan plan;
  plan.failAlways("statvfs", EIO);
  EXPECT_EQ(ofVolume("present"), 0);
  EXPECT_EQ(ofVolume("free_bytes"), -1);
}

TEST_F(MetricsTest, SegmentsAreThoseOnDiskAlsoAfterARestart) {
  options.maxLruEntries = 100;
  ctx.useNonPrunableDir = true;
  start();
  const std::function<void()> steps[] = {
      [&] {
        for (const char* guid : {"aaaa", "bbbb", "cccc", "dddd", "eeee"}) put(guid, "text");
      },
      [&] { (void)remove("aaaa"); },
      [&] { (void)cache->markDirty(ctx, "bbbb", false); },
      [&] { (void)cache->markDirty(ctx, "cccc", true); },
      [&] { (void)cache->moveToPrunable(ctx, "bbbb"); },
      [&] { (void)remove("dddd", Recycle::Yes); },
      [&] { start(); },
      [&] { (void)remove("bbbb"); },
      [&] { (void)cache->clearCache(); },
      [&] { put("aaaa", "text"); },
  };
  for (const auto& step : steps) {
    step();
    EXPECT_EQ(metric("segments"), segmentFiles()) << "after step " << &step - steps;
  }
  options.mode = PruningMode::Random, options.maxLruEntries = 5;  // where nobody counts what is there
  start();
  for (const char* guid : {"1", "2", "3", "4", "5", "6"}) put(guid, "text");
  EXPECT_EQ(metric("recency_list_entries"), 5) << "one was forgotten";
  EXPECT_EQ(page().find("diskcache_segments"), std::string::npos);
  EXPECT_EQ(metric("mode_info{mode=\"random\"}"), 1);
}

}  // namespace
}  // namespace ObjectStore
