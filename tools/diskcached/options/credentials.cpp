#include "options/credentials.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "options/options.h"

namespace diskcached {
namespace {

constexpr size_t MOST = 64 << 10;

std::string fromEnvironment(const char* name) {
  const char* const value = std::getenv(name);
  return value ? value : "";
}

// Looks and reads through one descriptor, so that what was looked at is what is read.
std::string readPrivateFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw BadOptions(fmt::format("--credentials: {}: {}", path, std::strerror(errno)));
  struct stat status {};
  const bool isPrivate = fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
                         (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 &&
                         (status.st_uid == geteuid() || status.st_uid == 0);
  std::string text;
  if (isPrivate) {
    text.resize(MOST);
    const ssize_t got = read(fd, text.data(), text.size());
    text.resize(got < 0 ? 0 : static_cast<size_t>(got));
  }
  close(fd);
  if (!isPrivate) throw BadOptions(fmt::format("--credentials: {} can be read by others (chmod 600)", path));
  return text;
}

std::string withoutBlanks(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r"), last = text.find_last_not_of(" \t\r");
  return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

}  // namespace

std::optional<Credentials> readCredentials(const std::string& path) {
  Credentials found;
  if (path.empty()) {
    found = {fromEnvironment("AWS_ACCESS_KEY_ID"), fromEnvironment("AWS_SECRET_ACCESS_KEY"),
             fromEnvironment("AWS_SESSION_TOKEN")};
    if (found.accessKey.empty() || found.secret.empty()) return std::nullopt;
    return found;
  }
  std::istringstream lines(readPrivateFile(path));
  for (std::string line; std::getline(lines, line);) {
    const size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    const std::string name = withoutBlanks(line.substr(0, equals)),
                      value = withoutBlanks(line.substr(equals + 1));
    if (name == "aws_access_key_id") found.accessKey = value;
    if (name == "aws_secret_access_key") found.secret = value;
    if (name == "aws_session_token") found.sessionToken = value;
  }
  if (found.accessKey.empty() || found.secret.empty())
    throw BadOptions(fmt::format("--credentials: {} lacks aws_access_key_id or aws_secret_access_key", path));
  return found;
}

}  // namespace diskcached
