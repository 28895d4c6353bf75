// What a request's head must be before anything else looks at it, so that nobody between a client and this
// server can take its end for another place than this server does. Pure functions.
#pragma once

#include <cstddef>
#include <string_view>

namespace diskcached {

struct HeadEnd {
  size_t size = 0;      // of the head with its empty line; 0 when its end has not come yet
  bool isBare = false;  // a line feed without its carriage return
};
// Looks from `from` on, which is at most where an earlier look ended.
HeadEnd findHeadEnd(std::string_view bytes, size_t from);

struct Refusal {
  unsigned status = 0;  // 0: none
  std::string_view reason{};
};
// Of a whole head: a wrong request line, folded lines, blanks before a colon, control characters, two lengths
// or hosts, a length beside a transfer coding, a coding other than chunked.
Refusal refusalOf(std::string_view head);

}  // namespace diskcached
