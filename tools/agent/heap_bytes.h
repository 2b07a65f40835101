#pragma once

#include <cstddef>
#include <string>

namespace tidegate::agent {

// The bytes that the heap and the tables add to each piece of memory, about.
inline constexpr size_t kHeapOverhead = 16;

// The bytes that a text takes outside of its string.
inline size_t HeapBytes(const std::string& text) {
  static const size_t within = std::string().capacity();
  return text.size() > within ? text.size() + kHeapOverhead : 0;
}

}  // namespace tidegate::agent
