#pragma once

#include <cstdint>
#include <string>

#include "agent/batch_queue.h"
#include "agent/destination_numbers.h"
#include "agent/health.h"

namespace tidegate::agent {

// Where a PointWriter puts points on their way to a queue: it appends bytes, says where a point
// ends, and what it had to leave out. Whole points go to the queue in chunks, as a packet can be
// long.
//
// Not thread-safe: the decoder's thread. Borrows all that it is given.
class PointOutput {
 public:
  PointOutput(BatchQueue* queue, DestinationNumbers* numbers, Health* health)
      : queue_(queue), numbers_(numbers), health_(health) {}

  // The bytes of the points that have not gone to the queue, to append to. What is appended may go
  // to the receiver in any body that has what was appended before it.
  std::string* bytes() { return &bytes_; }

  // What was appended since the last End is `points` whole points. May hand them to the queue; if
  // there is no memory for that, they are dropped and counted.
  void End(uint64_t points) noexcept;

  // Counts points that are not written.
  void Drop(ForwardDrop reason, uint64_t points) { numbers_->Dropped(reason) += points; }

  // Hands all whole points to the queue.
  void Push() noexcept;

  // Drops and counts the points that have not gone to the queue.
  void Abandon() noexcept;

 private:
  BatchQueue* const queue_;
  DestinationNumbers* const numbers_;
  Health* const health_;
  std::string bytes_;
  uint64_t points_ = 0;  // in bytes_
};

}  // namespace tidegate::agent
