#include "replay/replayRun.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/progress.h"

namespace diskcachectl {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds PROGRESS_INTERVAL(100);

float microsecondsSince(Clock::time_point start) {
  return std::chrono::duration<float, std::micro>(Clock::now() - start).count();
}

class Replay {
 public:
  Replay(const Workload& workload, CacheClient& cache, const RunSettings& settings)
      : m_workload(workload), m_cache(cache), m_settings(settings), m_tallies(settings.threads) {}

  Tally run() {
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
    if (m_error) std::rethrow_exception(m_error);
    if (isMoving()) m_cache.finishMove();

    Tally total;
    for (const Tally& tally : m_tallies) total.merge(tally);
    return total;
  }

 private:
  struct Buffers {
    std::vector<unsigned char> cached;
    std::vector<unsigned char> origin;
  };

  bool isMoving() const { return !m_settings.moveVolumeTo.empty(); }

  void showProgress() {
    Progress progress("replay");
    std::unique_lock lock(m_lock);
    while (!m_ended.wait_for(lock, PROGRESS_INTERVAL, [this] { return m_working == 0; }))
      progress.show(m_next, m_settings.requests);
  }

  void work(Tally& tally) {
    std::exception_ptr error;
    try {
      Buffers buffers;
      for (uint64_t n = 0; !m_stop && (n = m_next++) < m_settings.requests;) {
        if (isMoving() && n == m_settings.requests / 2) m_cache.startMove(m_settings.moveVolumeTo);
        serve(m_workload.request(n), buffers, tally);
      }
    } catch (...) {
      error = std::current_exception();
      m_stop = true;
    }
    const std::scoped_lock lock(m_lock);
    if (error && !m_error) m_error = error;
    --m_working;
    m_ended.notify_one();
  }

  void serve(const Request& request, Buffers& buffers, Tally& tally) {
    const std::string id = m_workload.identifier(request.object);
    if (m_settings.onRequest) m_settings.onRequest(id, request.size);
    const Clock::time_point start = Clock::now();
    const CacheClient::Answer answer = m_cache.read(id, request.size, buffers.cached);
    if (answer.found == CacheClient::Found::Hit) {
      tally.hitUs.push_back(microsecondsSince(start));
      tally.bytesRead += request.size;
      if (m_settings.verify) verify(id, request, buffers, tally);
      return;
    }
    m_workload.fetch(request, buffers.origin);
    switch (answer.found) {
      case CacheClient::Found::Nothing:
      case CacheClient::Found::OtherSize: store(id, answer, buffers, tally); break;
      case CacheClient::Found::Damage: countWrong(id, tally); break;  // left as it is, to be looked at
      default: break;
    }
    tally.missUs.push_back(microsecondsSince(start));
  }

  void verify(const std::string& id, const Request& request, Buffers& buffers, Tally& tally) {
    m_workload.fetch(request, buffers.origin);
    if (std::memcmp(buffers.cached.data(), buffers.origin.data(), request.size) != 0) countWrong(id, tally);
  }

  void store(const std::string& id, const CacheClient::Answer& answer, Buffers& buffers, Tally& tally) {
    switch (m_cache.write(id, answer.known, buffers.origin)) {
      case CacheClient::Stored::Yes: tally.bytesWritten += buffers.origin.size(); break;
      case CacheClient::Stored::NoRoom: ++tally.rejected; break;
      case CacheClient::Stored::InWork: break;
    }
  }

  void countWrong(const std::string& id, Tally& tally) {
    ++tally.verifyFailures;
    if (tally.firstFailure.empty()) tally.firstFailure = m_cache.pathOf(id);
  }

  const Workload& m_workload;
  CacheClient& m_cache;
  const RunSettings m_settings;
  std::vector<Tally> m_tallies;  // one a thread
  std::atomic<uint64_t> m_next{0};
  std::atomic<bool> m_stop{false};

  std::mutex m_lock;
  std::condition_variable m_ended;
  unsigned m_working = 0;
  std::exception_ptr m_error;  // the first
};

}  // namespace

Tally runReplay(const Workload& workload, CacheClient& cache, const RunSettings& settings) {
  return Replay(workload, cache, settings).run();
}

}  // namespace diskcachectl
