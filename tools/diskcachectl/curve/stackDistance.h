// How far down a list of the most recently used objects each request finds its object.
#pragma once

#include <cstdint>
#include <vector>

namespace diskcachectl {

// What a request found. A cache holds the object when it holds at least so many objects, or bytes.
struct Distance {
  bool isKnown = false;  // asked for before, and of the same size
  uint64_t entries = 0;  // objects asked for since, this one included
  uint64_t bytes = 0;    // their sizes
};

// One pass over requests; each takes the logarithm of the number of objects, and memory grows with that number (some
// 60 bytes an object), not with the number of requests. Objects are told apart by a hash of 128 bits.
class StackDistance {
 public:
  StackDistance();

  struct Id {
    uint64_t high, low;
    bool operator==(const Id&) const = default;
  };
  // With `keepsSize` an object has the size of its first request; otherwise another size is another object's, in
  // place of the old one.
  Distance request(Id id, uint32_t size, bool keepsSize);

  uint64_t objects() const { return m_objects; }

 private:
  struct Slot {
    Id id;
    uint32_t size;  // 0: free
    uint32_t last;  // place in the order of requests
  };
  struct Node {
    uint64_t bytes = 0;
    uint32_t count = 0;
  };

  Slot& find(Id id);
  void growTable();
  // Numbers the objects' places anew from 0 and makes room for as many requests again.
  void renumber();
  void add(uint32_t place, uint64_t bytes, uint32_t count);
  Node upTo(uint32_t place) const;

  std::vector<Slot> m_table;  // open addressing; its size is a power of two
  uint64_t m_objects = 0;
  std::vector<Node> m_tree;  // Fenwick; an object counts at the place of its last request
  uint32_t m_next = 0;       // place
  uint64_t m_bytes = 0;      // of all objects
};

}  // namespace diskcachectl
