// Going through the files of volumes with several threads, in memory that does not grow with their number.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace diskcachectl {

// One entry of a directory; a directory of its own (DT_DIR) gets its turn later. Valid within the call only.
struct WalkedFile {
  int dirFd;                  // of the directory that it lies in
  const char* name;           // in that directory
  const std::string& dir;     // path of that directory
  size_t root;                // which of the walk's roots it lies below
  std::string_view relative;  // path of that directory below the root; empty in the root itself
  unsigned char type;         // DT_REG, DT_LNK, ... or DT_UNKNOWN

  std::string path() const { return dir + '/' + name; }
};

// What a file's name and place say of it.
enum class FileKind {
  Segment,
  Recycled,  // in a volume's directory "recycle"
  Leftover,  // of a replacement or a copy that was cut short
  Own,       // the cache's own, on top of a root directory or beside the blocks of named objects
};
FileKind kindOf(const WalkedFile& file);

// Where a segment lies: the directory of its context below the volume, and whether a cache would look for it
// there.
struct SegmentPlace {
  std::string_view context;
  bool isInPlace;
};
SegmentPlace placeOf(const WalkedFile& file);

class TreeWalk {
 public:
  // `visit` is called on any of the threads, numbered from 0; `failed` with a directory that cannot be
  // read and its error number, one call at a time.
  using Visit = std::function<void(const WalkedFile& file, size_t thread)>;
  using Failed = std::function<void(const std::string& path, int error)>;

  TreeWalk(std::vector<std::string> roots, Visit visit, Failed failed);

  // Returns when all is walked; an exception of `visit` ends the walk and is thrown. `watch` is called on the
  // calling thread every 100 ms with the part that is done, 0 to 1.
  void run(size_t threads, const std::function<void(double part)>& watch = nullptr);
  // The same with a bar on standard error; `detail` says how far it is.
  void runWithProgress(const std::string& what, size_t threads, const std::function<std::string()>& detail);

 private:
  struct Pending {
    std::string dir;
    size_t root;
    double share;  // of the whole walk, halved at each fork in as many parts as there are directories
  };

  void work(size_t thread);
  bool take(Pending& next);
  void walk(const Pending& directory, size_t thread);
  void finish(std::vector<Pending>& below, double share);

  std::vector<std::string> m_roots;
  const Visit m_visit;
  const Failed m_failed;

  std::mutex m_lock;  // guards all below
  std::condition_variable m_changed;
  std::vector<Pending> m_pending;  // the last found goes first, so that few wait
  size_t m_busy = 0;
  double m_done = 0;
  bool m_stop = false;
  std::exception_ptr m_error;
};

}  // namespace diskcachectl
