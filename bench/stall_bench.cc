// How long can an emission on a known series take, while others make millions of series of the same
// metric, flush them, list them, expire them and clear them?
//
// One thread emits without a pause, and between two emissions reads the clock for as long as an
// emission takes: what stalls it there is the machine. Beside it another thread does the work of
// the phase. Times are wall times, without the time in which one of the two threads was ready to
// run and waited for a core; `longest_wall_us` has that too. Figures with `spin` are of the thread
// without an emission, and `spin_as_long` is how often that was stalled for as long as the longest
// emission. Each size runs in a process of its own.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core_waits.h"
#include "dropping_sender.h"
#include "expiry_pass.h"
#include "isolated.h"
#include "metrics/impl/metric_impl.h"
#include "metrics/metric_collector_item.h"
#include "metrics/metric_method.h"
#include "scenarios.h"
#include "stall_histogram.h"

namespace tidegate::bench {
namespace {

using METRICS::Incr;
using METRICS::Metric;
using ItemPtr = std::shared_ptr<METRICS::MetricCollectorItem>;

constexpr size_t kTags = 3;

enum Phase : size_t { kRest, kGrowth, kFlush, kGetAll, kExpiry, kGrowthAgain, kClear, kPhases };
constexpr const char* kPhaseNames[] = {"rest",   "growth",       "flush", "get_all",
                                       "expiry", "growth_again", "clear"};

// Makes series until it is destroyed, with a pause after each.
class SlowMaker {
 public:
  explicit SlowMaker(Metric& metric) : metric_(metric), thread_(&SlowMaker::Run, this) {
    while (id_.load() == 0) {
      std::this_thread::yield();
    }
  }
  ~SlowMaker() {
    stopped_.store(true);
    thread_.join();
  }
  SlowMaker(const SlowMaker&) = delete;
  SlowMaker& operator=(const SlowMaker&) = delete;

  long id() const { return id_.load(); }

 private:
  void Run() {
    id_.store(ThreadId());
    for (size_t made = 0; !stopped_.load(); ++made) {
      metric_.WithTagValues({"late", std::to_string(made), "late"})->Emit(Incr(1));
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }

  Metric& metric_;
  std::atomic<bool> stopped_{false};
  std::atomic<long> id_{0};
  std::thread thread_;
};

// Emits on known series until it is destroyed.
class Emitter {
 public:
  // `others`: the threads that it may have to wait for.
  Emitter(Metric& metric, std::vector<long> others)
      : metric_(metric),
        others_(std::move(others)),
        tags_(ForEachSeries([](size_t series) { return Tags(series, kTags); })),
        thread_(&Emitter::Run, this) {}
  ~Emitter() { Stop(); }
  Emitter(const Emitter&) = delete;
  Emitter& operator=(const Emitter&) = delete;

  void Enter(Phase phase) { phase_.store(phase); }

