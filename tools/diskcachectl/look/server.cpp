#include "look/server.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "common/failure.h"
#include "common/output.h"

namespace diskcachectl {
namespace {

namespace fs = std::filesystem;

constexpr const char* CLIENT_LOCK = "/client.lock";  // of caches of named objects

// One line of /proc/locks: "4: FLOCK  ADVISORY  WRITE 4711 fe:00:1234 0 EOF".
struct HeldLock {
  pid_t pid = 0;
  unsigned major = 0, minor = 0;
  uint64_t inode = 0;
};

std::optional<HeldLock> parseLock(const std::string& line) {
  std::istringstream words(line);
  std::string number, kind, advisory, access;
  HeldLock lock;
  char colon = 0, secondColon = 0;
  words >> number >> kind >> advisory >> access >> lock.pid >> std::hex >> lock.major >> colon >>
      lock.minor >> secondColon >> std::dec >> lock.inode;
  // One that waits for a lock has "->" in front of the kind.
  if (!words || kind != "FLOCK" || access != "WRITE") return std::nullopt;
  return lock;
}

// For file systems that tell locks and files by different device numbers.
bool hasOpen(pid_t pid, const struct stat& wanted) {
  std::error_code error;
  fs::directory_iterator entry(fmt::format("/proc/{}/fd", pid), error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    struct stat status {};
    if (stat(entry->path().c_str(), &status) != 0) continue;
    if (status.st_dev == wanted.st_dev && status.st_ino == wanted.st_ino) return true;
  }
  return false;
}

Server named(pid_t pid) {
  Server server{pid, ""};
  if (pid > 0) {
    std::ifstream file(fmt::format("/proc/{}/comm", pid));
    std::getline(file, server.name);
  }
  return server;
}

std::optional<Server> holderOf(const std::string& path) {
  struct stat wanted {};
  if (stat(path.c_str(), &wanted) != 0) return std::nullopt;
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    const auto lock = parseLock(line);
    if (!lock || lock->inode != wanted.st_ino || lock->pid == getpid()) continue;
    const bool isDevice = makedev(lock->major, lock->minor) == wanted.st_dev;
    if (isDevice || hasOpen(lock->pid, wanted)) return named(lock->pid);
  }
  return std::nullopt;
}

// A descriptor that holds the lock, or -1 when there is no such file.
int take(const std::string& root, const std::string& path, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return -1;
  if (flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
  const int error = errno;
  close(fd);
  if (error != EWOULDBLOCK)
    throw Failure(ExitStatus::Error, fmt::format("{}: {}", path, std::strerror(error)));
  throw Failure(ExitStatus::Error, fmt::format("{}: {} has the cache in use; stop it first", root,
                                               holderOf(path).value_or(Server()).text()));
}

}  // namespace

std::string Server::text() const {
  if (pid <= 0) return "a process";
  return name.empty() ? fmt::format("process {}", pid) : fmt::format("process {} ({})", pid, name);
}

std::optional<Server> serverOn(const std::string& root) {
  const auto holder = holderOf(root);
  return holder ? holder : holderOf(root + CLIENT_LOCK);
}

void tellServer(const std::string& root) {
  if (const auto server = serverOn(root)) printError(fmt::format("{}: {} runs on it", root, server->text()));
}

// The destructor runs when the second lock is not to be had.
RootClaim::RootClaim(const std::string& root) : RootClaim() {
  m_root = root;
  takeMade();
  m_clientFd = take(m_root, m_root + CLIENT_LOCK, O_RDONLY);
}

RootClaim::~RootClaim() {
  passOnClient();
  if (m_rootFd >= 0) close(m_rootFd);
}

void RootClaim::takeMade() {
  if (m_rootFd < 0) m_rootFd = take(m_root, m_root + "/.", O_RDONLY | O_DIRECTORY);
}

void RootClaim::passOnClient() {
  if (m_clientFd >= 0) close(std::exchange(m_clientFd, -1));
}

}  // namespace diskcachectl
