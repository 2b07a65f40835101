#pragma once

#include <benchmark/benchmark.h>

#include "metrics/metric_data.h"
#include "scenarios.h"

namespace tidegate::bench {

// As many samples as a busy cell gathers between two flushes, from all threads together.
constexpr size_t kDrainedAt = 100000;

// How many of `Samples` a benchmark goes round.
constexpr size_t kSamples = 4096;

// Calls `emit(i)` for sample i, round robin, and drains `cell` outside the timed region as a flush
// would.
template <class Emit>
void SampleLoop(benchmark::State& state, METRICS::MetricBasicData& cell, Emit emit) {
  const size_t drained_at = kDrainedAt / static_cast<size_t>(state.threads());
  RoundRobin turn(kSamples);
  size_t emitted = 0;
  for (auto _ : state) {
    emit(turn.Next());
    if (++emitted == drained_at) {
      emitted = 0;
      if (state.thread_index() == 0) {  // one thread drains, as there is one flush thread
        state.PauseTiming();
        cell.Send(1);
        state.ResumeTiming();
      }
    }
  }
}

}  // namespace tidegate::bench
