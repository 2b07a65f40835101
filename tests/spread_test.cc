// Timers and histograms on which many threads emit at the same time: each gets samples of its own.

#include "util/spread_parts.h"

#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "metrics/metric_histogram.h"
#include "metrics/metric_summary.h"
#include "support/environment.h"
#include "util/fork_guard.h"

namespace METRICS {

using Values = std::vector<double>;

// Both kinds alike: samples of 0.5 and more, and reports as count and sum.
class SpreadTimer {
 public:
  void Add(double value) { cell_.Emit(value); }
  void Collide() { cell_.EmitColliding(1); }
  void Spread() { cell_.Spread(); }
  bool IsSpread() const { return cell_.chains_ != nullptr; }
  Values Report() {
    const Values values = cell_.Send(1).values;
    return values.empty() ? Values{0, 0} : Values{values[4], values[3]};
  }

 private:
  MetricSummaryVecV2 cell_;
};

class SpreadHistogram {
 public:
  void Add(double value) { cell_.Emit(value < 2 ? 0 : 19, value); }
  void Collide() { cell_.CountCollision(); }
  void Spread() { cell_.Spread(); }
  bool IsSpread() {
    const ReadGuard guard(cell_.rwlock_);
    return cell_.parts_ != nullptr;
  }
  Values Report() {
    const Values values = cell_.Send(1).values;
    if (values.empty()) return {0, 0};
    EXPECT_EQ(values[21], values[0] + values[19]);
    return {values[21], values[20]};
  }

 private:
  MetricHistogram cell_{20};
};

namespace {

template <class Cell>
class SpreadTest : public testing::Test {};
using Cells = testing::Types<SpreadTimer, SpreadHistogram>;
TYPED_TEST_SUITE(SpreadTest, Cells, );

TYPED_TEST(SpreadTest, ACellIsSpreadAfterSomeCollisionsInOneInterval) {
  TypeParam cell;
  for (int interval = 0; interval < 2; ++interval) {
    for (int i = 0; i < kCollisionsToSpread - 1; ++i) cell.Collide();
    EXPECT_FALSE(cell.IsSpread());
    if (interval == 0) cell.Report();
  }
  cell.Collide();
  EXPECT_TRUE(cell.IsSpread());
}

TYPED_TEST(SpreadTest, ThreadsThatEmitBesideFlushesAndWhileACellSpreadsLoseNothing) {
  constexpr int kRounds = 100, kSamples = 500;
  for (const int threads : {2, 8, 64}) {
    TypeParam cell;
    std::atomic<int> rounds{0};
    tidegate::test::Workers emitters;
    emitters.Start(threads, [&](int) {
      for (int i = 0; i < kSamples; ++i) cell.Add(i % 2 == 0 ? 1 : 1000);
      ++rounds;
    });
    Values total(2);
    for (int seen = 0; seen < 2 * kRounds;) {
      seen = rounds;
      if (seen > kRounds) cell.Spread();  // more and more parts, as threads take slots
      if (seen >= 2 * kRounds) emitters.Stop();
      const Values report = cell.Report();
      for (size_t i = 0; i < 2; ++i) total[i] += report[i];
    }
    const double pairs = rounds * (kSamples / 2.0);
    EXPECT_EQ(total, (Values{2 * pairs, 1001 * pairs})) << threads;
  }
}

TYPED_TEST(SpreadTest, AsManyCellsAsThereMayBeAreSpreadAtATime) {
  std::vector<std::unique_ptr<TypeParam>> cells(SpreadCells::kMost + 1);
  for (auto& cell : cells) {
    cell = std::make_unique<TypeParam>();
    cell->Spread();
    cell->Add(3);
  }
  for (size_t i = 0; i < cells.size(); ++i) EXPECT_EQ(cells[i]->IsSpread(), i < SpreadCells::kMost);
  EXPECT_EQ(cells.back()->Report(), (Values{1, 3}));
  cells.front().reset();  // with its sample
  cells.back()->Spread();
  EXPECT_TRUE(cells.back()->IsSpread());
}

TYPED_TEST(SpreadTest, AChildWaitsForNobodyAtTheEndOfACell) {
  auto cell = std::make_unique<TypeParam>();
  cell->Spread();
  tidegate::test::Workers others;
  others.Start(3, [&cell](int i) {
    for (int n = 0; n < 2000; ++n) i == 0 ? (void)cell->Report() : cell->Add(1);
  });
  for (int round = 0; round < 10; ++round) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(30);  // ends what hangs
      const ForkTeardown teardown;
      cell.reset();
      ::_exit(0);
    }
    int status = -1;
    ASSERT_TRUE(::waitpid(child, &status, 0) == child && status == 0) << status;
  }
}

TEST(SpreadHistogramTest, PartsThatAddUpToZeroAreQuietAndGoWhenNobodyUsesThem) {
  SpreadHistogram cell;
  const auto elsewhere = [&cell](double value) {
    std::thread([&cell, value] { cell.Add(value); }).join();
  };
  cell.Add(7);
  cell.Spread();
  EXPECT_EQ(cell.Report(), (Values{1, 7})) << "from before";
  EXPECT_FALSE(cell.IsSpread());
  cell.Spread();
  cell.Add(5);
  elsewhere(-5);
  EXPECT_EQ(cell.Report(), (Values{0, 0}));
  EXPECT_TRUE(cell.IsSpread());
  elsewhere(1);
  EXPECT_EQ(cell.Report(), (Values{3, 1}));
  elsewhere(INFINITY);
  EXPECT_EQ(cell.Report(), (Values{1, INFINITY}));
  EXPECT_TRUE(std::isnan(cell.Report()[1])) << "stays in the sum";
  EXPECT_FALSE(cell.IsSpread());
}

}  // namespace
}  // namespace METRICS
