// The file "volume_info": a line "directory,index" for each volume.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "diskcache/diskcacheVolume.h"
#include "diskcache/engineSteps.h"
#include "support/file.h"
#include "support/log.h"

namespace ObjectStore {

bool isStorableLine(const std::string& dir) {
  using namespace std::string_view_literals;
  return dir.find_first_of("\n\0"sv) == std::string::npos;
}

bool isStorableVolume(const std::string& dir) {
  return isStorableLine(dir) && dir.find(',') == std::string::npos;
}

void strip(std::string& text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\n')) text.pop_back();
}

int DiskCacheVolumes::loadVolumeInfo() {
  const std::string path = join(m_settings.rootDir, VOLUME_INFO_FNAME, '/');
  std::string content;
  const int rc = readWholeFile(path, content);
  if (rc == ENOENT) {
    DC_LOG_AT(DC_STEP(loadVolumeInfo), LogLevel::Info, "Volume file not found - %s (%d)", path.c_str(), rc);
    return 0;
  }
  if (rc != 0) {
    DC_LOG_AT(DC_STEP(loadVolumeInfo), LogLevel::Error, "Can't open %s (%d)", path.c_str(), rc);
    return rc;
  }
  for (std::string_view rest = content; !rest.empty();) {
    std::string line(takeLine(rest));
    strip(line);
    const size_t comma = line.find(',');
    if (comma == std::string::npos) {
      DC_LOG_AT(DC_STEP(loadVolumeInfo), LogLevel::Info, "Bad volume file line: %s", line.c_str());
      continue;
    }
    // A number out of range is cut to its low 16 bits.
    const auto index = static_cast<VolIndex>(std::strtol(line.c_str() + comma + 1, nullptr, 10));
    // In place: the rotation may point at the record, which stays where it is.
    Volume& volume = m_volumes[index];
    volume = Volume();
    volume.dir = line.substr(0, comma);
    volume.index = index;
  }
  return 0;
}

int DiskCacheVolumes::saveVolumeInfo() {
  const std::string path = join(m_settings.rootDir, VOLUME_INFO_FNAME, '/');
  std::string text;
  for (const auto& [index, volume] : m_volumes) {
    if (!volume.dir.empty()) text += volume.dir + ',' + std::to_string(volume.index) + '\n';
  }
  std::string written;
  int rc = readWholeFile(path, written);
  if (rc == 0 && written == text) return 0;
  // Whatever else keeps the file from being read is no matter if it can be written. A FIFO that takes its
  // place now must not be waited for.
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC;
  errno = 0;
  const int fd = rc == EINVAL ? -1 : open(path.c_str(), flags, 0600);
  if (fd < 0) {
    if (rc != EINVAL) rc = errno != 0 ? errno : EIO;
    DC_LOG_AT(DC_STEP(saveVolumeInfo), LogLevel::Error, "Can't open %s (%d)", path.c_str(), rc);
    return rc;
  }
  // Errors from here on go unnoticed, as they always have.
  [[maybe_unused]] const ssize_t moved = write(fd, text.data(), text.size());
  close(fd);
  return 0;
}

}  // namespace ObjectStore
