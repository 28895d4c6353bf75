// What a recency list cannot do without: a list of the records, newest first, and a map from identifier to
// place whose keys view the records. No lock, no client to ask.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

namespace bench {

class BareList {
 public:
  // Makes a segment the newest one; a full list forgets its oldest.
  void touch(const std::string& guid, uint16_t volume, std::string_view dir, size_t most) {
    if (const auto found = m_map.find(guid); found != m_map.end()) {
      m_list.splice(m_list.begin(), m_list, found->second);
      return;
    }
    if (m_list.size() >= most) {
      m_map.erase(m_list.back().guid);
      m_list.pop_back();
    }
    m_list.push_front({guid, volume, dir});
    m_map.emplace(m_list.front().guid, m_list.begin());
  }

 private:
  struct Record {
    std::string guid;
    uint16_t volume;
    std::string_view dir;
  };
  std::list<Record> m_list;
  std::unordered_map<std::string_view, std::list<Record>::iterator> m_map;
};

}  // namespace bench
