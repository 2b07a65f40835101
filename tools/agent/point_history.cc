#include "agent/point_history.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace tidegate::agent {
namespace {

constexpr size_t kChunks = 64;

// In the word before the values: how many words before it the point before is, 0 for none, and the
// time.
struct Head {
  uint32_t back;
  int32_t seconds;
};
static_assert(sizeof(Head) == sizeof(double));

}  // namespace

PointHistory::PointHistory(std::chrono::seconds span, size_t bytes, int64_t now, Health* health)
    : span_(span),
      most_chunks_(kChunks),
      chunk_words_(std::max(bytes, kMinBytes) / kChunks / sizeof(double)),
      base_(now),
      health_(health) {}

PointHistory::Position PointHistory::Add(Position before, int64_t timestamp, const Cell* cells,
                                         size_t columns, TimePoint now) noexcept {
  const size_t size = columns + 1;
  const bool timely = timestamp >= base_ + std::numeric_limits<int32_t>::min() &&
                      timestamp <= base_ + std::numeric_limits<int32_t>::max();
  if (!timely || size > chunk_words_ ||
      ((chunks_.empty() || chunks_.back().used + size > chunk_words_) && !AddChunk(now))) {
    ++health_->history_dropped_points;
    return 0;
  }
  Chunk& chunk = chunks_.back();
  const Position position = (first_ + chunks_.size() - 1) * chunk_words_ + chunk.used;
  const uint64_t back = before == 0 ? 0 : position - before;
  const Head head = {back > UINT32_MAX ? 0 : static_cast<uint32_t>(back),
                     static_cast<int32_t>(timestamp - base_)};
  double* word = &chunk.words[chunk.used];
  std::memcpy(word++, &head, sizeof(head));
  for (size_t i = 0; i < columns; ++i) {
    *word++ =
        cells[i].timestamp == timestamp ? cells[i].value : std::numeric_limits<double>::quiet_NaN();
  }
  chunk.used += size;
  ++chunk.points;
  chunk.last = now;
  ++health_->history_points;
  return position;
}

const double* PointHistory::Find(Position position, int64_t* timestamp, Position* before) const {
  const uint64_t number = position / chunk_words_;
  if (number < first_ || number - first_ >= chunks_.size()) return nullptr;
  const double* const word = &chunks_[number - first_].words[position % chunk_words_];
  Head head;
  std::memcpy(&head, word, sizeof(head));
  *timestamp = base_ + head.seconds;
  *before = head.back == 0 ? 0 : position - head.back;
  return word + 1;
}

void PointHistory::Sweep(TimePoint now) {
  while (!chunks_.empty() && now - chunks_.front().last > span_) RemoveOldest(now);
}

bool PointHistory::AddChunk(TimePoint now) noexcept {
  if (chunks_.size() == most_chunks_) RemoveOldest(now);
  Chunk chunk;
  chunk.words.reset(new (std::nothrow) double[chunk_words_]);
  if (chunk.words == nullptr) return false;
  try {
    chunks_.push_back(std::move(chunk));
  } catch (const std::bad_alloc&) {
    return false;
  }
  health_->history_bytes = chunks_.size() * chunk_words_ * sizeof(double);
  return true;
}

void PointHistory::RemoveOldest(TimePoint now) {
  const Chunk& oldest = chunks_.front();
  health_->history_points -= oldest.points;
  if (now - oldest.last <= span_) health_->history_dropped_points += oldest.points;
  chunks_.pop_front();
  ++first_;
  health_->history_bytes = chunks_.size() * chunk_words_ * sizeof(double);
}

}  // namespace tidegate::agent
