#include "look/volumeMove.h"

#include <fmt/core.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>

#include "common/failure.h"

namespace diskcachectl {

using namespace ObjectStore;

namespace {

std::mutex g_lock;
std::condition_variable g_ended;
std::optional<int> g_outcome;

void onEnd(int error, const std::string& /*source*/, const std::string& /*destination*/) {
  const std::scoped_lock lock(g_lock);
  g_outcome = error;
  g_ended.notify_all();
}

}  // namespace

const MigrationCB VolumeMove::CALLBACK = onEnd;

void VolumeMove::expect() {
  const std::scoped_lock lock(g_lock);
  g_outcome.reset();
}

void VolumeMove::start(DiskCache& cache, VolIndex index, const std::string& source,
                       const std::string& destination) {
  expect();
  // A move that has just told its end is in progress for a moment more.
  int rc = EEXIST;
  while ((rc = cache.migrate(index, source, destination)) == EEXIST) std::this_thread::yield();
  if (rc != 0) throw Failure(ExitStatus::Error, fmt::format("{}: {}", destination, std::strerror(rc)));
}

std::optional<int> VolumeMove::waitFor(std::chrono::milliseconds timeout) {
  std::unique_lock lock(g_lock);
  g_ended.wait_for(lock, timeout, [] { return g_outcome.has_value(); });
  return g_outcome;
}

}  // namespace diskcachectl
