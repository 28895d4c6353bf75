// Whether a server has a cache in use, and keeping servers out while a command changes the cache.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace diskcachectl {

struct Server {
  pid_t pid = 0;     // 0: the system does not tell
  std::string name;  // of its program; may be empty
  // "process 4711 (diskcached)"
  std::string text() const;
};

// Who holds the lock on a root directory, as the system's table of locks tells. Takes no lock itself.
std::optional<Server> serverOn(const std::string& root);

// Says in one line on standard error that a server runs on the root, if one does.
void tellServer(const std::string& root);

// What a server takes of a root directory, held for as long as this lives: one that is started meanwhile finds the
// cache in use.
class RootClaim {
 public:
  // Throws a Failure that names the process when a server has the cache. A root that is not there is free.
  explicit RootClaim(const std::string& root);
  ~RootClaim();
  RootClaim(const RootClaim&) = delete;
  RootClaim& operator=(const RootClaim&) = delete;

  // Leaves the root directory's lock to an engine of this process.
  void passOn();

 private:
  int m_rootFd = -1;
  int m_clientFd = -1;
};

}  // namespace diskcachectl
