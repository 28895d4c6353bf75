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
// cache in use. An engine of this process goes on all the same, so that the lock is never let go in between.
class RootClaim {
 public:
  // Throws a Failure that names the process when a server has the cache. A root that is not there is free.
  explicit RootClaim(const std::string& root);
  ~RootClaim();
  RootClaim(const RootClaim&) = delete;
  RootClaim& operator=(const RootClaim&) = delete;

  // Takes a root that was not there and has been made since.
  void takeMade();
  // Leaves "client.lock" to a cache of named objects of this process, which opens only when nobody has that.
  void passOnClient();

 private:
  RootClaim() = default;

  std::string m_root;
  int m_rootFd = -1;
  int m_clientFd = -1;
};

}  // namespace diskcachectl
