// The recency list against a bare list and map of the same records, and against the leanest list: memory,
// touching a known segment, adding to a full list, and how long single insertions take while the list grows.
// No disk is used.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <random>

#include "bareList.h"
#include "diskcache/diskcacheState.h"
#include "diskcache/pageRun.h"
#include "flatList.h"
#include "frame.h"

using namespace ObjectStore;
using namespace bench;

namespace {

constexpr int ROUNDS = 21;
constexpr size_t BATCH = 50'000;
constexpr size_t BYTES_AN_ENTRY = 600;  // of all lists together, generously
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

enum { ENGINE, BARE, LEAN, LISTS };
constexpr const char* NAMES[] = {"diskcache", "floor", "lean"};

// The lists, each with the numbers 0 to entries-1 in it.
class Lists {
 public:
  explicit Lists(size_t entries) : m_entries(entries), m_next(entries), m_lean(entries) {
    m_engine.init(entries);
    const auto fill = [this](int list) {
      const size_t before = heapBytes();
      for (size_t i = 0; i < m_entries; ++i) add(list, guidOf(i));
      return static_cast<double>(heapBytes() - before);
    };
    m_engineBytes = fill(ENGINE) + static_cast<double>(m_engine.mappedBytes());
    m_bareBytes = fill(BARE);
    fill(LEAN);
  }

  void add(int list, const std::string& guid) {
    switch (list) {
      case ENGINE:
        // In the pruning mode of an engine before init(), Random, a full list forgets its oldest entry.
        return require(!m_engine.addToLru(guid, 1, DIR).IsError(), "addToLru");
      case BARE: return m_bare.touch(guid, 1, DIR, m_entries);
      default: return m_lean.touch(guid, 1, DIR);
    }
  }

  double engineBytes() const { return m_engineBytes / static_cast<double>(m_entries); }
  double bareBytes() const { return m_bareBytes / static_cast<double>(m_entries); }

  std::vector<std::string> known(uint64_t round) const {
    std::mt19937_64 random(round);
    return batch([&] { return m_next - 1 - random() % m_entries; });
  }
  std::vector<std::string> fresh() {
    return batch([&] { return m_next++; });
  }

 private:
  template <typename Draw>
  static std::vector<std::string> batch(Draw&& draw) {
    std::vector<std::string> guids(BATCH);
    std::generate(guids.begin(), guids.end(), [&] { return guidOf(draw()); });
    return guids;
  }

  const size_t m_entries;
  uint64_t m_next;
  DiskCacheState m_parts{PersistentVolumes::No};
  DiskcacheLRU& m_engine = m_parts.lru;
  BareList m_bare;
  FlatList m_lean;
  double m_engineBytes = 0;
  double m_bareBytes = 0;
};

// Who goes first, and so finds the batch cold, changes from round to round.
void compare(Figures& figures, Lists& lists, const std::vector<std::string>& guids, uint64_t round) {
  double seconds[LISTS];
  for (int turn = 0; turn < LISTS; ++turn) {
    const int list = static_cast<int>((round + static_cast<uint64_t>(turn)) % LISTS);
    seconds[list] = secondsOf([&] {
      for (const std::string& guid : guids) lists.add(list, guid);
    });
  }
  for (int list = 0; list < LISTS; ++list) {
    figures[NAMES[list] + std::string("/ns")] = seconds[list] * 1e9 / BATCH;
    if (list != BARE) figures[NAMES[list] + std::string("/ratio")] = seconds[list] / seconds[BARE];
  }
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

double processorSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Memory in large pages, and how long the first touch of each took: on a virtual machine it can wait some ms for
// the host. No list that grows in large pages has shorter pauses than these.
class TouchedPages {
 public:
  explicit TouchedPages(size_t pages) : m_pages(pages * PageRun::LARGE_PAGE) {
    for (size_t i = 0; i < pages; ++i) {
      us.push_back(secondsOf([&] { m_pages.as<char>()[i * PageRun::LARGE_PAGE] = 1; }) * 1e6);
    }
    std::sort(us.begin(), us.end());
  }
  std::vector<double> us;

 private:
  PageRun m_pages;
};

// Single insertions into a list that grows to that many entries, the longest of them also in the processor's
// time: what others do on the machine is not in it.
void addPauses(size_t entries) {
  addRounds("listGrow/" + std::to_string(entries), 1, [entries](Figures& figures) {
    const TouchedPages bare(entries / (PageRun::LARGE_PAGE / 64) + 1);  // held: the list gets others
    DiskCacheState parts(PersistentVolumes::No);
    DiskcacheLRU& list = parts.lru;
    list.init(~0UL);
    std::vector<float> us(entries);
    double mostOfProcessor = 0;
    for (size_t i = 0; i < entries; ++i) {
      const std::string guid = guidOf(i);
      const double begin = processorSeconds();
      us[i] = static_cast<float>(
          secondsOf([&] { require(!list.addToLru(guid, 1, DIR).IsError(), "addToLru"); }) * 1e6);
      mostOfProcessor = std::max(mostOfProcessor, processorSeconds() - begin);
    }
    std::sort(us.begin(), us.end());
    figures["diskcache/p50_us"] = us[entries / 2];
    figures["diskcache/p9999_us"] = us[entries - 1 - entries / 10'000];
    figures["diskcache/most_us"] = us.back();
    figures["diskcache/processor_most_us"] = mostOfProcessor * 1e6;
    figures["floor/most_us"] = bare.us.back();
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
  for (const size_t entries : {size_t{20'000}, size_t{1'000'000}, size_t{10'000'000}}) {
    if ((entries > 1'000'000 && options.isQuick) || !hasRoomFor(entries)) continue;
    addList(lists, entries);
    addPauses(entries);
  }
  return runRounds(argc, argv);
}
