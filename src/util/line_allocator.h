#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace METRICS {

constexpr size_t kCacheLineBytes = 64;

/// Allocates at the start of a cache line, so that what is changed often shares its line with
/// nothing after it but what it was allocated with. An object of up to 56 bytes takes no more
/// memory for it: that and the heap's own word are a line.
template <class T>
struct LineAllocator {
  using value_type = T;

  LineAllocator() = default;
  template <class U>
  explicit LineAllocator(const LineAllocator<U>& /*other*/) {}

  T* allocate(size_t count) {
    void* memory = nullptr;
    // Unlike operator new, this does not round the size up to whole lines. Two lines, as glibc puts
    // what it cuts off for one line aside, 100 bytes each time, but joins larger pieces again.
    if (::posix_memalign(&memory, 2 * kCacheLineBytes, count * sizeof(T)) != 0) {
      throw std::bad_alloc();
    }
    return static_cast<T*>(memory);
  }
  void deallocate(T* memory, size_t /*count*/) { std::free(memory); }

  friend bool operator==(const LineAllocator&, const LineAllocator&) { return true; }
  friend bool operator!=(const LineAllocator&, const LineAllocator&) { return false; }
};

}  // namespace METRICS
