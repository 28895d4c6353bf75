// What an operation on a segment costs: the floor, the cache and its peers in turn, round by round.
//
// Reported for each: time over the floor's of the same round (the mean of its two goes), as wall time of the
// batch, median, 99 % and 99.9 % of single operations (p50, p99, p999) and CPU time. `again` is the second floor over the first, and
// `floor` itself is in microseconds an operation.
#include <algorithm>
#include <map>
#include <memory>
#include <numeric>
#include <random>

#include "arena.h"
#include "batch.h"
#include "oneOperation.h"
#include "workload/zipf.h"

using namespace bench;

namespace {

constexpr double ZIPF_EXPONENT = 0.99;
constexpr size_t KIB = 1024;
constexpr size_t RANGE_BYTES = 256 * KIB;
constexpr size_t RANGED_SEGMENT = 4096 * KIB;
constexpr size_t SYNCED_SEGMENTS = 32;
constexpr int WARMING_PASSES = 3;  // after one or two the processor's last cache still has not settled

enum class Kind { Read, ReadZipf, ReadRange, ReadCold, Overwrite, Create, CreateSynced, Delete };

struct Work {
  const char* name;
  Kind kind;
  bool isReading() const { return kind <= Kind::ReadCold; }
};

constexpr Work WORKS[] = {
    {"read", Kind::Read},
    {"readZipf", Kind::ReadZipf},
    {"readRange", Kind::ReadRange},
    {"readCold", Kind::ReadCold},
    {"overwrite", Kind::Overwrite},
    {"create", Kind::Create},
    {"createSynced", Kind::CreateSynced},
    {"delete", Kind::Delete},
};

// How much work a run is.
struct Effort {
  std::vector<size_t> sizes;
  int readRounds;
  int changeRounds;
  size_t readBytes, readSegments;      // a set to read is no larger than either
  size_t changeBytes, changeSegments;  // nor is a batch of changes
};

const Effort FULL = {
    {4 * KIB, 64 * KIB, 1024 * KIB, 4096 * KIB}, 9, 9, size_t{96} << 20, 6144, size_t{32} << 20, 500};
const Effort QUICK = {{4 * KIB, 4096 * KIB}, 3, 2, size_t{16} << 20, 1000, size_t{16} << 20, 100};

size_t segmentsFor(const Work& work, size_t bytes, const Effort& effort) {
  if (work.isReading()) return std::min(effort.readBytes / bytes, effort.readSegments);
  const size_t segments = std::min(effort.changeBytes / bytes, effort.changeSegments);
  return work.kind == Kind::CreateSynced ? std::min(segments, SYNCED_SEGMENTS) : segments;
}

// Reads of usual sizes also by more threads than there are processors, as servers have them.
std::vector<size_t> threadsFor(const Work& work, size_t bytes) {
  if (work.kind == Kind::Read && bytes <= 64 * KIB) return {1, 2, 4, MAX_READERS};
  if (work.kind == Kind::ReadCold) return {1};
  return {1, MAX_WRITERS};
}

// The order in which a round asks for the segments: each once, or by their popularity.
std::vector<size_t> orderOf(Kind kind, size_t segments, uint64_t round) {
  std::vector<size_t> order(segments);
  if (kind == Kind::ReadZipf) {
    const workload::ZipfDraw zipf(static_cast<uint32_t>(segments), ZIPF_EXPONENT, 1);
    std::generate(order.begin(), order.end(), [&, n = round * segments]() mutable { return zipf.draw(n++); });
  } else {
    std::iota(order.begin(), order.end(), size_t{0});
    std::shuffle(order.begin(), order.end(), std::mt19937_64(round));
  }
  return order;
}

Operation operationOf(Kind kind, const Arena& arena) {
  const auto expect = [](bool isFound) { require(isFound, "read"); };
  switch (kind) {
    case Kind::Read:
    case Kind::ReadZipf:
    case Kind::ReadCold:
      return
          [=](Session& session, size_t segment, Buffer buffer) { expect(session.read(segment, 0, buffer)); };
    case Kind::ReadRange:
      return [=](Session& session, size_t segment, Buffer buffer) {
        const uint64_t slot = 1 + segment % (RANGED_SEGMENT / RANGE_BYTES - 1);
        expect(session.read(segment, slot * RANGE_BYTES, buffer.first(RANGE_BYTES)));
      };
    case Kind::Overwrite:
      return [&arena](Session& session, size_t segment, Buffer) {
        session.overwrite(segment, arena.payloadOf(segment + 1));
      };
    case Kind::Create:
    case Kind::CreateSynced:
      return [&arena, isSynced = kind == Kind::CreateSynced](Session& session, size_t segment, Buffer) {
        session.create(segment, arena.payloadOf(segment), isSynced);
      };
    case Kind::Delete: return [](Session& session, size_t segment, Buffer) { session.remove(segment); };
  }
  return {};
}

// Brings a lane to where its batch begins: for reads, what others have left in the processor's caches makes
// way, or the disk's own cache is all that is left; creating begins with a rehearsal, because the first use of a
// file system's blocks and inodes costs more.
void prepare(Kind kind, Arena& arena, Lane& lane, const std::function<void()>& batch) {
  if (kind == Kind::ReadCold) {
    require(dropCaches(), "drop_caches");
    return;
  }
  if (kind <= Kind::ReadRange) {
    for (int i = 0; i < WARMING_PASSES; ++i) batch();
    return;
  }
  arena.create(lane);
  arena.check(lane);
  if (kind == Kind::Create || kind == Kind::CreateSynced) arena.remove(lane);
}

// A lane's own threads and dirty pages are not to be the next one's noise.
void finish(Kind kind, Arena& arena, Lane& lane) {
  if (kind <= Kind::ReadCold) return;
  if (kind != Kind::Delete) {
    arena.check(lane, kind == Kind::Overwrite ? 1 : 0);
    arena.remove(lane);
  }
  lane.store->settle();
  syncDisk(arena.dir());
}

void report(Figures& figures, const std::string& name, const Timing& timing, const Timing& base) {
  figures[name + "/wall"] = timing.wall / base.wall;
  figures[name + "/p50"] = timing.p50 / base.p50;
  figures[name + "/p99"] = timing.p99 / base.p99;
  figures[name + "/p999"] = timing.p999 / base.p999;
  figures[name + "/cpu"] = timing.cpu / base.cpu;
}

Timing timeLane(Lane& lane, Kind kind, size_t threads, const std::vector<size_t>& order, Arena& arena) {
  Timing timing;
  const auto batch = [&, operation = operationOf(kind, arena)] {
    timing = timeBatch(lane.sessions, threads, order, arena.bytes(), operation);
  };
  prepare(kind, arena, lane, batch);
  lane.store->activate(true);
  batch();
  lane.store->activate(false);
  finish(kind, arena, lane);
  return timing;
}

// Those on the volume first, each round another one ahead, then the peers.
std::vector<Lane*> lanesInTurn(Arena& arena, uint64_t round) {
  std::vector<Lane*> lanes;
  for (Lane& lane : arena.lanes()) lanes.push_back(&lane);
  const auto peers = std::find_if(lanes.begin(), lanes.end(), [](const Lane* l) { return !l->isOnVolume; });
  std::rotate(lanes.begin(), lanes.begin() + static_cast<ptrdiff_t>(round) % (peers - lanes.begin()), peers);
  return lanes;
}

// What a peer has mapped the system does not drop, and a disk hides what else the cache may be set to.
bool takesPart(const Lane& lane, Kind kind) {
  if (kind != Kind::ReadCold) return true;
  return lane.name == "floor" || lane.name == "again" || lane.name == "diskcache" || lane.name == "touching";
}

void runRound(Figures& figures, Kind kind, size_t threads, uint64_t round, Arena& arena) {
  const std::vector<size_t> order = orderOf(kind, arena.segments(), round);
  // Whoever comes behind the peers pays for what they have pushed out of the caches: a go that does not
  // count. In cold reads nobody finds anything of others.
  if (kind != Kind::ReadCold) timeLane(arena.lanes().front(), kind, threads, order, arena);
  std::map<std::string, Timing> timings;
  for (Lane* lane : lanesInTurn(arena, round)) {
    if (takesPart(*lane, kind)) timings[lane->name] = timeLane(*lane, kind, threads, order, arena);
  }
  const Timing& first = timings["floor"];
  const Timing& again = timings["again"];
  const auto meanOf = [&](double Timing::*figure) { return (first.*figure + again.*figure) / 2; };
  const Timing mean = {meanOf(&Timing::wall), meanOf(&Timing::p50), meanOf(&Timing::p99),
                       meanOf(&Timing::p999), meanOf(&Timing::cpu)};
  for (const auto& [name, timing] : timings) {
    report(figures, name, timing, name == "floor" ? Timing{1, 1, 1, 1, 1} : name == "again" ? first : mean);
  }
}

// The arena at work. Those who read the same set share one; those who change it begin with a fresh one, so
// that no store drags along what another work has left.
class CurrentArena {
 public:
  explicit CurrentArena(std::string dir) : m_dir(std::move(dir)) {}

