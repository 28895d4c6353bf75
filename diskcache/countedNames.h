// Names as small numbers, each kept once for as long as somebody holds it. Internal, not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace ObjectStore {

class CountedNames {
 public:
  using Number = uint32_t;

  // The number of a name, held once more. Throws std::bad_alloc and leaves everything as it was.
  Number hold(std::string_view name);
  void holdAgain(Number number) noexcept { ++m_items[number].holders; }
  // Gives up one hold; with the last one the name goes and its number may stand for another.
  void release(Number number) noexcept;

  const std::string& name(Number number) const noexcept { return m_items[number].place->first; }
  uint64_t holders(Number number) const noexcept { return m_items[number].holders; }
  size_t size() const noexcept { return m_numbers.size(); }

 private:
  using Numbers = std::map<std::string, Number, std::less<>>;
  struct Item {
    Numbers::iterator place;
    uint64_t holders = 0;
    Number nextFree = 0;
  };

  Number freeNumber();

  Numbers m_numbers;
  std::vector<Item> m_items;
  Number m_firstFree = 0;  // m_items.size() when none is free
};

}  // namespace ObjectStore