  void Stop() {
    stopped_.store(true);
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  // Once it has stopped.
  void AddFigures(Figures& figures) const {
    for (size_t phase = kGrowth; phase < kPhases; ++phase) {
      const auto& [emission, spin, longest_wall] = stalls_[phase];
      const std::string name = kPhaseNames[phase];
      const auto add = [&](const char* what, auto value) {
        figures.emplace_back(name + what, static_cast<double>(value));
      };
      add("_p50_ns", emission.Percentile(0.5));
      add("_p99_ns", emission.Percentile(0.99));
      add("_p999_ns", emission.Percentile(0.999));
      add("_longest_us", static_cast<double>(emission.longest()) / 1e3);
      add("_longest_wall_us", static_cast<double>(longest_wall) / 1e3);
      add("_over_1ms", emission.AtLeast(kMilli));
      add("_spin_p999_ns", spin.Percentile(0.999));
      add("_spin_longest_us", static_cast<double>(spin.longest()) / 1e3);
      add("_spin_over_1ms", spin.AtLeast(kMilli));
      add("_spin_as_long", spin.AtLeast(emission.longest()));
    }
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr uint64_t kMilli = 1000000;

  static uint64_t Nanos(Clock::duration time) {
    return static_cast<uint64_t>(std::chrono::nanoseconds(time).count());
  }

  struct Stalls {
    StallHistogram emission, spin;
    uint64_t longest_wall = 0;
  };

  void Run() {
    std::vector<long> threads = others_;
    threads.push_back(ThreadId());
    const CoreWaits waits(threads);
    uint64_t waited = waits.Nanos();
    // What of `taken` nanoseconds was not a wait for a core.
    const auto without_waits = [&](uint64_t taken) {
      constexpr uint64_t kSuspicious = 20000;
      if (taken < kSuspicious) {
        return taken;
      }
      const uint64_t before = std::exchange(waited, waits.Nanos());
      const uint64_t wait = waited - before;
      return taken > wait ? taken - wait : 0;
    };
    RoundRobin turn(tags_.size());
    uint64_t usual = 0;
    for (unsigned round = 0; !stopped_.load(std::memory_order_relaxed); ++round) {
      constexpr unsigned kRounds = 4096;
      if (round % kRounds == 0) {
        waited = waits.Nanos();
      }
      Stalls& stalls = stalls_[phase_.load(std::memory_order_relaxed)];
      const auto start = Clock::now();
      metric_.WithTags(tags_[turn.Next()])->Emit(Incr(1));
      const auto emitted = Clock::now();
      const uint64_t taken = Nanos(emitted - start);
      stalls.longest_wall = std::max(stalls.longest_wall, taken);
      stalls.emission.Add(without_waits(taken));
      constexpr uint64_t kUnusual = 2000;
      constexpr uint64_t kMemory = 64;
      usual = (usual * (kMemory - 1) + (taken < kUnusual ? taken : usual)) / kMemory;
      const auto begin = Clock::now();
      uint64_t spun = 0;
      do {
        spun = Nanos(Clock::now() - begin);
      } while (spun < usual);
      stalls.spin.Add(without_waits(spun));
    }
  }

  Metric& metric_;
  const std::vector<long> others_;
  const std::vector<std::vector<MetricTag>> tags_;
  std::atomic<Phase> phase_{kRest};
  std::atomic<bool> stopped_{false};
  std::vector<Stalls> stalls_{kPhases};
  std::thread thread_;
};

void Grow(Metric& metric, size_t series) {
  for (size_t i = 0; i < series; ++i) {
    metric.WithTagValues(TagValues(i, kTags))->Emit(Incr(1));
  }
}

// Marks all series as idle for long, and answers one that nobody emits on.
ItemPtr Age(Metric& metric) {
  ItemPtr quiet;
  for (const auto& [tags, item] : metric.impl_->collector_->GetAll()) {
    item->last_update_ = 0;
    quiet = item;
  }
  return quiet;
}

void LongestEmission(benchmark::State& state) {
  const auto series = static_cast<size_t>(state.range(0));
  Isolated(state, [series]() -> Figures {
    Client client;
    DroppingSender sender(client);
    Metric& metric = client.Make("rate", kTags);
    Grow(metric, kSeries);
    const SlowMaker maker(metric);
    Emitter emitter(metric, {ThreadId(), maker.id()});

    emitter.Enter(kGrowth);
    Grow(metric, series);
    emitter.Enter(kFlush);
    FlushOnce(sender, CollectorsOf(client));
    emitter.Enter(kGetAll);
    benchmark::DoNotOptimize(metric.impl_->collector_->GetAll());
    emitter.Enter(kRest);
    const ItemPtr quiet = Age(metric);
    emitter.Enter(kExpiry);
    ExpiryPassMillis(client, *quiet);
    emitter.Enter(kGrowthAgain);
    Grow(metric, series);
    emitter.Enter(kClear);
    metric.impl_->ClearCollector();
    emitter.Stop();

    Figures figures;
    emitter.AddFigures(figures);
    return figures;
  });
}
BENCHMARK(LongestEmission)
    ->ArgName("series")
    ->Arg(600000)
    ->Arg(1000000)
    ->Arg(4000000)
    ->Iterations(1);

}  // namespace
}  // namespace tidegate::bench
