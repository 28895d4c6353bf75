// The lines of a trace, one after the other: in memory that does not grow with their number.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace diskcachectl {

struct TraceRequest {
  std::string_view id;  // valid until the next one is read
  uint32_t size = 0;    // bytes; never 0
};

// Lines are "id,size[,...]"; those that begin with '#' are comments.
class TraceReader {
 public:
  // "-" is standard input. Throws a Failure when there is no such file.
  explicit TraceReader(const std::string& path);

  // False at the end. Throws a Failure that names a line which cannot be used.
  bool next(TraceRequest& request);

  uint64_t bytesRead() const { return m_read; }
  uint64_t bytes() const { return m_bytes; }  // 0 when it is not known

 private:
  struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  bool nextLine(std::string_view& line);
  void fill();
  [[noreturn]] void refuse(const std::string& why) const;

  const std::string m_path;
  std::unique_ptr<std::FILE, Closer> m_file;
  std::vector<char> m_buffer;
  size_t m_begin = 0, m_end = 0;  // of what is in the buffer
  bool m_isEnd = false;
  uint64_t m_line = 0, m_read = 0, m_bytes = 0;
};

}  // namespace diskcachectl
