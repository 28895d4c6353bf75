// What a volume holds at the start: one walk over it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "client/blockName.h"

namespace ObjectStore {

struct FoundBlock {
  BlockId id;
  VolIndex volume;
  int64_t madeAt;  // nanoseconds since 1970
  uint64_t bytes;  // on disk
};

// Appends every block below `dir`, a volume's directory of blocks; calls `progress` now and then with how many
// there are by now. A directory that is missing holds none; what cannot be read is logged and left out, and the result
// is such an error's number, EIO only where there was no other, or 0.
int findBlocks(const std::string& dir, VolIndex volume, std::vector<FoundBlock>& out,
               const std::function<void(uint64_t)>& progress);

}  // namespace ObjectStore
