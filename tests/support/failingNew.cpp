#include "tests/support/failingNew.h"

#include <cstdlib>
#include <new>

namespace ObjectStore {

namespace {
thread_local size_t g_left = 0;  // allocations up to and with the one that fails; 0: none fails
}  // namespace

FailingNew::FailingNew(size_t nth) { g_left = nth; }
FailingNew::~FailingNew() { g_left = 0; }
bool FailingNew::happened() const { return g_left == 0; }

}  // namespace ObjectStore

void* operator new(size_t size) {
  const bool fails = ObjectStore::g_left > 0 && --ObjectStore::g_left == 0;
  void* const memory = fails ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (!memory) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