  Arena& of(const Work& work, size_t bytes, size_t segments) {
    const std::string key = (work.isReading() ? "reading" : work.name) + std::to_string(bytes);
    if (key == m_key) return *m_arena;
    m_arena.reset();  // its space is needed
    m_arena = std::make_unique<Arena>(m_dir, bytes, segments, work.isReading());
    if (work.isReading()) m_arena->fill();
    m_key = key;
    return *m_arena;
  }

 private:
  std::string m_dir;
  std::string m_key;
  std::unique_ptr<Arena> m_arena;
};

void addAll(CurrentArena& current, const Effort& effort) {
  const bool mayReadCold = dropCaches();
  for (const size_t bytes : effort.sizes) {
    for (const Work& work : WORKS) {
      if (work.kind == Kind::ReadRange && bytes != RANGED_SEGMENT) continue;
      if (work.kind == Kind::ReadCold && !mayReadCold) continue;
      const size_t segments = segmentsFor(work, bytes, effort);
      for (const size_t threads : threadsFor(work, bytes)) {
        const std::string name =
            std::string(work.name) + '/' + std::to_string(bytes) + '/' + std::to_string(threads);
        addRounds(name, work.isReading() ? effort.readRounds : effort.changeRounds,
                  [&current, work, bytes, segments, threads, round = uint64_t{0}](Figures& figures) mutable {
                    runRound(figures, work.kind, threads, round++, current.of(work, bytes, segments));
                  });
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  if (!options.one.empty()) return runOne(options.dir, options.one);
  CurrentArena current(options.dir);
  addAll(current, options.isQuick ? QUICK : FULL);
  for (const Peer& peer : peers()) benchmark::AddCustomContext("peer " + peer.name, peer.settings);
  return runRounds(argc, argv);
}
