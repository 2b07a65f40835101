#pragma once

// Replaces operator new: it fails where the source that includes this, one per program, says so.

#include <cstdlib>
#include <new>

// NOLINTBEGIN(misc-definitions-in-headers): a replacement must not be inline.

static bool NextAllocationFails();

[[gnu::noinline]] void* operator new(size_t size) {
  void* const memory = NextAllocationFails() ? nullptr : std::malloc(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return NextAllocationFails() ? nullptr : std::malloc(size);
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t /*size*/) noexcept {
  std::free(memory);
}
void* operator new[](size_t size) { return operator new(size); }
void operator delete[](void* memory) noexcept { operator delete(memory); }
void operator delete[](void* memory, size_t /*size*/) noexcept { operator delete(memory); }

// NOLINTEND(misc-definitions-in-headers)
