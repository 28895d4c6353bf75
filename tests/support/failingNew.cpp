#include "tests/support/failingNew.h"

#include <new>

namespace ObjectStore {

namespace {
thread_local size_t g_left = 0;  // allocations up to and with the one that fails; 0: none fails
}  // namespace

FailingNew::FailingNew(size_t nth) { g_left = nth; }
FailingNew::~FailingNew() { g_left = 0; }
bool FailingNew::happened() const { return g_left == 0; }

}  // namespace ObjectStore

// operator new, as our own objects call it; a sanitizer's stays in its place.
extern "C" void* __real__Znwm(size_t size);
extern "C" void* __wrap__Znwm(size_t size) {
  using ObjectStore::g_left;
  if (g_left > 0 && --g_left == 0) throw std::bad_alloc();
  return __real__Znwm(size);
}
