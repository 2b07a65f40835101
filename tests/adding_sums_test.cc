// Many threads and one adding cell: what goes in comes out, whichever word it went to.

#include "metrics/adding_sums.h"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <list>

#include "support/environment.h"

namespace METRICS {
namespace {

using tidegate::test::WaitFor;

// What the reports of a cell add up to; intervals are of one second.
struct Drained {
  explicit Drained(MetricBasicData& of) : cell(of) {}
  void Drain() {
    const std::vector<double> report = cell.Send(1).values;
    if (report.empty()) return;
    // A thread may be between an addition of 7 or 1.5 and one of -3 or -1.
    EXPECT_TRUE(cell.Type() == MetricsType::kRate || report[0] >= total - 64 * 4);
    increase = cell.Type() == MetricsType::kCounter ? report[0] : increase + report.back();
    total = report[0];
  }

  MetricBasicData& cell;
  double total = 0.0, increase = 0.0;
};

AddingSums& Sums(MetricBasicData& cell) { return *SumsOf(cell, cell.Type()); }

// Adds 4.5 in sum, the halves exactly; negative integers wrap in the words that they go to.
void EmitAllSorts(MetricBasicData& cell) {
  cell.Emit(7L);
  cell.Emit(1.5);
  cell.Emit(-3L);
  cell.Emit(-1.0);
  cell.Emit(0L);
}

TEST(AddingSumsTest, DrainingBesideThreadsThatComeAndGoLosesAndInventsNothing) {
  MetricRate rate;
  MetricCounter counter;
  MetricMeter meter;
  MetricDeltaCounter delta_counter;
  for (MetricBasicData* const cell :
       std::initializer_list<MetricBasicData*>{&rate, &counter, &meter, &delta_counter}) {
    Drained drained(*cell);
    std::atomic<bool> done{false};
    std::thread flusher([&] {
      while (!done) drained.Drain();
    });
    double expected = 0.0;
    constexpr int kEach = 2000;
    for (const int count : {1, 2, 8, 64, 8, 2}) {
      std::vector<std::thread> threads;
      for (int t = 0; t < count; ++t) {
        threads.emplace_back([&, t] {
          if (t % 8 == 7) DoWithoutThreadSlot();
          for (int i = 0; i < kEach; ++i) {
            EmitAllSorts(*cell);
            if (t > 40 && i == kEach / 2) Sums(*cell).Spread();
          }
        });
      }
      for (std::thread& thread : threads) thread.join();
      expected += 4.5 * count * kEach;
    }
    done = true;
    flusher.join();
    drained.Drain();
    EXPECT_EQ(drained.increase, expected) << static_cast<int>(cell->Type());
    EXPECT_TRUE(Sums(*cell).IsSpread());
    for (int i = 0; i < kQuietAfterFlushes; ++i) drained.Drain();
    EXPECT_TRUE(cell->Send(1).values.empty());
  }
}

// Keeps this thread on the core with the index `index` among those that the process may use.
bool StayOnCore(int index) {
  cpu_set_t allowed, one;
  CPU_ZERO(&one);
  if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0) return false;
  for (int core = 0; core < CPU_SETSIZE; ++core) {
    if (CPU_ISSET(core, &allowed) && index-- == 0) CPU_SET(core, &one);
  }
  return ::sched_setaffinity(0, sizeof one, &one) == 0;
}

TEST(AddingSumsTest, ThreadsThatMeetSpreadTheSums) {
  MetricCounter integers, doubles;
  const auto both = [&] { return Sums(integers).IsSpread() && Sums(doubles).IsSpread(); };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::atomic<long> emissions{0};
  std::atomic<int> cores{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      cores += StayOnCore(t) ? 1 : 0;
      for (; !both() && std::chrono::steady_clock::now() < deadline; emissions += 1000) {
        for (int i = 0; i < 1000; ++i) integers.Emit(1L);
        for (int i = 0; i < 1000; ++i) doubles.Emit(1.0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(both() || cores < 2);  // on one core nobody meets
  EXPECT_EQ(integers.Send(1).values.at(0), emissions);
  EXPECT_EQ(doubles.Send(1).values.at(0), emissions);
}

TEST(AddingSumsTest, AsManyAsThereAreSpreadAndTheNextOnesInheritNothing) {
  std::list<MetricRate> cells(kSpreadSums + 1);
  for (int round = 0; round < 2; ++round) {
    for (MetricRate& cell : cells) Sums(cell).Spread();
    EXPECT_TRUE(Sums(*std::next(cells.begin(), kSpreadSums - 1)).IsSpread());
    EXPECT_FALSE(Sums(cells.back()).IsSpread()) << "one too many";
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.emplace_back([&] {
        for (MetricRate& cell : cells) EmitAllSorts(cell);
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (MetricRate& cell : cells) EXPECT_EQ(cell.Send(1).values.at(0), 3 * 4.5);
    for (MetricRate& cell : cells) cell.Emit(1L), cell.Emit(0.5);  // dies with them
    cells.pop_front();
    Sums(cells.back()).Spread();
    EXPECT_TRUE(Sums(cells.back()).IsSpread()) << "one was given back";
    cells = std::list<MetricRate>(kSpreadSums + 1);
  }
}

TEST(AddingSumsTest, CellsDieWithTheLastOfTheThreadsThatAdd) {
  constexpr int kRounds = 300, kThreads = 3;
  std::vector<std::thread> makers;
  for (int maker = 0; maker < 2; ++maker) {
    makers.emplace_back([] {
      for (int round = 0; round < kRounds; ++round) {
        auto cell = std::make_shared<MetricCounter>();
        std::atomic<int> done{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
          threads.emplace_back([cell, &done]() mutable {
            for (int i = 0; i < 50; ++i) {
              EmitAllSorts(*cell);
              if (i == 20) Sums(*cell).Spread();
            }
            if (++done == kThreads) {
              EXPECT_EQ(cell->Send(1).values.at(0), kThreads * 50 * 4.5);
            }
            cell.reset();
          });
        }
        cell.reset();
        for (std::thread& thread : threads) thread.join();
      }
    });
  }
  for (std::thread& maker : makers) maker.join();
}

TEST(AddingSumsTest, AForkedChildGoesOnWithWhatItHas) {
  for (const bool spread : {false, true}) {
    MetricCounter cell;
    if (spread) Sums(cell).Spread();
    EmitAllSorts(cell);
    std::atomic<long> emissions{1};
    tidegate::test::Workers emitters;  // the last one has no slot
    emitters.Start(3, [&](int thread) {
      if (thread == 2) DoWithoutThreadSlot();
      for (int i = 0; i < 100; ++i, ++emissions) EmitAllSorts(cell);
    });
    EXPECT_TRUE(WaitFor([&] { return emissions > 1000; }));
    const pid_t child = ::fork();
    if (child == 0) {
      cell.Emit(0L);
      const double before = cell.Send(1).values.at(0);
      for (int i = 0; i < 1000; ++i) EmitAllSorts(cell);
      ::_exit(cell.Send(1).values.at(0) - before == 4500.0 ? 0 : 1);
    }
    int status = -1;
    EXPECT_TRUE(::waitpid(child, &status, 0) == child && status == 0) << status;
    emitters.Stop();
    EXPECT_EQ(cell.Send(1).values.at(0), 4.5 * static_cast<double>(emissions));
  }
}

TEST(AddingSumsTest, ATotalThatIsNoNumberFallsSilent) {
  MetricCounter cell;
  cell.Emit(std::nan(""));
  for (int i = 0; i < kQuietAfterFlushes; ++i) EXPECT_EQ(cell.Send(1).values.size(), 1u);
  EXPECT_TRUE(cell.Send(1).values.empty());
}

}  // namespace
}  // namespace METRICS
