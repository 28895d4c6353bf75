// What the index knows, in a file, so that a restart finds it: a line for each change, the last one of a key
// counts.
//
//   + SIZE CHECKED VERSION KEY .      what is current; seconds since 1970, both texts escaped
//   - KEY .                           no longer known, or staged: then the cache knows
//
// A line that a kill or a full disk cut short does not end in " ." and does not count. Used under the index's
// lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "client/descriptor.h"
#include "object/objectInfo.h"

namespace diskcached {

class IndexLog {
 public:
  IndexLog() = default;
  IndexLog(const IndexLog&) = delete;
  IndexLog& operator=(const IndexLog&) = delete;

  using Visit = std::function<void(std::string key, ObjectInfoPointer)>;
  // Tells every line of a file in order, null for one that forgets. A file that is not there has none.
  static void read(const std::string& path, const Visit& visit);

  // Each returns 0 or a system error number, after which the log is closed: what it holds is older than the
  // index, so that it must not be read again.
  // Begins a new file in place of the old one, with what `each` tells.
  int rewrite(const std::string& path, const std::function<void(const Visit&)>& each);
  int append(std::string_view key, const ObjectInfo* info);
  int fail(int errNo);
  // Whether it has grown to several times what it had when it was written anew, or is closed for a while.
  bool isToBeRewritten() const;

  // Makes what was written to a file durable, and its name; 0 or why not. Needs no lock.
  using File = std::shared_ptr<const ObjectStore::Descriptor>;
  File file() const { return m_file; }
  static int sync(const std::string& path, const ObjectStore::Descriptor& file);

 private:
  int write(std::string_view text);

  std::string m_path;
  File m_file;  // null: closed
  uint64_t m_size = 0, m_firstSize = 0;
  std::chrono::steady_clock::time_point m_openAgainAt = std::chrono::steady_clock::time_point::max();
};

}  // namespace diskcached
