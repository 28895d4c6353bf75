#include "client/volumeMover.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "client/descriptor.h"
#include "client/failure.h"

namespace ObjectStore {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds BEFORE_ANOTHER_TRY(1);

std::mutex g_lock;
std::map<std::string, VolumeMover*> g_movers;  // by the source of what they move

// A file there would count as the volume's, however old, and come back.
int makeEmptyDirectory(const std::string& dir) {
  std::error_code error;
  fs::create_directories(dir, error);
  if (error) return error.value();
  fs::recursive_directory_iterator entry(dir, fs::directory_options::skip_permission_denied, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    if (!fs::is_directory(entry->symlink_status(error))) return error ? error.value() : ENOTEMPTY;
  }
  return error.value();
}

// The engine divides the directories on top of a volume among four workers and leaves some behind when their number
// is no multiple of it: empty ones complete it, on both sides of the move while this lives.
class Padding {
 public:
  Padding(const std::string& source, const std::string& destination)
      : m_source(source), m_destination(destination) {}
  ~Padding() {
    std::error_code ignored;
    for (size_t i = 0; i < WORKERS; ++i) {
      for (const std::string* dir : {&m_source, &m_destination}) fs::remove(pathIn(*dir, i), ignored);
    }
  }
  Padding(const Padding&) = delete;
  Padding& operator=(const Padding&) = delete;

  int add() {
    std::error_code error;
    fs::create_directory(m_source + '/' + STAGED_DIR, error);  // nobody makes it after the count
    size_t count = 0;
    fs::directory_iterator entry(m_source, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error))
      count += fs::is_directory(entry->symlink_status());
    for (size_t i = 0; !error && count % WORKERS != 0; ++i)
      count += fs::create_directory(pathIn(m_source, i), error);
    return error.value();
  }

 private:
  static constexpr size_t WORKERS = 4;
  static std::string pathIn(const std::string& dir, size_t number) {
    return dir + "/moving" + std::to_string(number);
  }

  const std::string& m_source;
  const std::string& m_destination;
};

}  // namespace

// While it lives the mover hears of the end of what leaves `source`.
class VolumeMover::Listener {
 public:
  Listener(VolumeMover& mover, const std::string& source) : m_source(source) {
    const std::scoped_lock lock(g_lock);
    g_movers[m_source] = &mover;
  }
  ~Listener() {
    const std::scoped_lock lock(g_lock);
    g_movers.erase(m_source);
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

 private:
  const std::string& m_source;
};

CZuError VolumeMover::run(const std::string& source, const std::string& destination) {
  const int rc = move(source, destination);
  if (rc == 0) return {};
  return DC_CLIENT_FAIL(rc, "volume [%s] can't be moved to [%s] (%d)", source.c_str(), destination.c_str(),
                        rc);
}

int VolumeMover::move(const std::string& source, const std::string& destination) {
  const auto roots = m_volumes.roots();
  const auto volume =
      std::find_if(roots.begin(), roots.end(), [&](const VolumeRoot& root) { return root.dir == source; });
  if (volume == roots.end()) return ENOENT;
  if (m_volumes.rootOf(destination + '/').index != 0) return EINVAL;
  if (const int rc = makeEmptyDirectory(destination); rc != 0) return rc;
  Padding padding(source, destination);
  if (const int rc = padding.add(); rc != 0) return rc;

  m_index = volume->index;
  m_outcome = std::promise<int>();
  std::future<int> outcome = m_outcome.get_future();
  const Listener listener(*this, source);
  m_volumes.beginMove(m_index, destination);
  int rc = 0;
  // A move that has just told its end is under way for a moment more.
  while ((rc = m_engine.migrate(m_index, source, destination)) == EEXIST)
    std::this_thread::sleep_for(BEFORE_ANOTHER_TRY);
  if (rc == 0) {
    m_markers
        .syncRoot();  // what is staged from now on lies at the destination: a power cut must not hide that
    rc = outcome.get();
  }
  if (rc != 0) m_volumes.endMove(m_index, false);
  return rc;
}

void VolumeMover::ended(int error, const std::string& source, const std::string& destination) {
  VolumeMover* mover = nullptr;
  {
    const std::scoped_lock lock(g_lock);
    if (const auto found = g_movers.find(source); found != g_movers.end()) mover = found->second;
  }
  if (mover) mover->end(error, source, destination);
}

// The source's marker goes when its blocks are safe at the destination, also from a power cut.
void VolumeMover::end(int error, const std::string& source, const std::string& destination) {
  if (error == 0) {
    m_volumes.endMove(m_index, true);
    m_hot.clear();  // so that the source can be unmounted
    const Descriptor dir(open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.fd < 0 || syncfs(dir.fd) != 0)
      DC_LOG(LogLevel::Error, "Error: can't sync [%s] (%d)", destination.c_str(), errno);
    m_markers.follow(source, destination);
  }
  m_outcome.set_value(error);
}

}  // namespace ObjectStore
