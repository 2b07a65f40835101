#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tidegate::bench {

using Figures = std::vector<std::pair<std::string, double>>;

// Runs `scenario` once, in a forked child, so that it finds a heap that no other one has used, and
// makes its figures the counters of `state`. REQUIRES: this process has one thread.
void Isolated(benchmark::State& state, const std::function<Figures()>& scenario);

// The resident memory of this process now, and its highest since the last `ResetPeak`. The
// process ends where the system does not tell.
double ResidentBytes();
double PeakBytes();
void ResetPeak();

}  // namespace tidegate::bench
