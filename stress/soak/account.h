#pragma once

#include <array>
#include <atomic>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace tidegate::stress {

// The reported numbers that can be added up over the flushes, whatever kind of metric they come
// from. Each is compared with one of two figures: the sum of the emitted values, or how many there
// were.
enum class Column : uint8_t {
  kRate,
  kCounter,
  kMeter,
  kMeterRate,
  kDeltaTotal,
  kDeltaRate,
  kDelta,
  kTimerSum,
  kTimerCount,
  kHistogramSum,
  kHistogramCount,
  kHistogramBuckets,
};
constexpr size_t kColumns = 12;
using Columns = std::bitset<kColumns>;

constexpr size_t IndexOf(Column column) { return static_cast<size_t>(column); }

// Whether the column holds a total that only grows, which a later packet repeats.
constexpr bool IsTotal(Column column) {
  return column == Column::kCounter || column == Column::kMeter || column == Column::kDeltaTotal;
}
constexpr bool IsPerSecond(Column column) {
  return column == Column::kRate || column == Column::kMeterRate || column == Column::kDeltaRate;
}
constexpr bool IsCount(Column column) {
  return column == Column::kTimerCount || column == Column::kHistogramCount ||
         column == Column::kHistogramBuckets;
}

// The fate of a packet.
enum class Fate : uint8_t {
  kReceived,  // the agent read it
  kDropped,   // every send of it failed
  kLost,      // it was sent, to an agent that was killed before it read it
};
constexpr size_t kFates = 3;

// One series: the numbers that went in, and those that came out. Emitters enter what they are about
// to emit; the rest is the ledger's, under its lock.
struct Account {
  Account(std::string series_key, Columns reported, int interval_seconds)
      : key(std::move(series_key)), columns(reported), interval(interval_seconds) {}

  void Enter(int64_t value) {
    sum.fetch_add(value, std::memory_order_relaxed);
    count.fetch_add(1, std::memory_order_relaxed);
  }

  const std::string key;
  const Columns columns;  // that series of its kind report
  const int interval;     // seconds that rates are divided by
  std::atomic<int64_t> sum{0};
  std::atomic<int64_t> count{0};

  struct Tally {
    std::array<double, kFates> amounts{};
    // Of columns with a total: the latest one, the one before, and the latest that was received.
    double total = 0;
    double total_before = 0;
    double received_total = 0;
    int64_t timestamp = 0;  // of the latest point

    double Sum() const { return amounts[0] + amounts[1] + amounts[2]; }
  };
  std::array<Tally, kColumns> tallies;
};

}  // namespace tidegate::stress
