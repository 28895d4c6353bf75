// What clients changed at a migration's destination while it ran.
//
// Internal. Names are paths below a volume's root. They are kept in memory and, so that a killed process's
// are known to the next one, in a file: each name with a NUL behind it, in the order in which they were
// added. Any thread may call any operation.
#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_set>
#include <vector>

#include "diskcache/lockOrder.h"
#include "support/lock.h"

namespace ObjectStore {

class MigrationChanges {
 public:
  MigrationChanges() = default;
  ~MigrationChanges();
  MigrationChanges(const MigrationChanges&) = delete;
  MigrationChanges& operator=(const MigrationChanges&) = delete;

  // Begins without names; a file of this path goes.
  void begin(const std::string& path);
  // Begins with the names in the file, if there is one: 0, or why it cannot be read.
  int resume(const std::string& path);
  // Remembers a name, also when the file cannot: that is then told by the system error number. It is told
  // before the change is made, so that a kill in between leaves a name too many and never one too few.
  int add(const std::string& name);
  std::vector<std::string> names();
  // Forgets all names and removes the file; what is added until the next begin is of no use to anybody.
  void end();

 private:
  void reset(const std::string& path) DC_REQUIRES(m_lock);
  void closeFile() DC_REQUIRES(m_lock);
  int append(const std::string& name) DC_REQUIRES(m_lock);

  KxCriticalSection m_lock DC_ACQUIRED_AFTER(lockOrder::leaves);
  std::string m_path DC_GUARDED_BY(m_lock);
  int m_fd DC_GUARDED_BY(m_lock) = -1;    // made with the first name
  off_t m_end DC_GUARDED_BY(m_lock) = 0;  // of the last whole name
  bool m_hasFile DC_GUARDED_BY(m_lock) = false;
  std::unordered_set<std::string> m_names DC_GUARDED_BY(m_lock);
};

}  // namespace ObjectStore
