#include "life/accessLog.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "options/options.h"

namespace diskcached {

using ObjectStore::KxCriticalSectionLock;

namespace {

std::string timeNow() {
  const auto now = std::chrono::system_clock::now();
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(now)),
                     milliseconds);
}

}  // namespace

AccessLog::~AccessLog() {
  const KxCriticalSectionLock lock(&m_lock);
  if (m_fd >= 0) close(m_fd);
}

void AccessLog::open(const std::string& path) {
  int fd = -1;
  if (path == "-") {
    fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  } else if (!path.empty()) {
    fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
  }
  if (fd < 0 && !path.empty()) throw BadOptions("--access-log: " + path + ": " + std::strerror(errno));
  const KxCriticalSectionLock lock(&m_lock);
  if (m_fd >= 0) close(m_fd);
  m_fd = fd;
  m_isWanted = fd >= 0;
}

void AccessLog::write(const AccessLine& line) {
  const nlohmann::ordered_json object = {{"time", timeNow()},
                                         {"client", line.client},
                                         {"method", line.method},
                                         {"target", line.target},
                                         {"range", line.range},
                                         {"status", line.status},
                                         {"bytes", line.bodyBytes},
                                         {"cache", line.cache},
                                         {"seconds", std::chrono::duration<double>(line.took).count()}};
  const std::string text = object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
  const KxCriticalSectionLock lock(&m_lock);
  if (m_fd >= 0 && ::write(m_fd, text.data(), text.size()) < 0)
    return;  // a full disk loses the line, no more
}

}  // namespace diskcached
