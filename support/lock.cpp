#include "support/lock.h"

#include <new>

namespace ObjectStore {

KxCriticalSection::KxCriticalSection() : m_impl(new (std::nothrow) KxCriticalSectionH) {
  if (!m_impl) throw "Not enough memory to initialize KxCriticalSection";
}

}  // namespace ObjectStore
