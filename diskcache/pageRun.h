// Memory straight from the system, in whole pages that read as zero, for structures that grow in large steps.
// Internal. What goes back goes back to the system at once, whatever the heap holds around it, and pages that
// were never written cost nothing.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace ObjectStore {

class PageRun {
 public:
  static constexpr size_t PAGE = size_t{4} << 10;
  // The size and alignment from which on the system is asked to use large pages: random access to entries
  // would otherwise miss twice, once in the processor's tables of pages.
  static constexpr size_t LARGE_PAGE = size_t{2} << 20;

  PageRun() noexcept = default;
  // `bytes` is a multiple of PAGE. Throws std::bad_alloc.
  explicit PageRun(size_t bytes) : m_bytes(bytes) {
    const size_t slack = bytes >= LARGE_PAGE ? LARGE_PAGE : 0;
    void* const mapped =
        mmap(nullptr, bytes + slack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    char* const front = static_cast<char*>(mapped);
    const size_t lead =
        slack == 0 ? 0 : (LARGE_PAGE - reinterpret_cast<uintptr_t>(front) % LARGE_PAGE) % LARGE_PAGE;
    m_data = front + lead;
    unmap(front, lead);
    unmap(m_data + bytes, slack - lead);
    if (slack != 0) (void)madvise(m_data, bytes, MADV_HUGEPAGE);
  }
  ~PageRun() {
    unmap(m_data, std::min(m_bytes, LARGE_PAGE));
    if (m_bytes > LARGE_PAGE) unmap(m_data + LARGE_PAGE + m_dropped, m_bytes - LARGE_PAGE - m_dropped);
  }
  PageRun(PageRun&& other) noexcept { swap(other); }
  PageRun& operator=(PageRun&& other) noexcept {
    swap(other);
    return *this;
  }
  void swap(PageRun& other) noexcept {
    std::swap(m_data, other.m_data);
    std::swap(m_bytes, other.m_bytes);
    std::swap(m_dropped, other.m_dropped);
  }

  template <typename T>
  T* as() const noexcept {
    return reinterpret_cast<T*>(m_data);
  }
  // What is held now.
  size_t bytes() const noexcept { return m_bytes - m_dropped; }
  bool holds(size_t offset) const noexcept { return offset < LARGE_PAGE || offset >= LARGE_PAGE + m_dropped; }

  // Gives back what lies behind the first large page and before `end`, in large pages. It is not touched again.
  void dropUpTo(size_t end) noexcept {
    end = end / LARGE_PAGE * LARGE_PAGE;
    if (end <= LARGE_PAGE + m_dropped) return;
    unmap(m_data + LARGE_PAGE + m_dropped, end - LARGE_PAGE - m_dropped);
    m_dropped = end - LARGE_PAGE;
  }

 private:
  static void unmap(char* front, size_t bytes) noexcept {
    if (bytes != 0) munmap(front, bytes);
  }

  char* m_data = nullptr;
  size_t m_bytes = 0;
  size_t m_dropped = 0;
};

}  // namespace ObjectStore
