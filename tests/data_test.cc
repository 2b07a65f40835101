#include "metrics/metric_data.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
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

template <class Cell>
std::shared_ptr<MetricBasicData> Make() {
  return std::make_shared<Cell>();
}

TEST(CellTest, ReportsTheHistoryOfItsEmissions) {
  const double nan = std::nan("");
  const double inf = std::numeric_limits<double>::infinity();
  const long big = 1L << 53;  // an odd integer above it is no double
  const long most = std::numeric_limits<long>::max();
  // clang-format off
  const struct {
    const char* name;
    std::shared_ptr<MetricBasicData> (*make)();
    int type;
    uint32_t quiet_width;
    std::vector<Interval> intervals;
  } histories[] = {
      {"no-op", Make<MetricBasicData>, 0, 1, {{{1L, 1.0}, {}}}},
      {"gauge: the last value, once; NaN is none", Make<MetricGauge>, 1, 1,
       {{}, {{1L, 2.5}, {2.5}}, {}, {{1.0, nan}, {}}, {{nan, 0L}, {0.0}}}},
      {"rate: per second, two zeros, silence", Make<MetricRate>, 2, 1,
       {{}, {{30L, 30.0}, {6.0}}, {{}, {0.0}}, {{}, {0.0}}, {}, {{0L}, {0.0}}, {{-5L}, {-0.5}}}},
      {"rate: what was read leaves exactly 0, whatever it was", Make<MetricRate>, 2, 1,
       {{{1e300, 1.0}, {1e299}}, {{0.1, 0.2}, {(0.1 + 0.2) / 10}}, {{inf}, {inf}}, {{1L}, {0.1}}}},
      {"rate: integers wrap around", Make<MetricRate>, 2, 1,
       {{{most, most, 12L}, {1.0}}, {{-most, -1L}, {static_cast<double>(-most - 1) / 10}}}},
      {"counter: a previous point at first and after silence", Make<MetricCounter>, 3,
       1, {{}, {{5L}, {5.0}, 0.0, true}, {{}, {5.0}, 5.0}, {{}, {5.0}, 5.0}, {}, {},
           {{2.0}, {7.0}, 5.0, true}, {{}, {7.0}, 7.0}, {{0.0}, {7.0}, 7.0}, {{}, {7.0}, 7.0},
           {{}, {7.0}, 7.0}, {}}},
      {"counter: integers are exact until the flush", Make<MetricCounter>, 3, 1,
       {{{big, 1L, 1L}, {static_cast<double>(big + 2)}, 0.0, true},
        {{-big, 0.5}, {2.5}, static_cast<double>(big + 2)}, {{most, most, 2L}, {2.5}, 2.5}}},
      {"meter: total and rate", Make<MetricMeter>, 4, 2,
       {{}, {{5L}, {5.0, 0.5}, 0.0, true}, {{}, {5.0, 0.0}, 5.0}, {{}, {5.0, 0.0}, 5.0}, {},
        {{-1L, 3.0}, {7.0, 0.2}, 5.0, true}}},
      {"delta counter: total, rate and increase", Make<MetricDeltaCounter>, 8, 3,
       {{}, {{5L}, {5.0, 0.5, 5.0}, 0.0, true}, {{}, {5.0, 0.0, 0.0}, 5.0},
        {{}, {5.0, 0.0, 0.0}, 5.0}, {}, {{2L}, {7.0, 0.2, 2.0}, 5.0, true}}}};
  // clang-format on
  for (size_t run = 0; run < 2 * std::size(histories); ++run) {
    const auto& [name, make, type, quiet_width, intervals] = histories[run / 2];
    const std::shared_ptr<MetricBasicData> cell = make();
    EXPECT_EQ(static_cast<int>(cell->Type()), type);
    AddingSums* const sums = SumsOf(*cell, cell->Type());
    if (run % 2 != 0 && sums != nullptr) sums->Spread();
    for (size_t i = 0; i < intervals.size(); ++i) {
      SCOPED_TRACE(testing::Message() << name << ", interval " << i << ", spread " << run % 2);
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

}  // namespace
}  // namespace METRICS
