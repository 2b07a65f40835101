#include "metrics/metric_histogram.h"

#include <cmath>
#include <random>

#include "support/environment.h"

namespace METRICS {
namespace {

using Values = std::vector<double>;

TEST(HistogramTest, ABucketIsClosedBelowAndOpenAbove) {
  const Values samples{-INFINITY, -1, -0.0, 4.99, 5, 9.99, 10, 99.9, 100, 1e300, NAN};
  const short of_one[] = {-32768, -32768, -32768, -32768, 0, 0, 0, 0, 0, 0, 0};
  const short of_three[] = {-32768, -32768, 0, 0, 0, 0, 1, 1, 2, 2, 2};
  for (size_t i = 0; i < samples.size(); ++i) {
    EXPECT_EQ(GetHistoIndex(samples[i], {}), -32768) << samples[i];
    EXPECT_EQ(GetHistoIndex(samples[i], {5}), of_one[i]) << samples[i];
    EXPECT_EQ(GetHistoIndex(samples[i], {0, 10, 100}), of_three[i]) << samples[i];
  }
}

// As the definition reads.
short ScannedIndex(double value, const Values& bounds) {
  if (bounds.empty() || value < bounds[0]) return -32768;
  for (size_t i = 0; i + 1 < bounds.size(); ++i) {
    if (value >= bounds[i] && bounds[i + 1] > value) return static_cast<short>(i);
  }
  return static_cast<short>(bounds.size() - 1);
}

TEST(HistogramTest, FindsTheBucketOfAScanForAnyBoundsAndSamples) {
  const Values odd{NAN, -NAN, INFINITY, -INFINITY, 0.0, -0.0, 5e-324, -1e308, 1e308, 3, 3, 7};
  std::mt19937 random(17);
  const auto pick = [&](size_t below) { return static_cast<size_t>(random() % below); };
  for (int round = 0; round < 3000; ++round) {
    const size_t sizes[] = {1, 2, 3, 20, 63, 64, 65, 99, 100, pick(101)};
    Values bounds(sizes[pick(10)]);
    const bool plain = pick(2) == 0;
    for (double& bound : bounds) {
      bound = plain || pick(8) != 0 ? static_cast<double>(pick(200)) - 50 : odd[pick(odd.size())];
    }
    if (plain || pick(2) == 0) {  // NaNs stay where they are
      for (size_t i = 1; i < bounds.size(); ++i) {
        for (size_t j = i; j > 0 && bounds[j] < bounds[j - 1]; --j) {
          std::swap(bounds[j], bounds[j - 1]);
        }
      }
    }
    Values samples = odd;
    for (const double bound : bounds) {
      samples.insert(samples.end(), {bound, std::nextafter(bound, -INFINITY), bound + 0.5});
    }
    for (const double sample : samples) {
      ASSERT_EQ(GetHistoIndex(sample, bounds), ScannedIndex(sample, bounds))
          << sample << " among " << testing::PrintToString(bounds);
    }
  }
}

TEST(HistogramTest, ReportsBucketsSumAndCountUnlessTheSumIsZero) {
  const std::pair<std::vector<std::pair<short, double>>, Values> intervals[] = {
      {{{0, 1}, {0, 2}, {1, 50}}, {2, 1, 0, 53, 3}},
      {{{1, 5}, {1, -5}}, {}},  // counted with the next sum that is not zero
      {{{1, 1}}, {0, 3, 0, 1, 3}},
      {{{0, -2}}, {1, 0, 0, -2, 1}},
      {{{3, 8}, {-32768, 8}, {-1, 8}, {32767, 8}}, {}},  // no such bucket
      {{{2, 200.5}}, {0, 0, 1, 200.5, 1}}};
  MetricHistogram cell(3);
  for (const auto& [samples, report] : intervals) {
    for (const auto& [bucket, value] : samples) cell.Emit(bucket, value);
    static_cast<MetricBasicData&>(cell).Emit(7.0);  // without a bucket
    const SendRes result = cell.Send(30);
    EXPECT_EQ(result.values, report);
    EXPECT_EQ(result.field_width, 5u);
  }
}

TEST(HistogramTest, EachReportIsWholeWhileThreadsEmit) {
  MetricHistogram cell(2);
  std::atomic<int> rounds{0};
  tidegate::test::Workers emitters;
  emitters.Start(3, [&cell, &rounds](int) {
    for (int i = 0; i < 4000; ++i) i % 2 == 0 ? cell.Emit(0, 1L) : cell.Emit(1, 1000.0);
    ++rounds;
  });
  Values total(4);
  for (bool done = false; !done;) {
    done = rounds >= 60;
    if (done) emitters.Stop();
    Values report = cell.Send(1).values;
    report.resize(4);  // of zeros when it is quiet
    EXPECT_EQ(report[2], report[0] + 1000 * report[1]);
    for (size_t i = 0; i < 4; ++i) total[i] += report[i];
  }
  const double n = rounds * 2000.0;
  EXPECT_EQ(total, (Values{n, n, 1001 * n, 2 * n}));
}

}  // namespace
}  // namespace METRICS
