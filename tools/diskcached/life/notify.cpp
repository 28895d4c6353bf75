#include "life/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace diskcached {

void notifyManager(std::string_view state) {
  const char* const name = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  if (name == nullptr || *name == '\0' || std::strlen(name) >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name, std::strlen(name));
  if (*name == '@') address.sun_path[0] = '\0';  // a name outside the file system
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(name));
  (void)!sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                size);
  close(fd);
}

}  // namespace diskcached
