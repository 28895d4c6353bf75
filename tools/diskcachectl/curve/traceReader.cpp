#include "curve/traceReader.h"

#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "common/failure.h"
#include "common/identifier.h"

namespace diskcachectl {

namespace {

constexpr size_t BUFFER = size_t{1} << 20;
constexpr uint64_t MAX_SIZE = 0x7ffff000;  // of a section, as for "replay"

}  // namespace

TraceReader::TraceReader(const std::string& path) : m_path(path), m_buffer(BUFFER) {
  m_file.reset(path == "-" ? fdopen(dup(STDIN_FILENO), "re") : std::fopen(path.c_str(), "re"));
  struct stat status {};
  if (!m_file || fstat(fileno(m_file.get()), &status) != 0 || S_ISDIR(status.st_mode)) {
    throw Failure(ExitStatus::BadInput, fmt::format("{}: {}", path, std::strerror(m_file ? EISDIR : errno)));
  }
  m_bytes = static_cast<uint64_t>(status.st_size);
}

bool TraceReader::next(TraceRequest& request) {
  std::string_view line;
  do {
    if (!nextLine(line)) return false;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  } while (line.starts_with('#'));
  const size_t comma = line.find(',');
  if (comma == std::string_view::npos) refuse("there is no comma (expected: id,size)");
  request.id = line.substr(0, comma);
  const std::string_view text = line.substr(comma + 1, line.find(',', comma + 1) - comma - 1);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), request.size);
  if (error == std::errc::invalid_argument || end != text.data() + text.size()) {
    refuse(fmt::format("the size \"{}\" is no number of bytes", text));
  }
  if (error != std::errc() || request.size > MAX_SIZE)
    refuse(fmt::format("the size is over {} bytes", MAX_SIZE));
  if (request.size == 0) refuse("the size is 0");
  if (const std::string_view why = whyRefused(request.id); !why.empty()) refuse(std::string(why));
  return true;
}

bool TraceReader::nextLine(std::string_view& line) {
  for (;;) {
    const char* begin = m_buffer.data() + m_begin;
    const auto* feed = static_cast<const char*>(std::memchr(begin, '\n', m_end - m_begin));
    if (feed != nullptr || (m_isEnd && m_begin < m_end)) {
      const char* end = feed != nullptr ? feed : m_buffer.data() + m_end;
      line = {begin, static_cast<size_t>(end - begin)};
      m_begin = static_cast<size_t>(end - m_buffer.data()) + (feed != nullptr ? 1 : 0);
      ++m_line;
      return true;
    }
    if (m_isEnd) return false;
    fill();
  }
}

void TraceReader::fill() {
  std::copy(m_buffer.begin() + static_cast<std::ptrdiff_t>(m_begin),
            m_buffer.begin() + static_cast<std::ptrdiff_t>(m_end), m_buffer.begin());
  m_end -= m_begin;
  m_begin = 0;
  if (m_end == m_buffer.size()) m_buffer.resize(m_buffer.size() * 2);  // a line longer than that
  errno = 0;
  const size_t got = std::fread(m_buffer.data() + m_end, 1, m_buffer.size() - m_end, m_file.get());
  if (got == 0 && std::ferror(m_file.get()) != 0) {
    throw Failure(ExitStatus::BadInput, fmt::format("{}: {}", m_path, std::strerror(errno)));
  }
  m_isEnd = got == 0;
  m_end += got;
  m_read += got;
}

void TraceReader::refuse(const std::string& why) const {
  throw Failure(ExitStatus::BadInput, fmt::format("{}:{}: {}", m_path, m_line, why));
}

}  // namespace diskcachectl
