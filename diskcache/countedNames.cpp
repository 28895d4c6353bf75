#include "diskcache/countedNames.h"

namespace ObjectStore {

CountedNames::Number CountedNames::hold(std::string_view name) {
  auto found = m_numbers.find(name);
  if (found == m_numbers.end()) {
    const Number number = freeNumber();
    found = m_numbers.emplace(name, number).first;
    m_firstFree = m_items[number].nextFree;
    m_items[number].place = found;
  }
  ++m_items[found->second].holders;
  return found->second;
}

CountedNames::Number CountedNames::freeNumber() {
  if (m_firstFree == m_items.size()) {
    m_items.emplace_back();
    m_items.back().nextFree = static_cast<Number>(m_items.size());
  }
  return m_firstFree;
}

void CountedNames::release(Number number) noexcept {
  Item& item = m_items[number];
  if (--item.holders != 0) return;
  m_numbers.erase(item.place);
  item.nextFree = m_firstFree;
  m_firstFree = number;
}

}  // namespace ObjectStore
