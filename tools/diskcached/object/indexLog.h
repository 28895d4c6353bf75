// What the index knows, in a file, so that a restart finds it: a line for each change, the last one of a key
// counts.
//
//   + SIZE CHECKED STAGED VERSION KEY .      what is current; seconds since 1970, 0 or 1, both texts escaped
//   - KEY .                                  no longer known, or deleted
//
// A line that a kill or a full disk cut short does not end in " ." and does not count. Used under the index's
// lock.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "object/objectInfo.h"

namespace diskcached {

class IndexLog {
 public:
  IndexLog() = default;
  ~IndexLog();
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
  // Makes all lines durable.
  int sync();
  // Whether it has grown to several times what it had when it was written anew.
  bool isLong() const { return m_size > MIN_LONG && m_size > 4 * m_firstSize; }

 private:
  static constexpr uint64_t MIN_LONG = 16 << 20;

  int write(std::string_view text);
  int fail(int errNo);

  std::string m_path;
  int m_fd = -1;
  uint64_t m_size = 0, m_firstSize = 0;
};

}  // namespace diskcached
