#include "volumeMove.h"

#include <fmt/core.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "failure.h"

namespace diskcachectl {

using namespace ObjectStore;
namespace fs = std::filesystem;

namespace {

// The engine divides a volume's directories among this many workers and leaves some behind when their number
// is no multiple of it.
constexpr size_t WORKERS = 4;
constexpr const char* PAD_NAME = "moving";

std::mutex g_lock;
std::condition_variable g_ended;
std::optional<int> g_outcome;

void onEnd(int error, const std::string& /*source*/, const std::string& /*destination*/) {
  const std::scoped_lock lock(g_lock);
  g_outcome = error;
  g_ended.notify_all();
}

std::string padPath(const std::string& source, size_t number) {
  return fmt::format("{}/{}{}", source, PAD_NAME, number);
}

}  // namespace

const MigrationCB VolumeMove::CALLBACK = onEnd;

VolumeMove::VolumeMove(DiskCache& cache, const Volume& volume, std::string destination)
    : m_cache(cache),
      m_index(volume.index),
      m_source(volume.dir),
      m_destination(std::move(destination)),
      m_isNew(!fs::exists(m_destination)) {}

VolumeMove::~VolumeMove() {
  std::error_code ignored;
  for (size_t i = 1; i < WORKERS; ++i) fs::remove(padPath(m_source, i), ignored);
}

// Empty directories make the number even, so that none that holds segments is left behind.
void VolumeMove::padSource() {
  std::error_code error;
  size_t count = 0;
  for (fs::directory_iterator entry(m_source, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    if (entry->is_directory() && !entry->is_symlink()) ++count;
  }
  for (size_t i = 1; count % WORKERS != 0; ++i) {
    if (fs::create_directory(padPath(m_source, i), error)) ++count;
    if (error) throw Failure(ExitStatus::Error, fmt::format("{}: {}", m_source, error.message()));
  }
}

void VolumeMove::start() {
  padSource();
  {
    const std::scoped_lock lock(g_lock);
    g_outcome.reset();
  }
  // A move that has just told its end is in progress for a moment more.
  int rc = EEXIST;
  while ((rc = m_cache.migrate(m_index, m_source, m_destination)) == EEXIST) std::this_thread::yield();
  if (rc != 0) throw Failure(ExitStatus::Error, fmt::format("{}: {}", m_destination, std::strerror(rc)));
}

void VolumeMove::finish() {
  for (;;) {
    std::unique_lock lock(g_lock);
    g_ended.wait(lock, [] { return g_outcome.has_value(); });
    const int outcome = *g_outcome;
    lock.unlock();
    if (outcome == 0) return;
    if (outcome != ENOENT || !m_isNew) {
      throw Failure(ExitStatus::Error, fmt::format("{}: {}", m_destination, std::strerror(outcome)));
    }
    std::error_code ignored;
    fs::remove_all(m_destination, ignored);
    start();
  }
}

}  // namespace diskcachectl
