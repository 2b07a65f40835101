#include "metrics/adding_sums.h"

#include "util/metric_data_util.h"
#include "util/spread_parts.h"

namespace METRICS {

AddingSums::~AddingSums() {
  const uint32_t state = state_.load(std::memory_order_relaxed);
  if (state >= kFirstSpread) {
    GiveBackSpreadSum(state - kFirstSpread);
  }
}

void AddingSums::AddElsewhere(long value) {
  const uint32_t slot = ThreadSlot();
  uint32_t state = state_.load(std::memory_order_acquire);
  if (slot != kNoThreadSlot) {
    if (state >= kFirstSpread) {
      AddAlone(PartOf(state - kFirstSpread, slot).integers, value);
      return;
    }
    if (value == 0) {
      return;  // makes nobody the owner
    }
    if (state == slot || (state == kNoOwner &&
                          state_.compare_exchange_strong(state, slot, std::memory_order_relaxed))) {
      AddAlone(own_sum_, value);
      return;
    }
  }
  AddShared(value);
}

void AddingSums::AddShared(long value) {
  const long of_owner = own_sum_.load(std::memory_order_relaxed);
  long seen = long_sum_.load(std::memory_order_relaxed);
  const bool added =
      long_sum_.compare_exchange_strong(seen, Plus(seen, value), std::memory_order_relaxed);
  if (!added) {
    long_sum_.fetch_add(value, std::memory_order_relaxed);
  }
  // The owner's word is on the same line: whoever writes it at this moment is waited for as well.
  if (!added || own_sum_.load(std::memory_order_relaxed) != of_owner) {
    CountCollision();
  }
}

void AddingSums::AddReal(double value) {
  std::atomic<double>* sum = &double_sum_;
  const uint32_t state = state_.load(std::memory_order_acquire);
  if (state >= kFirstSpread && ThreadSlot() != kNoThreadSlot) {
    sum = &PartOf(state - kFirstSpread, TakenThreadSlot()).reals;
  }
  double seen = sum->load(std::memory_order_relaxed);
  if (!sum->compare_exchange_strong(seen, seen + value)) {
    FetchAddD(*sum, value);
    CountCollision();
  }
}

void AddingSums::CountCollision() {
  const auto collisions = static_cast<uint8_t>(collisions_.load(std::memory_order_relaxed) + 1);
  collisions_.store(collisions, std::memory_order_relaxed);
  if (collisions >= kCollisionsToSpread) {
    collisions_.store(0, std::memory_order_relaxed);
    Spread();
  }
}

void AddingSums::Spread() {
  if (IsSpread()) {
    return;
  }
  const uint32_t sum = TakeSpreadSum();
  if (sum == kNoSpreadSum) {
    return;
  }
  uint32_t state = state_.load(std::memory_order_relaxed);
  while (state < kFirstSpread) {
    // With release: whoever sees the number sees its parts at 0.
    if (state_.compare_exchange_weak(state, kFirstSpread + sum, std::memory_order_release,
                                     std::memory_order_relaxed)) {
      return;
    }
  }
  GiveBackSpreadSum(sum);  // another thread was first
}

void AddingSums::CountFlush(bool was_quiet) {
  if (was_quiet) {
    idle_flushes_.store(1);  // as if the emission had been seen before
  } else {
    idle_flushes_.fetch_add(1);
  }
  if (collisions_.load(std::memory_order_relaxed) != 0) {
    collisions_.store(0, std::memory_order_relaxed);
  }
}

template <class Visit>
void AddingSums::ForEachOwnPart(Visit visit) const {
  const uint32_t state = state_.load(std::memory_order_acquire);
  if (state >= kFirstSpread) {
    ForEachPart(state - kFirstSpread, visit);
  }
}

long AddingSums::Integers() const {
  long sum = Plus(own_sum_.load(std::memory_order_relaxed), long_sum_.load());
  ForEachOwnPart([&sum](const SumPart& part) {
    sum = Plus(sum, part.integers.load(std::memory_order_relaxed));
  });
  return sum;
}

long AddingSums::TakeIntegers() {
  const long sum = Integers();
  if (sum != 0) {
    long_sum_.fetch_sub(sum);
  }
  return sum;
}

double AddingSums::Reals() const {
  double sum = double_sum_.load();
  ForEachOwnPart([&sum](const SumPart& part) { sum += part.reals.load(); });
  return sum;
}

double AddingSums::TakeReals() {
  const auto take = [](std::atomic<double>& sum) {
    return sum.load() == 0.0 ? 0.0 : sum.exchange(0.0);
  };
  double sum = take(double_sum_);
  ForEachOwnPart([&](SumPart& part) { sum += take(part.reals); });
  return sum;
}

}  // namespace METRICS
