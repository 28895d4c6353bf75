#include "client/volumeMover.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <thread>

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
    for (const std::string& path : m_paths) rmdir(path.c_str());
  }
  Padding(const Padding&) = delete;
  Padding& operator=(const Padding&) = delete;

  int add() {
    std::error_code error;
    fs::create_directory(m_source + '/' + STAGED_DIR, error);  // nobody makes it after the count
    size_t count = 0;
    fs::directory_iterator entry(m_source, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error))
      count += fs::is_directory(entry->symlink_status(error));
    for (size_t i = 0; !error && count % WORKERS != 0; ++i) {
      const std::string name = "/moving" + std::to_string(i);
      if (!fs::create_directory(m_source + name, error)) continue;
      for (const std::string* dir : {&m_source, &m_destination}) m_paths.push_back(*dir + name);
      ++count;
    }
    return error.value();
  }

 private:
  static constexpr size_t WORKERS = 4;

  const std::string& m_source;
  const std::string& m_destination;
  std::vector<std::string> m_paths;
};

}  // namespace

// While it lives the mover hears of the end of what leaves `source`, unless another one does.
class VolumeMover::Listener {
 public:
  Listener(VolumeMover& mover, const std::string& source) : m_source(source) {
    const std::scoped_lock lock(g_lock);
    hears = g_movers.try_emplace(m_source, &mover).second;
  }
  ~Listener() {
    const std::scoped_lock lock(g_lock);
    if (hears) g_movers.erase(m_source);
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  bool hears = false;

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
  if (volume == roots.end() || !m_volumes.isThere(volume->index)) return ENOENT;
  std::error_code error;
  const std::string path = fs::weakly_canonical(destination, error).string() + '/';
  for (const VolumeRoot& root : roots) {
    if (path.starts_with(fs::weakly_canonical(root.dir, error).string() + '/')) return EINVAL;
  }
  if (error) return error.value();
  const Listener listener(*this, source);
  if (!listener.hears) return EBUSY;
  if (const int rc = makeEmptyDirectory(destination); rc != 0) return rc;
  Padding padding(source, destination);
  if (const int rc = padding.add(); rc != 0) return rc;

  m_index = volume->index;
  m_outcome = std::promise<int>();
  std::future<int> outcome = m_outcome.get_future();
  m_volumes.beginMove(m_index, destination);
  int rc = 0;
  // A move that has just told its end is under way for a moment more.
  while ((rc = m_engine.migrate(m_index, source, destination)) == EEXIST)
    std::this_thread::sleep_for(BEFORE_ANOTHER_TRY);
  if (rc != 0) {
    m_markers.forgetMove();
    (void)m_volumes.endMove(m_index, false);
    return rc;
  }
  rc = outcome.get();
  m_markers.awaitEndOfMove();  // or who removes the source would leave a root that no cache opens
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

// The engine is at the destination: whoever stages there must find it after the next start, so want of memory is no
// reason to leave the records behind.
void VolumeMover::end(int error, const std::string& source, const std::string& destination) {
  std::optional<bool> isMarked;
  for (bool isOver = false; !isOver;) {
    try {
      if (!isMarked) isMarked = m_volumes.endMove(m_index, error == 0);
      if (error == 0) m_hot.clear();  // so that the source can be unmounted
      if (error == 0 && *isMarked) m_markers.follow(source, destination);
      isOver = true;
    } catch (const std::bad_alloc&) {
      std::this_thread::sleep_for(BEFORE_ANOTHER_TRY);
    }
  }
  m_outcome.set_value(*isMarked ? error : EIO);
}

}  // namespace ObjectStore
