// The head of an answer, as text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace diskcached {

class AnswerHead {
 public:
  explicit AnswerHead(unsigned status);
  void add(std::string_view name, std::string_view value);
  void add(std::string_view name, uint64_t value);
  unsigned status() const { return m_status; }
  // With the empty line at its end.
  std::string finish(bool isKeptAlive);

 private:
  const unsigned m_status;
  std::string m_text;
};

}  // namespace diskcached
