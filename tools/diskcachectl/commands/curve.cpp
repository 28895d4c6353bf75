// diskcachectl curve: the hit ratio of every cache size, from a trace.
#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "common/progress.h"
#include "common/units.h"
#include "curve/hitCurve.h"
#include "curve/picture.h"
#include "curve/traceReader.h"

namespace diskcachectl::curve {
namespace {

constexpr const char* HELP =
    R"(Tells in one pass over a trace what share of its requests a cache of each size would answer that gives up the least recently used object: a cache bounded in entries exactly as "replay --mode lru" does, and the bytes of the smallest cache, bounded in bytes, that has no lower hit ratio (exact while objects keep their sizes). A request for another size than the last one is a miss, unless --by-id says that sizes are those of requests. The trace is read line by line, and memory grows with the objects, some 60 bytes each; - is standard input. --json prints a point for every size from one object to all of them, or --points of them.

--sample takes only the requests for a share of the objects, chosen by a hash of their names: for traces whose objects do not fit into memory. Sizes are then multiples of one sampled object, and the standard error of the hit ratio is told, on standard error with --json.

Exit status: 0 success, 2 bad input, 3 an error of the system.

Example:
  diskcachectl curve --trace /tmp/trace --picture /tmp/curve.svg)";

constexpr uint64_t ROWS = 20;          // of a table
constexpr uint64_t DRAWN = 400;        // points of a picture
constexpr uint64_t SHOW_EVERY = 4096;  // requests

struct Options {
  std::string trace;
  double share = 1;
  bool isById = false;
  uint64_t points = 0;
  std::string picture;
  bool isJson = false;
};

bool isPng(const std::string& path) { return path.ends_with(".png"); }

std::string whyNoPicture(const std::string& path) {
  return isPng(path) || path.ends_with(".svg") ? "" : "\"" + path + "\" ends neither with .svg nor with .png";
}

std::string whyNoShare(const std::string& text) {
  char* end = nullptr;
  const double share = std::strtod(text.c_str(), &end);
  return *end == '\0' && share > 0 && share <= 1 ? "" : "\"" + text + "\" is no share above 0 and up to 1";
}

std::vector<CurvePoint> pointsOf(const HitCurve& curve, uint64_t most) {
  std::vector<CurvePoint> points;
  for (const uint64_t size : curve.sizes(most)) points.push_back(curve.at(size));
  return points;
}

void draw(const Options& options, const HitCurve& curve) {
  const auto points = pointsOf(curve, DRAWN);
  const std::string title = fmt::format("{}: {} requests for {} objects", options.trace,
                                        formatCount(curve.requests()), formatCount(curve.objects()));
  if (isPng(options.picture)) return writePng(points, title, options.picture);
  std::FILE* file = std::fopen(options.picture.c_str(), "we");
  const std::string svg = asSvg(points, title);
  const bool isWritten = file != nullptr && std::fwrite(svg.data(), 1, svg.size(), file) == svg.size();
  if (file == nullptr || std::fclose(file) != 0 || !isWritten) {
    throw Failure(ExitStatus::Error, fmt::format("{}: {}", options.picture, std::strerror(errno)));
  }
}

// Whole objects would take more time and memory than the pass itself.
void printAsJson(const Options& options, const HitCurve& curve) {
  fmt::print("{{\"requests\": {}, \"objects\": {}, \"points\": [", curve.requests(), curve.objects());
  const char* separator = "\n";
  for (const uint64_t size : curve.sizes(options.points)) {
    const CurvePoint point = curve.at(size);
    fmt::print("{}{{\"entries\": {}, \"bytes\": {}, \"hit_ratio\": {}}}", separator, point.entries,
               point.bytes, point.hitRatio);
    separator = ",\n";
  }
  fmt::print("\n]}}\n");
}

void printTable(const Options& options, const HitCurve& curve) {
  fmt::print("{} requests for {} objects\n", formatCount(curve.requests()), formatCount(curve.objects()));
  const bool isSample = options.share < 1;
  fmt::print("{}\n", painted(Colour::Bold, fmt::format("{:>14} {:>12} {:>10}{}", "ENTRIES", "BYTES",
                                                       "HIT RATIO", isSample ? "  STANDARD ERROR" : "")));
  for (const CurvePoint& point : pointsOf(curve, options.points == 0 ? ROWS : options.points)) {
    fmt::print("{:>14} {:>12} {:>8.2f} %", formatCount(point.entries), formatSize(point.bytes),
               point.hitRatio * 100);
    if (isSample) fmt::print("  {:>12.2f} %", point.error * 100);
    fmt::print("\n");
  }
}

void tellError(const HitCurve& curve) {
  double worst = 0;
  for (const CurvePoint& point : pointsOf(curve, DRAWN)) worst = std::max(worst, point.error);
  fmt::print(stderr, "diskcachectl: of a sample: standard error of the hit ratio at most {:.2f} %\n",
             worst * 100);
}

void run(const Options& options) {
  TraceReader reader(options.trace);
  HitCurve curve(options.share, options.isById);
  {
    Progress progress("curve");
    TraceRequest request;
    while (reader.next(request)) {
      curve.request(request.id, request.size);
      if (curve.requests() % SHOW_EVERY != 0) continue;
      progress.show(static_cast<double>(reader.bytesRead()) /
                        static_cast<double>(std::max<uint64_t>(reader.bytes(), 1)),
                    formatCount(curve.requests()) + " requests");
    }
  }
  if (curve.requests() == 0) throw Failure(ExitStatus::BadInput, options.trace + ": holds no request");
  curve.finish();
  if (curve.objects() == 0) {
    throw Failure(ExitStatus::BadInput, options.trace + ": no object is in the sample; give --sample more");
  }
  if (!options.picture.empty()) draw(options, curve);
  if (!options.isJson) return printTable(options, curve);
  printAsJson(options, curve);
  if (options.share < 1) tellError(curve);
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "curve", "Tells the hit ratio of every cache size from a trace",
                                 HELP, [options] { run(*options); });
  command->add_option("--trace", options->trace, "Lines: id,size[,...] or # comment")
      ->required()
      ->type_name("FILE");
  command->add_flag("--by-id", options->isById, "An object has the size of its first request");
  command->add_option("--sample", options->share, "Only this share of the objects, above 0 and up to 1")
      ->type_name("S")
      ->check(CLI::Validator(whyNoShare, ""));
  command
      ->add_option("--points", options->points,
                   "How many sizes to tell of (default: 20, with --json every one)")
      ->type_name("N")
      ->check(CLI::Range(uint64_t{2}, uint64_t{1} << 32).description(""));
  command->add_option("--picture", options->picture, "Draw it: .svg, or .png by gnuplot")
      ->type_name("FILE")
      ->check(CLI::Validator(whyNoPicture, ""));
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::curve
