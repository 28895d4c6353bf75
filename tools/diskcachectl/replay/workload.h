// What a replay asks for, and the origin that has the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace diskcachectl {

inline constexpr uint64_t MAX_OBJECT_SIZE = 0x7ffff000;

struct Request {
  uint32_t object;  // position among the workload's objects
  uint32_t size;    // bytes; never 0
};

// A row of requests for objects. Constant once made; any thread may use it.
class Workload {
 public:
  Workload() = default;
  Workload(const Workload&) = delete;
  Workload& operator=(const Workload&) = delete;
  virtual ~Workload() = default;

  // How many requests make one run when the user does not say.
  virtual uint64_t defaultLength() const = 0;
  // The n-th request of any number.
  virtual Request request(uint64_t n) const = 0;
  virtual uint32_t objects() const = 0;
  // Bytes of the largest request.
  virtual uint32_t largest() const = 0;
  virtual std::string identifier(uint32_t object) const = 0;
  // Gets an object's bytes from offset `from` on from the origin: those that `to` has room for and the object has.
  // Throws a Failure that names what is in the way.
  virtual void fetch(const Request& request, uint64_t from, std::span<std::byte> to) const = 0;
  // What of the input is not among the objects and why; "" when nothing was left out.
  virtual std::string leftOut() const { return ""; }
};

// Files below a directory, drawn by a Zipf law. Throws a Failure when there is none.
std::unique_ptr<Workload> makeDirectoryWorkload(const std::string& dir, double zipfExponent, uint64_t seed);

// The lines of a trace file; `byId`: an object has the size of its first line, whatever later ones say. Throws a
// Failure that names the first line that cannot be used.
std::unique_ptr<Workload> makeTraceWorkload(const std::string& path, bool byId);

}  // namespace diskcachectl
