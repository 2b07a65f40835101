#include "metrics/metric_collector_item.h"

#include <algorithm>
#include <clocale>

#include "metrics/impl/metric_multi_field_impl.h"
#include "metrics/series_items.h"
#include "support/environment.h"

namespace METRICS {
namespace {

using namespace tidegate::test;
using testing::ElementsAre;
using testing::MatchesRegex;
using R = ReturnCode;
using T = MetricsType;
using Strings = std::vector<std::string>;

struct ItemTest : testing::Test {
  Metric* Make(int kind, const std::vector<MetricFieldCfg>& fields = {}, T compatible = {}) {
    Metric* metric = nullptr;
    MetricInstanceCfg cfg{"m" + std::to_string(++made), {}, {}, fields, nullptr};
    registry->CreateMetric(metric, {static_cast<MetricCoItemType>(kind), cfg});
    if (metric != nullptr) metric->SetCompatibleType(compatible);
    return metric;
  }
  void Flush() { client.Flush(now += 10); }

  TestClient client;
  MetricRegistry* const registry = client.Registry("p", "t1", {}, 10);
  int made = 0;
  int64_t now = 1000;
};

TEST_F(ItemTest, ARowTakesAtMostItsNumberOfValuesAndDropsWhatDoesNotFit) {
  HistoUtilBase bounds({0, 10});
  Metric& metric =
      *Make(2, {{"counter", T::kCounter}, {"g", T::kGauge}, {"histogram", T::kHistogram, &bounds}});
  auto& row = dynamic_cast<MetricFieldArray&>(*metric.WithTags({}));
  const auto drained = [&] { return row.Send(metric.GetFieldInfo()).values; };
  EXPECT_TRUE(row.Size() == 1 && metric.cache_series_ == 1);
  EXPECT_EQ(row.MemSize(), 3 * 16 + 17u);
  EXPECT_EQ(metric.cache_mem_, 112 + row.MemSize());
  row.last_update_ = 5;
  EXPECT_EQ(row.Emit({IncrCounter(1), Stat(1), Stat(1), Stat(1)}), R::kInvalidParamNumber);
  EXPECT_EQ(row.last_update_, 5);
  row.Emit({Store(1), WithField("g", Incr(1)), Stat(5)});  // one of them fits
  EXPECT_GT(row.last_update_, 5);
  EXPECT_THAT(drained(), ElementsAre(1, 0, 5, 1));
  row.active_ = false;
  EXPECT_EQ(row.EmitMap({{"x", 1}, {"counter", 2}, {"histogram", 10}, {"y", 1}}), R::kOk);
  EXPECT_TRUE(row.active_);
  EXPECT_THAT(drained(), ElementsAre(2, 0, 1, 10, 1));
  EXPECT_TRUE(metric.emit_success_ == 2 && metric.emit_fail_ == 1);
}

TEST_F(ItemTest, SuffixesAreMadeOnceAndFoundByAllWhileOthersAppear) {
  constexpr long kNames = 100, kTurns = 30, kThreads = 3;
  Metric& metric = *Make(1);
  const auto item = metric.WithTags({});
  const auto name_of = [](long i) {
    return std::string(static_cast<size_t>(i % 40), 'x') + "n" + std::to_string(i);
  };
  std::atomic<bool> done{false};
  std::thread lister([&] {
    std::vector<CellRef> cells;
    for (size_t seen = 0; !done; seen = cells.size()) {
      const size_t size = item->Size();
      item->ListCells(cells);
      ASSERT_GE(cells.size(), std::max(seen, size));
    }
  });
  std::vector<std::thread> emitters;
  for (long thread = 0; thread < kThreads; ++thread) {
    emitters.emplace_back([&, thread] {
      std::vector<MetricFieldValue> list;
      for (long turn = 0; turn < kTurns; ++turn) {
        for (long i = 0; i < kNames; ++i) {
          list.push_back(WithSuffix(name_of(i), IncrCounter(1)));
          if (thread == 0) item->Emit(list.back());
        }
        if (thread != 0) item->Emit(list);
        list.clear();
      }
    });
  }
  for (std::thread& emitter : emitters) emitter.join();
  done = true;
  lister.join();
  std::vector<CellRef> cells;
  item->ListCells(cells);
  EXPECT_TRUE(cells.size() == kNames && item->Fields().size() == kNames);
  EXPECT_TRUE(metric.cache_series_ == kNames && item->MemSize() == metric.cache_mem_ - 112);
  for (const CellRef& ref : cells) {
    EXPECT_EQ(ref.cell->Send(1).values, std::vector<double>{kTurns * kThreads}) << ref.name;
    EXPECT_EQ(item->Fields().at(std::string(ref.name)).get(), ref.cell);
  }
}

TEST_F(ItemTest, ACompatibleMetricChecksItsTagsAndHasOneCellPerSeries) {
  Metric& metric = *Make(3, {}, T::kGauge);
  for (const Strings& tags : {Strings(), Strings{"k", "v"}, Strings(510, "k"),
                              Strings{"a", "1", "b", "2"}, Strings{"b", "2", "a", "1"}}) {
    EXPECT_EQ(metric.CEmit(2.5, Strings(tags)), R::kOk);
  }
  EXPECT_EQ(metric.CEmit(1, Strings(512, "k")), R::kMaxTagPair);
  EXPECT_EQ(metric.CEmit(1, Strings(3, "k")), R::kMaxTagPair);
  EXPECT_EQ(metric.CEmit(1, {"k", "v", "", "v"}), R::kInvalidString);
  EXPECT_EQ(metric.CEmit(1, {"k", "v|"}), R::kInvalidString);
  EXPECT_EQ(metric.impl_->GetSeriesCount(), 5u);
  EXPECT_TRUE(metric.emit_success_ == 5 && metric.cache_series_ == 0);
  EXPECT_EQ(metric.cache_mem_, 5 * (16u + 112) + 2 + 510 + 4 + 4);
  const auto item = metric.impl_->WithCompatibleTags({"k", "v"});
  EXPECT_TRUE(item->Size() == 1 && item->MemSize() == 0 && item->last_update_ > 0);
  EXPECT_THAT(item->Data()->Send(1).values, ElementsAre(2.5));
  EXPECT_THAT(item->Data()->Send(1).values, ElementsAre());
  EXPECT_EQ(item->Emit({Store(1)}), R::kNotSupported);
  registry->Block();
  EXPECT_EQ(metric.CEmit(1, {}), R::kNotSupported);
  registry->UnBlock();
  EXPECT_EQ(Make(1)->CEmit(1, {}), R::kNotSupported);
  EXPECT_EQ(Make(0), nullptr);
  for (const T type : {T::kHistogram, T::kDeltaCounter, T()}) Make(3, {}, type)->CEmit(1, {});
  EXPECT_THAT(LogOf([this] { Flush(); }, 3),
              MatchesRegex("(.*Error.*]Sender.t1. Compatible unsupport MetricType: [680]\n){3}"));
}

TEST_F(ItemTest, ColumnsAreNamedAlikeInEveryLocaleAndLength) {
  std::setlocale(LC_NUMERIC, "de_DE.UTF-8");  // a comma, where it is installed
  MultiFieldMetricImpl::Columns columns;
  MultiFieldMetricImpl::GenerateMeterField(columns, "");
  MultiFieldMetricImpl::GenerateHistogramField(columns, "x", {-2.5, 1e22, 1e300});
  std::setlocale(LC_NUMERIC, "C");
  Strings names;
  for (const auto& column : columns) names.push_back(column.name);
  EXPECT_THAT(names, ElementsAre("", "rate", "hist:x:b--2.500000",
                                 "hist:x:b-10000000000000000000000.000000",
                                 testing::SizeIs(9 + 301 + 7), "hist:x:sum", "hist:x:count"));
  const auto make = [this] {
    EXPECT_EQ(Make(2, {{"h", T::kHistogram}})->GetCodecFieldInfo().size(), 36u);
  };
  EXPECT_THAT(LogOf(make), testing::HasSubstr("]Invalid Histogram Field Config with name: h\n"));
}

TEST_F(ItemTest, BoundsComeToALiveMetricAllAtOnce) {
  Metric& metric = *Make(1);
  HistoUtilBase bounds({0, 10, 100});
  std::atomic<int> rounds{0};
  Workers workers;
  workers.Start(2, [&](int) {
    metric.WithTags({})->Emit({Stat(5), WithSuffix(std::to_string(rounds++), Stat(50))});
  });
  workers.Start(1, [this](int) { Flush(); });
  EXPECT_TRUE(WaitFor([&] { return rounds > 20; }));
  EXPECT_EQ(metric.SetHistogram(&bounds), R::kOk);
  EXPECT_TRUE(WaitFor([&] { return rounds > 60; }));
  workers.Stop();
  metric.WithTags({})->Emit({Stat(5), WithSuffix("last", Stat(50))});
  const CellMap cells = metric.WithTags({})->Fields();
  EXPECT_THAT(cells.at("histogram")->Send(1).values, ElementsAre()) << "made without buckets";
  EXPECT_THAT(cells.at("last")->Send(1).values, ElementsAre(0, 1, 0, 50, 1));
}

}  // namespace
}  // namespace METRICS
