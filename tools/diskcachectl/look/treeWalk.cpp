#include "look/treeWalk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <iterator>
#include <memory>
#include <thread>
#include <utility>

#include "common/progress.h"
#include "diskcache/diskcache.h"
#include "look/looking.h"

namespace diskcachectl {
namespace {

constexpr std::chrono::milliseconds WATCH_INTERVAL(100);

struct StreamCloser {
  void operator()(DIR* stream) const { closedir(stream); }
};
using Stream = std::unique_ptr<DIR, StreamCloser>;

std::string withoutSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

bool isDots(std::string_view name) { return name == "." || name == ".."; }

// The type of an entry that its file system does not tell with the name.
unsigned char askType(int dirFd, const char* name) {
  struct stat status {};
  if (fstatat(dirFd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return DT_UNKNOWN;
  return static_cast<unsigned char>(IFTODT(status.st_mode));
}

std::string_view lastPart(std::string_view path) { return path.substr(path.find_last_of('/') + 1); }

// Whether the directory that is walked is a volume's "recycle" itself: a volume of that name has one of its own.
bool isRecycle(const WalkedFile& file) {
  return lastPart(file.dir) == "recycle" && faccessat(file.dirFd, "recycle", F_OK, AT_SYMLINK_NOFOLLOW) != 0;
}

}  // namespace

FileKind kindOf(const WalkedFile& file) {
  const std::string_view name = file.name;
  if (file.relative.empty()) {
    constexpr std::string_view OWN[] = {"volume_info",     "migrate",          "migrate.new",
                                        "client.lock",     "client.volumes",   "client.volumes.new",
                                        "migrate.changed", "diskcached.index", "diskcached.index.new"};
    if (std::find(std::begin(OWN), std::end(OWN), name) != std::end(OWN)) return FileKind::Own;
    if (isRecycle(file)) return FileKind::Recycled;
  }
  const bool isAmongBlocks =
      file.relative == "blocks" || (file.relative.empty() && lastPart(file.dir) == "blocks");
  if (isAmongBlocks && (name == "volume.id" || name == "volume.id.new" || name == "volume.moved"))
    return FileKind::Own;
  if (file.relative == "recycle" || file.relative.starts_with("recycle/")) return FileKind::Recycled;
  return name.ends_with(".temp") || name.ends_with(".copying") ? FileKind::Leftover : FileKind::Segment;
}

SegmentPlace placeOf(const WalkedFile& file) {
  const std::string levels = ObjectStore::DiskCache::guid2dir(file.name);
  const std::string_view dir = file.dir;
  const bool isInPlace = levels.empty() || (dir.ends_with(levels) && dir.size() > levels.size() &&
                                            dir[dir.size() - levels.size() - 1] == '/');
  std::string_view context = file.relative;
  if (isInPlace && context.size() >= levels.size()) context.remove_suffix(levels.size());
  if (context.ends_with('/')) context.remove_suffix(1);
  return {context, isInPlace};
}

TreeWalk::TreeWalk(std::vector<std::string> roots, Visit visit, Failed failed)
    : m_roots(std::move(roots)), m_visit(std::move(visit)), m_failed(std::move(failed)) {
  for (std::string& root : m_roots) root = withoutSlashes(std::move(root));
  for (size_t i = m_roots.size(); i-- > 0;) {
    m_pending.push_back({m_roots[i], i, 1.0 / static_cast<double>(m_roots.size())});
  }
}

void TreeWalk::run(size_t threads, const std::function<void(double part)>& watch) {
  {
    std::vector<std::jthread> workers;
    for (size_t i = 1; i < threads; ++i) workers.emplace_back([this, i] { work(i); });
    if (watch) {
      workers.emplace_back([this] { work(0); });
      std::unique_lock lock(m_lock);
      const auto isOver = [this] { return m_stop || (m_pending.empty() && m_busy == 0); };
      while (!m_changed.wait_for(lock, WATCH_INTERVAL, isOver)) {
        const double part = m_done;
        lock.unlock();
        watch(part);
        lock.lock();
      }
    } else {
      work(0);
    }
  }
  if (m_error) std::rethrow_exception(m_error);
}

void TreeWalk::runWithProgress(const std::string& what, size_t threads,
                               const std::function<std::string()>& detail) {
  Progress progress(what);
  if (!progress.isWanted()) return run(threads);
  run(threads, [&](double part) { progress.show(part, detail()); });
}

void TreeWalk::work(size_t thread) {
  try {
    for (Pending next; take(next);) walk(next, thread);
  } catch (...) {
    const std::scoped_lock lock(m_lock);
    if (!m_error) m_error = std::current_exception();
    m_stop = true;
    m_changed.notify_all();
  }
}

// Waits for a directory to walk; false when there will be none.
bool TreeWalk::take(Pending& next) {
  std::unique_lock lock(m_lock);
  m_changed.wait(lock, [this] { return m_stop || !m_pending.empty() || m_busy == 0; });
  if (m_stop || m_pending.empty()) return false;
  next = std::move(m_pending.back());
  m_pending.pop_back();
  ++m_busy;
  return true;
}

void TreeWalk::walk(const Pending& directory, size_t thread) {
  std::vector<Pending> below;
  // A root may be a link to where the volume is.
  const bool isRoot = directory.dir == m_roots[directory.root];
  LookedAt opened(directory.dir, isRoot ? O_DIRECTORY : O_DIRECTORY | O_NOFOLLOW);
  const Stream stream(opened.error() == 0 ? fdopendir(opened.fd()) : nullptr);
  int error = stream ? 0 : errno;
  if (stream) {
    const int fd = opened.release();  // the stream's from here on
    std::string_view relative = std::string_view(directory.dir).substr(m_roots[directory.root].size());
    while (relative.starts_with('/')) relative.remove_prefix(1);
    errno = 0;
    while (const dirent* entry = readdir(stream.get())) {
      if (isDots(entry->d_name)) continue;
      const unsigned char type = entry->d_type == DT_UNKNOWN ? askType(fd, entry->d_name) : entry->d_type;
      m_visit({fd, entry->d_name, directory.dir, directory.root, relative, type}, thread);
      if (type == DT_DIR) below.push_back({directory.dir + '/' + entry->d_name, directory.root, 0});
      errno = 0;
    }
    error = errno;
  }
  const bool isGone = error == ENOENT && !isRoot;  // a server deletes empty directories
  if (error != 0 && !isGone) {
    const std::scoped_lock lock(m_lock);
    m_failed(directory.dir, error);
  }
  finish(below, directory.share);
}

void TreeWalk::finish(std::vector<Pending>& below, double share) {
  const std::scoped_lock lock(m_lock);
  if (below.empty()) m_done += share;
  for (Pending& directory : below) {
    directory.share = share / static_cast<double>(below.size());
    m_pending.push_back(std::move(directory));
  }
  --m_busy;
  m_changed.notify_all();
}

}  // namespace diskcachectl
