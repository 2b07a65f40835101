#include "util/wall_clock.h"

#include <chrono>

namespace METRICS {
namespace {

std::atomic<const ClockHooks*> hooks_in_place{nullptr};

}  // namespace

std::atomic<time_t (*)(time_t*) noexcept> g_readSeconds{&::time};
std::atomic<int> g_libraryThreads{0};

void SetClockHooks(const ClockHooks* hooks) {
  hooks_in_place.store(hooks, std::memory_order_release);
  g_readSeconds.store(hooks != nullptr ? hooks->seconds : &::time, std::memory_order_relaxed);
}

const ClockHooks* HooksInPlace() { return hooks_in_place.load(std::memory_order_acquire); }

int64_t WallMillis() { return WallMicros() / 1000; }

int64_t WallMicros() {
  using std::chrono::nanoseconds;
  if (const ClockHooks* const hooks = HooksInPlace()) {
    return hooks->micros();
  }
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<nanoseconds>(since_epoch).count() / 1000;
}

}  // namespace METRICS
