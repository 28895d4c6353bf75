// The recency list against a bare list and map of the same records: memory, touching a known segment,
// adding to a full list. No disk is used.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>

#include "bareList.h"
#include "diskcache/diskcache.h"
#include "diskcache/diskcacheLru.h"
#include "frame.h"

using namespace ObjectStore;
using namespace bench;

namespace {

constexpr int ROUNDS = 7;
constexpr size_t BATCH = 100'000;
constexpr size_t BYTES_AN_ENTRY = 600;  // of both lists together, generously
const std::string DIR = "bench";

// 44 characters, and no order in them.
std::string guidOf(uint64_t number) {
  std::string guid(44, '0');
  std::mt19937_64 random(number);
  for (size_t i = 0; i < guid.size(); i += 11) {
    uint64_t bits = random();
    for (size_t j = i; j < i + 11; ++j, bits >>= 4) guid[j] = "0123456789abcdef"[bits & 15];
  }
  return guid;
}

size_t heapBytes() {
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

// Both lists, each with the numbers 0 to entries-1 in it.
class Lists {
 public:
  explicit Lists(size_t entries) : m_entries(entries), m_next(entries) {
    m_engine.init(entries);
    m_engineBytes = bytesOf([this](const std::string& guid) { addToEngine(guid); });
    m_bareBytes = bytesOf([this](const std::string& guid) { addToBare(guid); });
  }

  // In the engine's pruning mode before init(), Random, a full list forgets its oldest entry.
  void addToEngine(const std::string& guid) {
    require(!m_engine.addToLru(guid, 1, DIR).IsError(), "addToLru");
  }
  void addToBare(const std::string& guid) { m_bare.touch(guid, 1, DIR, m_entries); }

  double engineBytes() const { return m_engineBytes; }
  double bareBytes() const { return m_bareBytes; }

  std::vector<std::string> known(uint64_t round) const {
    std::mt19937_64 random(round);
    return batch([&] { return m_next - 1 - random() % m_entries; });
  }
  std::vector<std::string> fresh() {
    return batch([&] { return m_next++; });
  }

 private:
  template <typename Add>
  double bytesOf(Add&& add) const {
    const size_t before = heapBytes();
    for (size_t i = 0; i < m_entries; ++i) add(guidOf(i));
    return static_cast<double>(heapBytes() - before) / static_cast<double>(m_entries);
  }
  template <typename Draw>
  static std::vector<std::string> batch(Draw&& draw) {
    std::vector<std::string> guids(BATCH);
    std::generate(guids.begin(), guids.end(), [&] { return guidOf(draw()); });
    return guids;
  }

  const size_t m_entries;
  uint64_t m_next;
  DiskCache m_cache{PersistentVolumes::No};
  DiskcacheLRU m_engine{m_cache};
  BareList m_bare;
  double m_engineBytes = 0;
  double m_bareBytes = 0;
};

// Who goes first, and so finds the batch cold, changes from round to round.
void compare(Figures& figures, Lists& lists, const std::vector<std::string>& guids, uint64_t round) {
  double engine = 0;
  double bare = 0;
  const auto runEngine = [&] {
    engine = secondsOf([&] {
      for (const std::string& guid : guids) lists.addToEngine(guid);
    });
  };
  const auto runBare = [&] {
    bare = secondsOf([&] {
      for (const std::string& guid : guids) lists.addToBare(guid);
    });
  };
  if (round % 2 == 0) runBare();
  runEngine();
  if (round % 2 == 1) runBare();
  figures["diskcache/ratio"] = engine / bare;
  figures["diskcache/ns"] = engine * 1e9 / BATCH;
  figures["floor/ns"] = bare * 1e9 / BATCH;
}

void addList(std::unique_ptr<Lists>& lists, size_t entries) {
  const std::string suffix = '/' + std::to_string(entries);
  addRounds("listBytes" + suffix, 1, [&lists, entries](Figures& figures) {
    lists.reset();
    lists = std::make_unique<Lists>(entries);
    figures["diskcache/ratio"] = lists->engineBytes() / lists->bareBytes();
    figures["diskcache/bytes"] = lists->engineBytes();
    figures["floor/bytes"] = lists->bareBytes();
  });
  addRounds("listTouch" + suffix, ROUNDS, [&lists, round = uint64_t{0}](Figures& figures) mutable {
    compare(figures, *lists, lists->known(round), round);
    ++round;
  });
  addRounds("listInsert" + suffix, ROUNDS, [&lists, round = uint64_t{0}](Figures& figures) mutable {
    compare(figures, *lists, lists->fresh(), round++);
  });
}

bool hasRoomFor(size_t entries) {
  const auto free =
      static_cast<size_t>(sysconf(_SC_AVPHYS_PAGES)) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return entries * BYTES_AN_ENTRY < free;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  std::unique_ptr<Lists> lists;
  for (const size_t entries : {size_t{1'000'000}, size_t{10'000'000}}) {
    if ((entries > 1'000'000 && options.isQuick) || !hasRoomFor(entries)) continue;
    addList(lists, entries);
  }
  return runRounds(argc, argv);
}
