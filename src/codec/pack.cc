#include "codec/pack.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace lattice_kit::codec {

Pack::Pack(int32_t initial_capacity)
    : begin(static_cast<char*>(std::malloc(static_cast<size_t>(initial_capacity)))),
      cursor(begin),
      capacity(initial_capacity) {
  if (begin == nullptr) {
    throw std::bad_alloc();
  }
}

Pack::~Pack() {
  std::free(begin);
  begin = nullptr;
  cursor = nullptr;
  capacity = 0;
}

void Pack::PutRaw(const void* data, int32_t n) {
  if (n <= 0) {
    return;
  }
  Reserve(n);
  std::memcpy(cursor, data, static_cast<size_t>(n));
  cursor += n;
}

void Pack::Clear() {
  if (begin == nullptr) {
    return;
  }
  cursor = begin;
  if (capacity > kMostKeptBytes) {
    Reallocate(kPacketBytes);
  }
}

void Pack::Grow(int32_t n) {
  constexpr int32_t kStep = 1024;
  const int32_t missing = std::max(Used() + n - capacity, kStep);
  Reallocate(capacity + (missing + kStep - 1) / kStep * kStep);
}

void Pack::Reallocate(int32_t new_capacity) {
  const int32_t used = Used();
  void* const moved = std::realloc(begin, static_cast<size_t>(new_capacity));
  if (moved == nullptr) {
    throw std::bad_alloc();
  }
  begin = static_cast<char*>(moved);
  cursor = begin + used;
  capacity = new_capacity;
}

}  // namespace lattice_kit::codec
