#include "agent/point_output.h"

#include <algorithm>
#include <utility>

#include "agent/survives.h"

namespace tidegate::agent {
namespace {

constexpr size_t kChunkSize = size_t{64} << 10;

}  // namespace

// A chunk is never split, so it must not be more than a batch.
void PointOutput::End(uint64_t points) noexcept {
  points_ += points;
  const BatchLimits& limits = queue_->limits();
  if (points_ >= limits.batch_points || bytes_.size() >= std::min(kChunkSize, limits.batch_bytes)) {
    Push();
  }
}

void PointOutput::Push() noexcept {
  if (bytes_.empty()) return;
  uint64_t dropped = 0;
  if (!Survives(health_, [&] { dropped = queue_->Append(bytes_, points_); })) return Abandon();
  Drop(ForwardDrop::kFull, dropped);
  points_ = 0;
  // One huge histogram must not be paid for until the end.
  if (bytes_.capacity() > 4 * kChunkSize) {
    bytes_ = std::string();
  } else {
    bytes_.clear();
  }
}

void PointOutput::Abandon() noexcept {
  Drop(ForwardDrop::kMemory, std::exchange(points_, 0));
  bytes_ = std::string();
}

}  // namespace tidegate::agent
