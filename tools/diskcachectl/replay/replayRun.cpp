#include "replay/replayRun.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "client/blockName.h"
#include "client/volumeMarkers.h"
#include "common/progress.h"
#include "diskcache/diskcache.h"
#include "replay/cacheSession.h"

namespace diskcachectl {

using namespace ObjectStore;

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds PROGRESS_INTERVAL(100);

float microsecondsSince(Clock::time_point start) {
  return std::chrono::duration<float, std::micro>(Clock::now() - start).count();
}

class Replay {
 public:
  Replay(const Workload& workload, ObjectCache& cache, const RunSettings& settings)
      : m_workload(workload),
        m_cache(cache),
        m_settings(settings),
        m_tallies(settings.threads),
        m_lastSizes(workload.objects()) {}

  Report run() {
    const Clock::time_point start = Clock::now();
    m_working = m_settings.threads;
    {
      std::vector<std::jthread> threads;
      try {
        for (Tally& tally : m_tallies) threads.emplace_back([this, &tally] { work(tally); });
      } catch (...) {
        m_stop = true;
        throw;
      }
      showProgress();
    }
    for (const std::exception_ptr& error : {m_originError, m_error})
      if (error) std::rethrow_exception(error);

    Report report;
    report.elapsedS = std::chrono::duration<double>(Clock::now() - start).count();
    for (const Tally& tally : m_tallies) report.tally.merge(tally);
    if (m_move.joinable()) m_move.join();
    report.moveError = m_moveError;
    return report;
  }

 private:
  struct Buffers {
    std::vector<std::byte> cached;
    std::vector<std::byte> origin;
  };

  static std::span<std::byte> roomIn(std::vector<std::byte>& buffer, size_t size) {
    if (buffer.size() < size) buffer.resize(size);
    return std::span(buffer).first(size);
  }
  bool isMoving() const { return !m_settings.moveVolumeTo.empty(); }

  void showProgress() {
    Progress progress("replay");
    std::unique_lock lock(m_lock);
    while (!m_ended.wait_for(lock, PROGRESS_INTERVAL, [this] { return m_working == 0; }))
      progress.show(m_next, m_settings.requests);
  }

  void work(Tally& tally) {
    try {
      Buffers buffers;
      for (uint64_t n = 0; !m_stop && (n = m_next++) < m_settings.requests;) {
        if (isMoving() && n == m_settings.requests / 2) startMove();
        serve(m_workload.request(n), buffers, tally);
      }
    } catch (...) {
      stop(m_error);
    }
    const std::scoped_lock lock(m_lock);
    --m_working;
    m_ended.notify_one();
  }

  // Keeps the exception that is being handled, if it is the first of its kind.
  void stop(std::exception_ptr& error) {
    const std::scoped_lock lock(m_lock);
    if (!error) error = std::current_exception();
    m_stop = true;
  }

  void startMove() {
    m_move = std::jthread(
        [this] { m_moveError = m_cache.moveVolume(m_settings.volumes.front(), m_settings.moveVolumeTo); });
  }

  void serve(const Request& request, Buffers& buffers, Tally& tally) {
    const std::string id = m_workload.identifier(request.object), version = std::to_string(request.size);
    if (m_settings.onRequest) m_settings.onRequest(id, request.size);
    const auto bytes = roomIn(buffers.cached, request.size);
    const Clock::time_point start = Clock::now();
    const ReadResult got = read(request, id, version, bytes);
    const float us = microsecondsSince(start);
    if (got.damaged > 0) countWrong(tally, got.damaged, pathOf(id, version) + ", which was fetched anew");
    if (got.misses + got.joined > 0) {
      tally.missUs.push_back(us);
      return;
    }
    tally.hitUs.push_back(us);
    tally.bytesRead += request.size;
    if (!m_settings.verify) return;
    const auto expected = roomIn(buffers.origin, request.size);
    fetch(request, 0, expected);
    if (std::memcmp(bytes.data(), expected.data(), request.size) != 0)
      countWrong(tally, 1, pathOf(id, version));
  }

  ReadResult read(const Request& request, const std::string& id, const std::string& version,
                  std::span<std::byte> bytes) {
    const uint32_t lastSize = m_lastSizes[request.object].exchange(request.size);
    if (lastSize != 0 && lastSize != request.size) m_cache.drop(id, std::to_string(lastSize), lastSize);
    const auto origin = [&](uint64_t from, std::span<std::byte> to) -> OriginAnswer {
      fetch(request, from, to);
      return {.objectSize = request.size};
    };
    ReadResult got = m_cache.read(id, version, 0, bytes, origin);
    if (!got) fail(id, got.error);
    return got;
  }

  void fetch(const Request& request, uint64_t from, std::span<std::byte> to) {
    try {
      m_workload.fetch(request, from, to);
    } catch (...) {
      stop(m_originError);
      throw;
    }
  }

  static void countWrong(Tally& tally, uint64_t count, const std::string& where) {
    tally.verifyFailures += count;
    if (tally.firstFailure.empty()) tally.firstFailure = where;
  }

  std::string pathOf(const std::string& id, const std::string& version) const {
    const guid_t name = blockName({objectIdOf(id, version), 0});
    std::vector<std::string> dirs = m_settings.volumes;
    dirs.push_back(m_settings.moveVolumeTo);
    for (const std::string& dir : dirs) {
      const auto path = std::filesystem::path(dir) / BLOCKS_DIR / DiskCache::guid2dir(name) / name;
      if (std::filesystem::exists(path)) return path;
    }
    return id;
  }

  const Workload& m_workload;
  ObjectCache& m_cache;
  const RunSettings m_settings;
  std::vector<Tally> m_tallies;                    // one a thread
  std::vector<std::atomic<uint32_t>> m_lastSizes;  // by object; 0 before it was asked for
  std::atomic<uint64_t> m_next{0};
  std::atomic<bool> m_stop{false};

  std::mutex m_lock;
  std::condition_variable m_ended;
  unsigned m_working = 0;
  // The first ones; the origin's own counts before the errors that the cache makes of it for all who wait.
  std::exception_ptr m_originError;
  std::exception_ptr m_error;

  CZuError m_moveError;
  std::jthread m_move;
};

}  // namespace

Report runReplay(const Workload& workload, ObjectCache& cache, const RunSettings& settings) {
  return Replay(workload, cache, settings).run();
}

}  // namespace diskcachectl
