#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>

#include "metrics/metric_client.h"
#include "soak/channel.h"
#include "soak/ledger.h"
#include "support/report.h"

namespace tidegate::stress {

// Counts of the events in the slots.
struct SlotFigures {
  std::atomic<int64_t> metrics_made{0};
  std::atomic<int64_t> metrics_removed{0};
  std::atomic<int64_t> registries_removed{0};
  std::atomic<int64_t> blocks{0};
  std::atomic<int64_t> aged{0};   // metrics whose series were all aged, and erased
  std::atomic<int64_t> naps{0};   // metrics of whose series a few were aged, and hidden
  std::atomic<int64_t> rests{0};  // metrics that were left alone and went on
  std::atomic<int64_t> emissions{0};
};

// Holds one metric after the other. A metric is made, emitted on and left. Once all emissions are
// accounted for it is removed, blocked, cleared or aged, or simply goes on.
//
// Threads: `Emit` from any; the rest from one.
class Slot {
 public:
  struct Stage {
    METRICS::MetricClient& client;
    Ledger& ledger;
    Report& report;
    SlotFigures& figures;
    bool compatible;  // compatible metrics can be told apart here
    bool erases;      // expiry does not only hide
    bool expires;     // there is one
  };

  Slot(Stage stage, std::string tenant, std::string prefix);

  // A random emission, if a metric is there.
  void Emit(Random& random);
  // One step, if it is time for one. Without `refill`, to an end: true once nobody emits any more
  // and all is settled.
  bool Turn(Random& random, bool refill);

 private:
  using Clock = std::chrono::steady_clock;
  enum class Step : uint8_t { kEmpty, kOpen, kLeft, kAging, kNapping, kBroken };

  void Fill(Random& random);
  void Open(Random& random, Shape shape);
  void Enter(Random& random);
  void Leave();
  void AwaitSettled(Random& random, bool refill);
  void Act(Random& random);
  void Remove(Random& random);
  void RemoveRegistry();
  void BlockAndReopen(Random& random);
  void CheckBlocked();
  void Age(size_t series);
  void AwaitAged(Random& random);
  void Break(const std::string& what);

  const Stage stage_;
  const std::string tenant_;
  const std::string prefix_;

  // Emitters share it; to open or leave takes it alone. Not a lock of the library, which looks that
  // none is held where it hands out lines of the log.
  std::shared_mutex gate_;
  bool open_ = false;  // guarded by the gate

  // Changed while nobody emits.
  METRICS::Metric* metric_ = nullptr;
  std::unique_ptr<Channel> channel_;
  int64_t generation_ = 0;
  int64_t counted_ = 0;  // emissions of the channel that are in the figures
  Step step_ = Step::kEmpty;
  Clock::time_point until_{};
};

}  // namespace tidegate::stress
