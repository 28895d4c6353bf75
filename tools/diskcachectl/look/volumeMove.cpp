#include "look/volumeMove.h"

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

#include "common/failure.h"

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

PaddedMove::PaddedMove(DiskCache& cache, const Volume& volume, std::string destination)
    : m_cache(cache),
      m_index(volume.index),
      m_source(volume.dir),
      m_destination(std::move(destination)),
      m_isNew(!fs::exists(m_destination)) {}

PaddedMove::~PaddedMove() {
  std::error_code ignored;
  for (size_t i = 1; i < WORKERS; ++i) fs::remove(padPath(m_source, i), ignored);
}

// Empty directories make the number even, so that none that holds segments is left behind.
void PaddedMove::padSource() {
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

void PaddedMove::start() {
  padSource();
  VolumeMove::start(m_cache, m_index, m_source, m_destination);
}

void PaddedMove::finish() {
  for (;;) {
    std::optional<int> outcome;
    while (!(outcome = VolumeMove::waitFor(std::chrono::seconds(1)))) continue;
    if (*outcome == 0) return;
    if (*outcome != ENOENT || !m_isNew) {
      throw Failure(ExitStatus::Error, fmt::format("{}: {}", m_destination, std::strerror(*outcome)));
    }
    std::error_code ignored;
    fs::remove_all(m_destination, ignored);
    start();
  }
}

}  // namespace diskcachectl
