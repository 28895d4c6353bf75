// Which files processes have open.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <set>
#include <utility>

namespace diskcachectl {

// As far as the system lets this user see: root sees all.
class OpenFiles {
 public:
  OpenFiles();
  bool has(const struct stat& status) const { return m_files.contains({status.st_dev, status.st_ino}); }

 private:
  std::set<std::pair<dev_t, ino_t>> m_files;
};

}  // namespace diskcachectl
