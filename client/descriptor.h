// A descriptor that is closed with its owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace ObjectStore {

struct Descriptor {
  Descriptor() = default;
  explicit Descriptor(int number) : fd(number) {}
  Descriptor(Descriptor&& other) noexcept : fd(other.release()) {}
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
  int release() { return std::exchange(fd, -1); }

  int fd = -1;
};

}  // namespace ObjectStore
