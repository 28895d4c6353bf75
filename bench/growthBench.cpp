// What becomes of reads and creates as the cache fills, beside what becomes of the floor's: a directory with
// more entries and a colder inode cost both.
//
// Reported for each number of cached segments: the cache's time over the floor's. For a read that touches the
// recency list the floor also touches a bare list and map of as many entries; for a start, which enters every segment
// into the list, the floor is a bare walk.
#include <algorithm>
#include <memory>
#include <random>

#include "bareList.h"
#include "batch.h"
#include "cacheStore.h"
#include "diskcache/diskcache.h"
#include "floor.h"
#include "frame.h"
#include "walk.h"

using namespace bench;

namespace {

constexpr int ROUNDS = 11;
constexpr int STARTS = 3;
constexpr size_t BATCH = 1000;
constexpr size_t BYTES = 512;  // a million segments are to fit into 3 GiB
constexpr size_t LIST_ENTRIES = 4'000'000;
constexpr int NEVER = 1000;  // a watermark without effect
const std::vector<unsigned char> PAYLOAD(BYTES, 'g');

class Growth {
 public:
  Growth(const std::string& parent, size_t most)
      : m_dir(parent),
        m_volume(volumeOf(m_dir.path())),
        m_guids(makeGuids(most + BATCH)),
        m_quiet(makeCache(m_dir.path(), "quiet", m_guids, {.listEntries = LIST_ENTRIES})),
        m_touching(
            makeCache(m_dir.path(), "touching", m_guids, {.isTouching = true, .listEntries = LIST_ENTRIES})),
        m_read(m_quiet->session()),
        m_touch(m_touching->session()) {}

  void growTo(size_t segments) {
    for (; m_segments < segments; ++m_segments) {
      m_touch->create(m_segments, PAYLOAD, false);
      touchBare(m_segments);
    }
  }

  // Each pass asks for segments of its own, so that none finds what another has just had: in a large cache
  // they are cold for both.
  void compareReads(Figures& figures, uint64_t round, bool isTouching) {
    Session& session = isTouching ? *m_touch : *m_read;
    const auto byHand = [&, isTouching](const Sample& sample, size_t i) {
      if (isTouching) touchBare(sample.segments[i]);
      require(floor::read(sample.places[i], 0, m_buffer), "read");
    };
    const auto byCache = [&](const Sample& sample, size_t i) {
      require(session.read(sample.segments[i], 0, m_buffer), "read");
    };
    const Sample samples[] = {draw(), draw(), draw(), draw()};
    each([&](size_t i) { byHand(samples[0], i); });
    each([&](size_t i) { byCache(samples[1], i); });
    require(std::equal(PAYLOAD.begin(), PAYLOAD.end(), m_buffer.begin()), "wrong bytes");
    compare(
        figures, round, [&](size_t i) { byHand(samples[2], i); }, [&](size_t i) { byCache(samples[3], i); },
        [](size_t) {});
  }

  void compareStarts(Figures& figures) {
    const double byHand = secondsOf([&] { require(walkByPath(m_volume, stat) >= m_segments, "files"); });
    ObjectStore::DiskCache engine(ObjectStore::PersistentVolumes::No);
    const double byCache = secondsOf([&] {
      const auto error = engine.init(m_dir.path() + "/starting", {m_volume}, NEVER, NEVER, NEVER,
                                     LIST_ENTRIES, nullptr, ObjectStore::PruningMode::Lru);
      require(!error.IsError(), "init");
    });
    figures["diskcache/ratio"] = byCache / byHand;
    figures["diskcache/ms"] = byCache * 1e3;
    figures["floor/ms"] = byHand * 1e3;
  }

  // The segments behind the last one, which go again.
  void compareCreates(Figures& figures, uint64_t round) {
    const Sample behind = sampleOf([next = m_segments]() mutable { return next++; });
    const std::vector<Place>& places = behind.places;
    for (const Place& place : places) floor::makeDirectory(place);
    const auto byHand = [&](size_t i) { floor::create(m_volume, places[i], PAYLOAD, false); };
    const auto byCache = [&](size_t i) { m_touch->create(behind.segments[i], PAYLOAD, false); };
    const auto undo = [&](size_t i) { floor::remove(places[i]); };
    each(byHand);  // the rehearsal
    each(undo);
    compare(figures, round, byHand, byCache, undo);
  }

 private:
  template <typename Step>
  static void each(Step&& step) {
    for (size_t i = 0; i < BATCH; ++i) step(i);
  }

  // Who goes first changes from round to round.
  template <typename ByHand, typename ByCache, typename Undo>
  static void compare(Figures& figures, uint64_t round, ByHand&& byHand, ByCache&& byCache, Undo&& undo) {
    double hand = 0;
    double cache = 0;
    const auto goByHand = [&] {
      hand = medianTime(byHand);
      each(undo);
    };
    if (round % 2 == 0) goByHand();
    cache = medianTime(byCache);
    each(undo);
    if (round % 2 == 1) goByHand();
    figures["diskcache/p50"] = cache / hand;
    figures["diskcache/us"] = cache;
    figures["floor/us"] = hand;
  }

  // Microseconds of the middle operation.
  template <typename Step>
  static double medianTime(Step&& step) {
    std::vector<double> single(BATCH);
    for (size_t i = 0; i < BATCH; ++i) single[i] = 1e6 * secondsOf([&] { step(i); });
    return medianOf(single);
  }

  void touchBare(size_t segment) { m_bare.touch(m_guids[segment], 1, CONTEXT_DIR, LIST_ENTRIES); }

  struct Sample {
    std::vector<size_t> segments;
    std::vector<Place> places;
  };
  template <typename Next>
  Sample sampleOf(Next&& next) const {
    Sample sample;
    each([&](size_t) {
      sample.segments.push_back(next());
      sample.places.push_back(placeOf(m_volume, m_guids[sample.segments.back()]));
    });
    return sample;
  }
  Sample draw() {
    return sampleOf([this] { return m_random() % m_segments; });
  }

  WorkDir m_dir;
  std::string m_volume;
  Guids m_guids;
  std::unique_ptr<Store> m_quiet;
  std::unique_ptr<Store> m_touching;
  std::unique_ptr<Session> m_read;
  std::unique_ptr<Session> m_touch;
  BareList m_bare;
  size_t m_segments = 0;
  std::mt19937_64 m_random;
  std::vector<unsigned char> m_buffer = std::vector<unsigned char>(BYTES);
};

}  // namespace

// GROWTH_MOST, when set, is the most segments the file system can take.
int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  const char* const given = std::getenv("GROWTH_MOST");
  const size_t most = given ? std::strtoul(given, nullptr, 10) : options.isQuick ? 10'000 : 1'000'000;
  Growth growth(options.dir, most);
  for (size_t segments = 1000; segments <= most; segments *= 10) {
    const auto add = [&, suffix = '/' + std::to_string(segments)](const std::string& name, auto compare,
                                                                  int rounds = ROUNDS) {
      addRounds(name + suffix, rounds, [=, &growth, round = uint64_t{0}](Figures& figures) mutable {
        growth.growTo(segments);
        compare(figures, round++);
      });
    };
    add("grownRead", [&](Figures& figures, uint64_t round) { growth.compareReads(figures, round, false); });
    add("grownTouch", [&](Figures& figures, uint64_t round) { growth.compareReads(figures, round, true); });
    add("grownCreate", [&](Figures& figures, uint64_t round) { growth.compareCreates(figures, round); });
    add(
        "grownStart", [&](Figures& figures, uint64_t) { growth.compareStarts(figures); }, STARTS);
  }
  return runRounds(argc, argv);
}
