#pragma once

#include <cstdint>
#include <list>
#include <string>

namespace tidegate::agent {

// Points that are sent, retried or dropped together.
struct Batch {
  std::string body;
  uint64_t points = 0;
  bool packed = false;  // compressed: ready to be sent
  bool older = false;   // than a batch that was spooled while this one was being sent, and failed
};

// In a queue, or one on its way: to move a batch from list to list needs no memory.
using Batches = std::list<Batch>;

}  // namespace tidegate::agent
