// Memory that runs out.
#pragma once

#include <cstddef>

namespace ObjectStore {

// While it lives, the nth allocation from now on (1 is the next) that this thread makes in our own objects
// throws std::bad_alloc.
class FailingNew {
 public:
  explicit FailingNew(size_t nth);
  ~FailingNew();
  FailingNew& operator=(FailingNew&&) = delete;
  bool happened() const;
};

}  // namespace ObjectStore
