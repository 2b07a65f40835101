// What do the plain primitives of the platform cost that an emission is made of?

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <ctime>
#include <mutex>

namespace {

void LockedAdd(benchmark::State& state) {
  static std::atomic<long> sum{0};
  for (auto _ : state) {
    sum.fetch_add(1, std::memory_order_relaxed);
  }
}
BENCHMARK(LockedAdd)->Threads(1)->Threads(2)->UseRealTime();

void CompareExchangeDouble(benchmark::State& state) {
  static std::atomic<double> sum{0.0};
  for (auto _ : state) {
    double seen = sum.load(std::memory_order_relaxed);
    while (!sum.compare_exchange_weak(seen, seen + 1.0, std::memory_order_relaxed)) {
    }
  }
}
BENCHMARK(CompareExchangeDouble)->Threads(1)->Threads(2)->UseRealTime();

void SharedLockRoundTrip(benchmark::State& state) {
  static pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
  for (auto _ : state) {
    ::pthread_rwlock_rdlock(&lock);
    benchmark::ClobberMemory();
    ::pthread_rwlock_unlock(&lock);
  }
}
BENCHMARK(SharedLockRoundTrip)->Threads(1)->Threads(2)->UseRealTime();

void MutexRoundTrip(benchmark::State& state) {
  static std::mutex lock;
  for (auto _ : state) {
    const std::lock_guard<std::mutex> guard(lock);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(MutexRoundTrip)->Threads(1)->Threads(2)->UseRealTime();

void ReadClock(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(::time(nullptr));
  }
}
BENCHMARK(ReadClock)->UseRealTime();

}  // namespace
