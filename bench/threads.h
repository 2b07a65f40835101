#pragma once

#include <benchmark/benchmark.h>

namespace tidegate::bench {

// One thread, two, and more than there are cores.
inline void Threads(benchmark::internal::Benchmark* bench) {
  bench->Threads(1)->Threads(2)->Threads(8)->UseRealTime();
}

}  // namespace tidegate::bench
