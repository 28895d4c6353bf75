// A part of one version of an object, from the store into memory.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <string>

#include "object/objectInfo.h"
#include "origin/origin.h"

namespace diskcached {

struct FetchOutcome {
  // ESTALE: the store has another version by now; ENOTSUP: it gives the whole object only; ETIMEDOUT, EIO,
  // EACCES
  int errNo = 0;
  std::string error{};
};

// Fills `to` from `from`, which lie in the object. `onBytes` is told of each piece that came, in order.
// Goes on where it was when the store breaks off in the middle.
FetchOutcome fetchPart(Origin& origin, const std::string& key, const ObjectInfo& info, uint64_t from,
                       std::span<std::byte> to,
                       const std::function<void(std::span<const std::byte>)>& onBytes);

}  // namespace diskcached
