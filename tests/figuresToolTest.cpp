// What diskcachectl makes of figures: sizes and ages as text, a replay's percentiles, and lengths of identifiers.
#ifdef DISKCACHECTL_PATH
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <numeric>
#include <regex>

#include "tools/diskcachectl/common/identifier.h"
#include "tools/diskcachectl/common/units.h"
#include "tools/diskcachectl/replay/report.h"

namespace diskcachectl {
namespace {

TEST(FiguresToolTest, SizesAgesAndNamesAtTheirLimits) {
  const std::pair<uint64_t, const char*> sizes[] = {
      {1023, "1023 B"}, {1024, "1.0 KiB"}, {1048524, "1023.9 KiB"}, {1048525, "1.0 MiB"}};
  for (const auto& [bytes, text] : sizes) EXPECT_EQ(formatSize(bytes), text);
  const std::pair<int64_t, const char*> ages[] = {{-1, "0 s"},    {99, "99 s"},    {100, "1 min"},
                                                  {6000, "1 h"},  {86400, "24 h"}, {172799, "47 h"},
                                                  {172800, "2 d"}};
  for (const auto& [seconds, text] : ages) EXPECT_EQ(formatAge(seconds), text);
  const std::pair<const char*, int64_t> parsed[] = {
      {"30s", 30}, {"90m", 5400}, {"1d", 86400}, {"2w", 1209600}};
  for (const auto& [text, seconds] : parsed) EXPECT_EQ(parseAge(text).count(), seconds);
  for (const size_t size : {254U, 255U, 256U})
    EXPECT_EQ(whyRefused(std::string(size, 'i')).empty(), size <= 255);
}

TEST(FiguresToolTest, PercentilesAreValuesThatWereMeasured) {
  Report report;
  report.tally.hitUs.resize(101);
  std::iota(report.tally.hitUs.begin(), report.tally.hitUs.end(), 1.F);
  for (const char* failure : {"", "first", "last"}) {
    Tally other;
    other.firstFailure = failure;
    report.tally.merge(other);
  }
  report.tally.missUs = {400}, report.tally.bytesRead = 1 << 20;
  report.metrics.storedBytes = 2048, report.metrics.evictedBlocks = 3;
  report.metrics.refusedForRoom = 4, report.metrics.refusedByDisk = 5;
  report.elapsedS = 0.5, report.leftOut = "7 files";
  const nlohmann::json told = nlohmann::json::parse(asJson(report));
  EXPECT_EQ(told["latency_us"]["hit"],
            (nlohmann::json{{"p50", 51}, {"p90", 91}, {"p99", 100}, {"max", 101}}));
  for (const auto& [name, value] :
       {std::pair{"rejected", 9.}, {"pruned", 3.}, {"requests_per_s", 204.}, {"elapsed_s", 0.5}})
    EXPECT_EQ(told[name], value) << name;
  EXPECT_EQ(
      std::regex_replace(asTable(report), std::regex(" +"), " "),
      "requests 102\nhits 101\nmisses 1\nhit ratio 99.02 %\nrejected 9\nbytes read 1.0 MiB\nbytes written "
      "2.0 KiB"
      "\npruned 3\nwrong bytes 0\nrequests/s 204\nlatency us p50 p90 p99 max\n hit 51.0 91.0 100.0 101.0"
      "\n miss 400.0 400.0 400.0 400.0\nleft out: 7 files\n");
  EXPECT_EQ(report.tally.firstFailure, "first");
}

}  // namespace
}  // namespace diskcachectl
#endif
