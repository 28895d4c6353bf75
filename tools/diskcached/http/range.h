// Which bytes of an object a request wants. Pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace diskcached {

struct ByteRange {
  uint64_t from = 0;
  uint64_t size = 0;
};

struct RangeChoice {
  enum Kind { Whole, Part, Unsatisfiable } kind = Whole;
  ByteRange range{};
};

// What a Range header asks of an object. Several ranges, another unit and nonsense: the whole.
RangeChoice chooseRange(std::string_view header, uint64_t objectSize);

struct ContentRange {
  uint64_t from = 0;
  uint64_t last = 0;
  std::optional<uint64_t> total{};  // none for '*'
};
// "bytes 0-99/1234", as an origin answers.
std::optional<ContentRange> parseContentRange(std::string_view header);

// Digits only.
std::optional<uint64_t> parseNumber(std::string_view text);

}  // namespace diskcached
