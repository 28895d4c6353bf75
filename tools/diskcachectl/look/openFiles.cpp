#include "look/openFiles.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string>
#include <system_error>

namespace diskcachectl {

namespace fs = std::filesystem;

namespace {

template <typename Visit>
void forEach(const fs::path& dir, Visit visit) {
  std::error_code error;
  fs::directory_iterator entry(dir, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) visit(entry->path());
}

}  // namespace

OpenFiles::OpenFiles() {
  forEach("/proc", [this](const fs::path& process) {
    const std::string name = process.filename();
    const bool isProcess =
        std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isdigit(c); });
    if (!isProcess) return;
    forEach(process / "fd", [this](const fs::path& descriptor) {
      struct stat status {};
      if (stat(descriptor.c_str(), &status) == 0) m_files.emplace(status.st_dev, status.st_ino);
    });
  });
}

}  // namespace diskcachectl
