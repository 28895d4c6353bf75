// Which bytes of a text must not reach a terminal or a log as they are. Internal; header only, so that the
// operator's tool, which sees no internals of the library, has the same rule.
#pragma once

#include <cstddef>
#include <string_view>

namespace ObjectStore {

// How many bytes at the front of a text that is not empty make up a character that may act on a terminal or
// show the rest in another order than it has: a control character (the upper ones as UTF-8), or one that
// directs how left-to-right and right-to-left writing mix. 0 for any other.
inline size_t controlAtFront(std::string_view text) {
  const auto at = [text](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const auto isIn = [](unsigned value, unsigned first, unsigned last) {
    return value >= first && value <= last;
  };
  switch (at(0)) {
    case 0xc2: return isIn(at(1), 0x80, 0x9f) ? 2 : 0;  // U+0080 to U+009F
    case 0xd8: return at(1) == 0x9c ? 2 : 0;            // U+061C
    case 0xe2:                                          // U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069
      return (at(1) == 0x80 && (isIn(at(2), 0x8e, 0x8f) || isIn(at(2), 0xaa, 0xae))) ||
                     (at(1) == 0x81 && isIn(at(2), 0xa6, 0xa9))
                 ? 3
                 : 0;
    default: return at(0) < 0x20 || at(0) == 0x7f ? 1 : 0;
  }
}

}  // namespace ObjectStore
