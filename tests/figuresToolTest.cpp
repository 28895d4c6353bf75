// What diskcachectl makes of figures: sizes and ages as text, a replay's percentiles, and lengths of identifiers.
#ifdef DISKCACHECTL_PATH
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <numeric>

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
  EXPECT_EQ(nlohmann::json::parse(asJson(report))["latency_us"]["hit"],
            (nlohmann::json{{"p50", 51}, {"p90", 91}, {"p99", 100}, {"max", 101}}));
  EXPECT_EQ(report.tally.firstFailure, "first");
}

}  // namespace
}  // namespace diskcachectl
#endif
