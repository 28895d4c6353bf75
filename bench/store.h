// One face for everything that keeps segments: the floor, the cache and its peers.
//
// A wrong result or an unexpected failure ends the program.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::span<const unsigned char>;
using Buffer = std::span<unsigned char>;

// Identifiers, made before any timing; the operations name a segment by its position here.
using Guids = std::vector<std::string>;
Guids makeGuids(size_t count);

// One thread's way into a store.
class Session {
 public:
  virtual ~Session() = default;
  virtual void create(size_t segment, Bytes payload, bool isSynced) = 0;
  // Fills `out` from a place of the payload; false when there is no such segment.
  virtual bool read(size_t segment, uint64_t offset, Buffer out) = 0;
  virtual void overwrite(size_t segment, Bytes payload) = 0;
  virtual void remove(size_t segment) = 0;
};

class Store {
 public:
  virtual ~Store() = default;
  // Valid as long as the store.
  virtual std::unique_ptr<Session> session() = 0;
  // Puts what was created where it is to stay, so that reads do not find it in a writer's buffer.
  virtual void settle() {}
  // Around each timed batch: for what the whole process has one of, like the log.
  virtual void activate(bool /*isActive*/) {}
};

using StoreMaker = std::function<std::unique_ptr<Store>(const std::string& dir, const Guids& guids)>;

// Another program's library that was there when this was built.
struct Peer {
  std::string name;
  std::string settings;  // in words, for the table's foot
  StoreMaker make;
};

// Each peer's source file adds its own.
std::vector<Peer>& peers();
bool addPeer(Peer peer);

}  // namespace bench
