#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

#include "agent/exposition.h"
#include "agent/health.h"

namespace tidegate::agent {

// The points of the last minutes, of all series together. A point takes 8 bytes and 8 for each of
// its values. Memory is taken and given back in chunks: the oldest one goes when its points are
// older than the span, or, which is counted, when all bytes are in use.
//
// Not thread-safe. Borrows `health`.
class PointHistory {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // Where a point is; 0: none. Those of points that are gone stay valid to ask for.
  using Position = uint64_t;

  static constexpr size_t kMinBytes = 1 << 20;

  PointHistory(std::chrono::seconds span, size_t bytes, int64_t now, Health* health);

  // Keeps the values of the cells that have this time, for the others NaN. `before` is the point of
  // the series before this one. Returns 0, and counts the point, if it cannot be kept.
  Position Add(Position before, int64_t timestamp, const Cell* cells, size_t columns,
               TimePoint now) noexcept;

  // Null if there is no such point any more; else its values. `before` becomes the one before.
  const double* Find(Position position, int64_t* timestamp, Position* before) const;

  // Lets go of what is older than the span.
  void Sweep(TimePoint now);

  std::chrono::seconds span() const { return span_; }

 private:
  struct Chunk {
    std::unique_ptr<double[]> words;
    size_t used = 0;
    uint64_t points = 0;
    TimePoint last;
  };

  bool AddChunk(TimePoint now) noexcept;
  void RemoveOldest(TimePoint now);

  const std::chrono::seconds span_;
  const size_t most_chunks_;
  const size_t chunk_words_;
  const int64_t base_;  // seconds since the epoch that times are relative to
  Health* const health_;
  std::deque<Chunk> chunks_;
  uint64_t first_ = 1;  // the number of the oldest chunk
};

}  // namespace tidegate::agent
