#include "object/indexLog.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <vector>

#include "http/range.h"
#include "http/target.h"
#include "support/log.h"

namespace diskcached {

using ObjectStore::Descriptor;

namespace {

constexpr size_t WRITTEN_AT_ONCE = 1 << 20;
constexpr uint64_t LAST_SECOND = std::chrono::duration_cast<std::chrono::seconds>(Clock::duration::max())
                                     .count();  // that the clock reaches
constexpr uint64_t MIN_LONG = 16 << 20;
constexpr std::chrono::seconds PAUSE(10);  // before a log that could not be written is begun anew

std::string lineOf(std::string_view key, const ObjectInfo* info) {
  if (info == nullptr || info->version.empty() || info->isStaged)
    return fmt::format("- {} .\n", encodePath(key));
  return fmt::format("+ {} {} {} {} .\n", info->size, Clock::to_time_t(info->checkedAt),
                     encodePath(info->version), encodePath(key));
}

std::vector<std::string_view> wordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  for (size_t space = line.find(' '); space != std::string_view::npos; space = line.find(' ')) {
    words.push_back(line.substr(0, space));
    line.remove_prefix(space + 1);
  }
  words.push_back(line);
  return words;
}

void readLine(std::string_view line, const IndexLog::Visit& visit) {
  const auto words = wordsOf(line);
  const bool isWhole = (words.size() == 3 && words[0] == "-") || (words.size() == 6 && words[0] == "+");
  if (!isWhole || words.back() != ".") return;
  auto key = decodeEscapes(words[words.size() - 2]);
  if (!key) return;
  if (words[0] == "-") return visit(std::move(*key), nullptr);
  const auto size = parseNumber(words[1]), checked = parseNumber(words[2]);
  auto version = decodeEscapes(words[3]);
  if (!size || !checked || *checked > LAST_SECOND || !version || version->empty()) return;
  auto info = std::make_shared<ObjectInfo>();
  info->version = std::move(*version);
  info->size = *size;
  info->checkedAt = Clock::from_time_t(static_cast<std::time_t>(*checked));
  info->isRemembered = true;
  visit(std::move(*key), std::move(info));
}

}  // namespace

void IndexLog::read(const std::string& path, const Visit& visit) {
  std::ifstream file(path, std::ios::binary);
  for (std::string line; std::getline(file, line);) readLine(line, visit);
}

int IndexLog::rewrite(const std::string& path, const std::function<void(const Visit&)>& each) {
  const std::string fresh = path + ".new";
  m_path = path;
  m_size = 0;
  m_file = std::make_shared<const Descriptor>(
      open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600));
  if (m_file->fd < 0) return fail(errno);
  std::string text;
  int errNo = 0;
  each([&](const std::string& key, const ObjectInfoPointer& info) {
    text += lineOf(key, info.get());
    if (text.size() < WRITTEN_AT_ONCE || errNo != 0) return;
    errNo = write(text);
    text.clear();
  });
  if (errNo == 0) errNo = write(text);
  if (errNo == 0 && std::rename(fresh.c_str(), path.c_str()) != 0) errNo = fail(errno);
  m_firstSize = m_size;
  return errNo;
}

int IndexLog::append(std::string_view key, const ObjectInfo* info) {
  return m_file ? write(lineOf(key, info)) : 0;
}

bool IndexLog::isToBeRewritten() const {
  if (!m_file) return std::chrono::steady_clock::now() >= m_openAgainAt;
  return m_size > MIN_LONG && m_size > 4 * m_firstSize;
}

int IndexLog::sync(const std::string& path, const Descriptor& file) {
  if (fdatasync(file.fd) != 0) return errno;
  const Descriptor dir(open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return dir.fd >= 0 && fsync(dir.fd) == 0 ? 0 : errno;
}

int IndexLog::write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(m_file->fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return fail(errno);
    m_size += static_cast<uint64_t>(written);
    text.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

int IndexLog::fail(int errNo) {
  DC_LOG(ObjectStore::LogLevel::Error,
         "Error: %s can't be written (%d): until it can, a restart makes the server ask for all versions",
         m_path.c_str(), errNo);
  m_file = nullptr;
  m_openAgainAt = std::chrono::steady_clock::now() + PAUSE;
  (void)unlink(m_path.c_str());
  (void)unlink((m_path + ".new").c_str());
  return errNo;
}

}  // namespace diskcached
