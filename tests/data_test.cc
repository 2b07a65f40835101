#include "metrics/metric_data.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <thread>
#include <variant>
#include <vector>

namespace METRICS {
namespace {

// One interval in the life of a cell: its emissions, and the report of the flush at its end.
struct Interval {
  std::vector<std::variant<long, double>> emits;
  std::vector<double> values;
  double prev = 0.0;
  bool need_prev = false;
};

TEST(CellTest, ReportsTheHistoryOfItsEmissions) {
  const double nan = std::nan("");
  const long big = 1L << 53;  // an odd integer above it is no double
  // clang-format off
  const struct {
    const char* name;
    std::shared_ptr<MetricBasicData> cell;
    int type;
    uint32_t quiet_width;
    std::vector<Interval> intervals;
  } histories[] = {
      {"no-op", std::make_shared<MetricBasicData>(), 0, 1, {{{1L, 1.0}, {}}}},
      {"gauge: the last value, once; NaN is none", std::make_shared<MetricGauge>(), 1, 1,
       {{}, {{1L, 2.5}, {2.5}}, {}, {{1.0, nan}, {}}, {{nan, 0L}, {0.0}}}},
      {"rate: per second, two zeros, silence", std::make_shared<MetricRate>(), 2, 1,
       {{}, {{30L, 30.0}, {6.0}}, {{}, {0.0}}, {{}, {0.0}}, {}, {{0L}, {0.0}}, {{-5L}, {-0.5}}}},
      {"counter: a previous point at first and after silence", std::make_shared<MetricCounter>(), 3,
       1, {{}, {{5L}, {5.0}, 0.0, true}, {{}, {5.0}, 5.0}, {{}, {5.0}, 5.0}, {}, {},
           {{2.0}, {7.0}, 5.0, true}, {{}, {7.0}, 7.0}, {{0.0}, {7.0}, 7.0}, {{}, {7.0}, 7.0},
           {{}, {7.0}, 7.0}, {}}},
      {"counter: integers are exact until the flush", std::make_shared<MetricCounter>(), 3, 1,
       {{{big, 1L, 1L}, {static_cast<double>(big + 2)}, 0.0, true},
        {{-big, 0.5}, {2.5}, static_cast<double>(big + 2)}}},
      {"meter: total and rate", std::make_shared<MetricMeter>(), 4, 2,
       {{}, {{5L}, {5.0, 0.5}, 0.0, true}, {{}, {5.0, 0.0}, 5.0}, {{}, {5.0, 0.0}, 5.0}, {},
        {{-1L, 3.0}, {7.0, 0.2}, 5.0, true}}},
      {"delta counter: total, rate and increase", std::make_shared<MetricDeltaCounter>(), 8, 3,
       {{}, {{5L}, {5.0, 0.5, 5.0}, 0.0, true}, {{}, {5.0, 0.0, 0.0}, 5.0},
        {{}, {5.0, 0.0, 0.0}, 5.0}, {}, {{2L}, {7.0, 0.2, 2.0}, 5.0, true}}}};
  // clang-format on
  for (const auto& [name, cell, type, quiet_width, intervals] : histories) {
    EXPECT_EQ(static_cast<int>(cell->Type()), type);
    for (size_t i = 0; i < intervals.size(); ++i) {
      SCOPED_TRACE(testing::Message() << name << ", interval " << i);
      for (const auto& value : intervals[i].emits) {
        std::visit([&target = *cell](auto number) { target.Emit(number); }, value);
      }
      const SendRes report = cell->Send(10);
      EXPECT_EQ(report.values, intervals[i].values);
      EXPECT_EQ(report.prev_value, intervals[i].prev);
      EXPECT_EQ(report.need_prev, intervals[i].need_prev);
      EXPECT_EQ(report.field_width, report.values.empty() ? quiet_width : 1);
    }
  }
}

TEST(CellTest, DrainingBesideEmittersLosesAndInventsNothing) {
  MetricRate rate;
  MetricCounter counter;
  MetricMeter meter;
  MetricDeltaCounter delta_counter;
  for (MetricBasicData* const cell :
       std::initializer_list<MetricBasicData*>{&rate, &counter, &meter, &delta_counter}) {
    SCOPED_TRACE(static_cast<int>(cell->Type()));
    std::atomic<bool> stop{false};
    std::atomic<long> emissions{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.emplace_back([&] {
        for (; !stop; emissions += 1000) {
          for (int i = 0; i < 1000; ++i) {
            cell->Emit(2L);
            cell->Emit(0.5);  // sums of halves are exact
          }
        }
      });
    }
    double total = 0.0, increase = 0.0;
    for (bool done = false; !done;) {
      done = emissions >= 3000000;
      if (done) {
        stop = true;
        for (std::thread& thread : threads) thread.join();
      }
      const std::vector<double> report = cell->Send(1).values;
      if (report.empty()) continue;
      EXPECT_TRUE(cell == &rate || report[0] >= total);
      total = report[0];
      increase += report.back();  // the interval is a second: a rate is an increase
    }
    const double expected = 2.5 * static_cast<double>(emissions);
    EXPECT_EQ(cell == &counter ? total : increase, expected);
    EXPECT_TRUE(cell == &rate || total == expected);
  }
}

}  // namespace
}  // namespace METRICS
