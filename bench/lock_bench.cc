// What does the bias of the readers' lock cost where it does not pay: where writes are frequent,
// and for the writer that has to take it back?

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <type_traits>
#include <vector>

#include "util/metric_lock.h"

namespace {

using METRICS::BiasedRwLock;
using METRICS::RwLock;
using std::chrono::duration;
using std::chrono::steady_clock;

template <class Lock>
using ShortRead = std::conditional_t<std::is_same_v<Lock, BiasedRwLock>, METRICS::FastReadGuard,
                                     METRICS::ReadGuard<Lock>>;

// One write after each `range(0)` reads.
template <class Lock>
void ReadsAndAWrite(benchmark::State& state) {
  static Lock lock;
  static long value = 0;
  for (auto _ : state) {
    for (int64_t i = 0; i < state.range(0); ++i) {
      const ShortRead<Lock> guard(lock);
      benchmark::DoNotOptimize(value);
    }
    const METRICS::WriteGuard guard(lock);
    ++value;
  }
}

#define READS_AND_A_WRITE(Lock)                \
  BENCHMARK_TEMPLATE(ReadsAndAWrite, Lock)     \
      ->Name("ReadsAndAWrite/" #Lock "/reads") \
      ->RangeMultiplier(8)                     \
      ->Range(1, 512)                          \
      ->ThreadRange(1, 2)                      \
      ->UseRealTime()
READS_AND_A_WRITE(RwLock);
READS_AND_A_WRITE(BiasedRwLock);

// How long a write takes, now and then, while another thread reads without a pause.
template <class Lock>
void WriteBesideAReader(benchmark::State& state) {
  Lock lock;
  std::atomic<bool> stopped{false};
  std::thread reader([&] {
    while (!stopped.load(std::memory_order_relaxed)) {
      const ShortRead<Lock> guard(lock);
    }
  });
  std::vector<double> waits;
  for (auto _ : state) {
    const auto resume = steady_clock::now() + std::chrono::microseconds(20);
    while (steady_clock::now() < resume) {  // the reader's time
    }
    const auto start = steady_clock::now();
    { const METRICS::WriteGuard guard(lock); }
    const double seconds = duration<double>(steady_clock::now() - start).count();
    state.SetIterationTime(seconds);
    waits.push_back(1e9 * seconds);
  }
  stopped = true;
  reader.join();
  std::sort(waits.begin(), waits.end());
  state.counters["median_ns"] = waits[waits.size() / 2];
  state.counters["p99_ns"] = waits[waits.size() * 99 / 100];
  state.counters["longest_ns"] = waits.back();
}
BENCHMARK_TEMPLATE(WriteBesideAReader, RwLock)->Iterations(20000)->UseManualTime();
BENCHMARK_TEMPLATE(WriteBesideAReader, BiasedRwLock)->Iterations(20000)->UseManualTime();

}  // namespace
