// A request's body in a file that has no name, so that its length is no matter of memory.
//
// Used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace diskcached {

class Spool {
 public:
  Spool() = default;
  ~Spool();
  Spool(const Spool&) = delete;
  Spool& operator=(const Spool&) = delete;

  // Each returns 0 or why not. A twentieth of the file system stays free (ENOSPC).
  int open(const std::string& dir);
  int append(std::span<const std::byte> bytes);
  // Makes all that was appended one span, for as long as the spool lives.
  int map(std::span<const std::byte>& bytes);

 private:
  bool hasRoom() const;

  int m_fd = -1;
  uint64_t m_size = 0;
  void* m_mapped = nullptr;
};

}  // namespace diskcached
