#include "metrics/metric_summary.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <utility>

#include "util/fork_guard.h"
#include "util/line_allocator.h"
#include "util/metric_data_util.h"
#include "util/thread_slot.h"

namespace METRICS {
namespace {

constexpr double kPercentiles[] = {0.5, 0.9, 0.95, 0.99, 0.999};

SpreadCells spread_timers;

static_assert(2 * sizeof(void*) + sizeof(MetricSummaryVecV2) <= kCacheLineBytes,
              "an emission waits for one line of the cell, its owners' counts included");

}  // namespace

std::vector<double> SummarizeSamples(double* samples, size_t count) {
  assert(count != 0);
  SortNumbersFirst(samples, samples + count);
  const auto n = static_cast<double>(count);
  // From the smallest to the largest, so that a set of samples has one sum.
  const double sum = std::accumulate(samples, samples + count, 0.0);
  std::vector<double> summary;
  summary.reserve(kMetricSummaryArraySize);
  summary.insert(summary.end(), {samples[0], samples[count - 1], sum / n, sum, n});
  for (const double q : kPercentiles) {
    summary.push_back(samples[static_cast<size_t>(q * n)]);
  }
  return summary;
}

ChainedVector::~ChainedVector() {
  while (head_ != nullptr) {
    FreeHead();
  }
}

ChainedVector::ChainedVector(ChainedVector&& other) noexcept
    : head_(std::exchange(other.head_, nullptr)),
      block_index_(std::exchange(other.block_index_, 0)),
      blocks_at_size_(std::exchange(other.blocks_at_size_, 0xffff)) {}

void ChainedVector::AddBlock(double value) {
  ExpandBlockSize();
  const uint16_t capacity = block_sizes_[block_index_];
  auto* const block = static_cast<Block*>(std::malloc(sizeof(Block) + capacity * sizeof(double)));
  if (block == nullptr) {
    std::abort();
  }
  block->next = head_;
  block->used = 1;
  block->capacity = capacity;
  block->Samples()[0] = value;
  head_ = block;
}

void ChainedVector::ExpandBlockSize() {
  static constexpr uint16_t block_size_len = 5;
  constexpr uint16_t kLastOfSize = 3;
  if (block_index_ == block_size_len) {
    return;
  }
  if (blocks_at_size_ == kLastOfSize) {
    ++block_index_;
    blocks_at_size_ = 0;
  } else {
    ++blocks_at_size_;
  }
}

void ChainedVector::FreeHead() {
  Block* const block = head_;
  head_ = block->next;
  std::free(block);
}

void ChainedVector::Append(ChainedVector other) {
  if (other.IsEmpty()) {
    return;
  }
  Block* last = other.head_;
  while (last->next != nullptr) {
    last = last->next;
  }
  last->next = head_;
  head_ = std::exchange(other.head_, nullptr);
}

std::vector<double> ChainedVector::Send() {
  assert(!IsEmpty());
  size_t samples = 0;
  for (const Block* block = head_; block != nullptr; block = block->next) {
    samples += block->used;
  }
  const std::unique_ptr<double[]> flat(new double[samples]);
  size_t copied = 0;
  while (head_ != nullptr) {
    std::memcpy(flat.get() + copied, head_->Samples(), head_->used * sizeof(double));
    copied += head_->used;
    FreeHead();
  }
  block_index_ = 0;
  blocks_at_size_ = 0xffff;
  return SummarizeSamples(flat.get(), copied);
}

MetricSummaryVecV1::~MetricSummaryVecV1() { RepairInForkTeardown(mutex_, samples_); }

void MetricSummaryVecV1::Emit(const long& value) { Emit(static_cast<double>(value)); }

void MetricSummaryVecV1::Emit(const double& value) {
  const WriteGuard guard(mutex_);
  samples_.push_back(value);
}

SendRes MetricSummaryVecV1::Send(const unsigned int& /*interval*/) {
  std::vector<double> samples;
  {
    const WriteGuard guard(mutex_);
    samples.swap(samples_);
  }
  if (samples.empty()) {
    return no_flush_res_;
  }
  return {false, SummarizeSamples(samples.data(), samples.size()), 0.0, kMetricSummaryArraySize};
}

MetricSummaryVecV2::Chain::~Chain() { RepairInForkTeardown(mutex_, samples_); }

void MetricSummaryVecV2::Chain::Add(double value) {
  const WriteGuard guard(mutex_);
  samples_.Add(value);
}

ChainedVector MetricSummaryVecV2::Chain::Take() {
  const WriteGuard guard(mutex_);
  return std::move(samples_);
}

MetricSummaryVecV2::~MetricSummaryVecV2() {
  RepairInForkTeardown(mutex_, samples_);
  delete chains_.load(std::memory_order_relaxed);
}

void MetricSummaryVecV2::Emit(const long& value) { Emit(static_cast<double>(value)); }

void MetricSummaryVecV2::Emit(const double& value) {
  if (SpreadParts<Chain>* const chains = chains_.load(std::memory_order_acquire)) {
    (*chains)[ThreadSlot()].Add(value);
  } else if (mutex_.TryLock()) {
    samples_.Add(value);
    mutex_.Unlock();
  } else {
    EmitColliding(value);
  }
}

void MetricSummaryVecV2::EmitColliding(double value) {
  bool often = false;
  {
    const WriteGuard guard(mutex_);
    samples_.Add(value);
    often = collisions_ < kCollisionsToSpread && ++collisions_ == kCollisionsToSpread;
  }
  if (often) {
    Spread();
  }
}

void MetricSummaryVecV2::Spread() {
  auto chains = SpreadParts<Chain>::Make(spread_timers, PartsForThreads(), sizeof(Chain));
  SpreadParts<Chain>* none = nullptr;
  if (chains != nullptr &&
      chains_.compare_exchange_strong(none, chains.get(), std::memory_order_release)) {
    static_cast<void>(chains.release());
  }
}

SendRes MetricSummaryVecV2::Send(const unsigned int& /*interval*/) {
  ChainedVector samples = TakeSamples();
  if (samples.IsEmpty()) {
    return no_flush_res_;
  }
  return {false, samples.Send(), 0.0, 1};
}

ChainedVector MetricSummaryVecV2::TakeSamples() {
  ChainedVector samples = [this] {
    const WriteGuard guard(mutex_);
    collisions_ = 0;
    return ChainedVector(std::move(samples_));
  }();
  if (SpreadParts<Chain>* const chains = chains_.load(std::memory_order_acquire)) {
    chains->ForEach([&samples](Chain& chain) { samples.Append(chain.Take()); });
  }
  return samples;
}

MetricSummaryCKMS::MetricSummaryCKMS() : quantiles_(std::make_unique<CKMSQuantiles>()) {}

MetricSummaryCKMS::~MetricSummaryCKMS() = default;

void MetricSummaryCKMS::Emit(const long& value) { quantiles_->Insert(static_cast<double>(value)); }

void MetricSummaryCKMS::Emit(const double& value) { quantiles_->Insert(value); }

SendRes MetricSummaryCKMS::Send(const unsigned int& interval) { return quantiles_->Send(interval); }

}  // namespace METRICS
