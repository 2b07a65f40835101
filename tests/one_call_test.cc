// Tags as views, and emissions in one call, mean what lists and two calls do.

#include <cmath>
#include <limits>
#include <sstream>

#include "metrics/metric_collector.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_registry.h"
#include "support/environment.h"
#include "tidegate/tag_view.h"

namespace METRICS {
namespace {

using namespace tidegate::test;
using tidegate::MetricTag;
using tidegate::TagView;
using Kind = MetricCoItemType;
using T = MetricsType;
using Tags = std::vector<MetricTag>;
using Values = std::vector<MetricFieldValue>;
using Emitter = ReturnCode (*)(Metric&, const Tags&, const Values&);

ReturnCode EmitInTwoCalls(Metric& metric, const Tags& tags, const Values& values) {
  return metric.WithTags(tags)->Emit(values);
}
ReturnCode EmitInOneCall(Metric& metric, const Tags& tags, const Values& values) {
  return EmitByTags(*metric.impl_, tags, values.data(), values.size());
}
ReturnCode EmitViews(Metric& metric, const Tags& tags, const Values& values) {
  const std::vector<TagView> views(tags.begin(), tags.end());
  return EmitByViews(*metric.impl_, views.data(), views.size(), values.data(), values.size());
}
ReturnCode EmitViewsInTwoCalls(Metric& metric, const Tags& tags, const Values& values) {
  const std::vector<TagView> views(tags.begin(), tags.end());
  return FindByViews(*metric.impl_, views.data(), views.size())->Emit(values);
}

// A client of its own, and what is seen of one metric in it.
class World {
 public:
  explicit World(Emitter emitter, uint64_t quota = 100)
      : client({{}, kNeverDue, {}, {false, false, false, 15000, 60, 600000, quota}}),
        emitter_(emitter) {}

  void Make(Kind kind) {
    std::vector<MetricFieldCfg> fields;
    if (kind == Kind::kCoItemField) {
      fields = {{"g", T::kGauge}, {"t", T::kTimer}, {"h", T::kHistogram, &bounds_}};
    }
    client.Registry("p")->CreateMetric(metric, {kind, {"m", {"b", "a"}, {}, fields, nullptr}});
    if (kind == Kind::kCoItemSuffix) metric->SetHistogram(&bounds_);
  }
  void Emit(const Tags& tags, const Values& values) {
    seen << static_cast<int>(emitter_(*metric, tags, values)) << ' ';
  }
  std::string Seen() {
    seen << "fail " << metric->emit_fail_ << " success " << GetStatValue(metric->emit_success_)
         << " cells " << metric->cache_series_ << " bytes " << metric->cache_mem_ << '\n';
    for (const auto& [values, item] : metric->impl_->collector_->GetAll()) {
      seen << testing::PrintToString(values) << item->active_ << item->tags_valid_
           << (item->last_update_ > 0);
      const CellMap cells = item->Fields();
      for (const auto& [name, cell] : std::map<std::string, CellPtr>(cells.begin(), cells.end())) {
        seen << ' ' << name << testing::PrintToString(cell->Send(1).values);
      }
      seen << '\n';
    }
    return seen.str();
  }

  TestClient client;
  Metric* metric = nullptr;
  std::ostringstream seen;

 private:
  const Emitter emitter_;
  HistoUtil bounds_ = HistoUtil::Explicit({0, 10, 100});
};

const Tags kSorted{{"a", "1"}, {"b", "2"}};

struct Case {
  const char* name;
  std::function<void(World&)> run;
  Kind kind = Kind::kCoItemSuffix;
  uint64_t quota = 100;
};

// Emits each list of values twice, on a series that is new and on one that is known.
auto Twice(std::vector<Values> lists) {
  return [lists = std::move(lists)](World& world) {
    for (int round = 0; round < 2; ++round) {
      for (const Values& values : lists) world.Emit(kSorted, values);
    }
  };
}
auto WithEach(std::vector<Tags> lists) {
  return [lists = std::move(lists)](World& world) {
    for (int round = 0; round < 3; ++round) {
      for (const Tags& tags : lists) world.Emit(tags, {Incr(1)});
    }
  };
}

std::vector<Case> Cases() {
  const auto state = [](MetricState to) {
    return [to](World& world) {
      world.Emit(kSorted, {Incr(1)});
      world.metric->impl_->state_ = to;
      world.Emit(kSorted, {Incr(1)});
      world.Emit({{"x", "y"}}, {});
    };
  };
  return {
      {"every kind", Twice({{Incr(1)},
                            {Incr(.5)},
                            {Store(2)},
                            {IncrCounter(3)},
                            {IncrMeter(4)},
                            {Add(5)},
                            {Observe(6)},
                            {Stat(7)},
                            {Stat(7.5)},
                            {Stat(1e9)}})},
      {"lists", Twice({{Incr(1), Add(2)},
                       {},
                       {Add(1), Incr(2)},
                       {Incr(1), Observe(3), Add(1)},
                       Values(8, Incr(1)),
                       Values(9, Incr(1))})},
      {"values that are refused", Twice({{Incr(1)},
                                         {WithSuffix("rate", Add(1))},
                                         {WithSuffix("a b", Incr(1))},
                                         {Incr(1), WithSuffix("a b", Incr(1)), Incr(1)},
                                         {Incr(1), WithSuffix("rate", Store(1)), Incr(1)},
                                         {WithSuffix("none")},
                                         {WithSuffix("", Incr(1))}})},
      {"estimated timers",
       [](World& world) {
         world.metric->SetUseCkms(true);
         Twice({{Observe(1)}, {Observe(2), Incr(1)}})(world);
       }},
      {"tags", WithEach({kSorted,
                         {{"b", "2"}, {"a", "1"}},
                         {},
                         {{"b", "2"}},
                         {{"a", "-"}},
                         {{"a", "1"}, {"a", "3"}},
                         {{"a", "x|"}, {"a", "3"}},
                         {{"a", "3"}, {"a", "x|"}},
                         {{"a", "1"}, {"b", "2"}, {"b", "3"}},
                         {{"c", "1"}},
                         {{"a", "1"}, {"c", "1"}},
                         {{"", "1"}},
                         {{"a", ""}},
                         {{"a", "\x80"}},
                         {{"c", ""}},
                         {{"a", std::string(4096, 'x')}}})},
      {"values that nobody has validated",
       [](World& world) {
         world.metric->WithTagValues({"bad|"})->Emit(Incr(1));
         world.metric->WithTagValues({"good"})->Emit(Incr(1));
         WithEach({{{"a", "bad|"}}, {{"a", "good"}}})(world);
       }},
      {"blocked", state(MetricState::BLOCKED)},
      {"shut down", state(MetricState::SHUTDOWN)},
      {"being made", state(MetricState::INIT)},
      {"unblocked",
       [](World& world) {
         world.Emit(kSorted, {Incr(1)});
         world.client.Registry("p")->Block();
         world.Emit(kSorted, {Incr(1)});
         world.client.Registry("p")->UnBlock();
         world.Emit(kSorted, {Incr(1)});
       }},
      {"quota", WithEach({{{"a", "1"}}, {{"a", "2"}}, {{"a", "3"}}}), Kind::kCoItemSuffix, 2},
      {"standby",
       [](World& world) {
         world.metric = world.client.Metric("b.c", {"x"}, "a");
         world.metric = world.client.Metric("c", {"a", "b"}, "a.b");
         WithEach({kSorted})(world);
       }},
      {"hidden and dropped",
       [](World& world) {
         world.Emit(kSorted, {Incr(1)});
         const auto item = world.metric->WithTags(kSorted);
         item->SetActive(false);
         world.Emit(kSorted, {Incr(1)});
         world.seen << item->active_;
         item->SetActive(false);
         world.Emit(kSorted, {WithSuffix("a b", Incr(1))});  // shows nothing
         world.seen << item->active_;
         world.metric->impl_->collector_->Erase({"1", "2"});
         world.Emit(kSorted, {Incr(1)});
       }},
      {"rows",
       Twice({{WithField("g", Store(1))},
              {WithField("g", Store(1)), WithField("h", Stat(5))},
              {WithField("t", Observe(1)), WithField("g", Store(2))},
              {WithField("x", Store(1))},
              {WithField("g", Incr(1))},
              {WithField("g", Store(3)), WithField("x", Stat(1))},
              Values(4, WithField("g", Store(4))),
              {}}),
       Kind::kCoItemField},
      {"compatible", Twice({{Incr(1)}, {}}), Kind::kCoItemCompatible},
      {"the other collector",
       [](World& world) {
         world.client->collector_factory_->collector_kind_ = 1;
         world.metric = world.client.Metric("tree", {"a", "b"});
         Twice({{Incr(1)}, {Add(1), Stat(2)}})(world);
       }},
  };
}

TEST(OneCallTest, DoesWhatTwoCallsDo) {
  for (const Case& test : Cases()) {
    const auto seen_by = [&test](Emitter emitter) {
      World world(emitter, test.quota);
      world.Make(test.kind);
      std::istringstream log(LogOf([&] { test.run(world); }));
      std::string seen = world.Seen();
      for (std::string line; std::getline(log, line);) {
        // Lines of the threads of the library come at any time.
        for (const char* source : {"series_items", "metric_impl", "metric_collector"}) {
          if (CountOf(source, line) > 0) seen += line + '\n';
        }
      }
      return seen;
    };
    const std::string expected = seen_by(EmitInTwoCalls);
    EXPECT_THAT(expected, testing::HasSubstr("fail")) << test.name;
    EXPECT_EQ(seen_by(EmitInOneCall), expected) << test.name;
    EXPECT_EQ(seen_by(EmitViews), expected) << test.name;
    EXPECT_EQ(seen_by(EmitViewsInTwoCalls), expected) << test.name;
  }
}

TEST(OneCallTest, ThreadsThatEmitWhileSeriesComeAndGoLoseNothing) {
  constexpr int kRounds = 20000, kSeries = 4;
  World world(EmitInOneCall, 1000);
  world.Make(Kind::kCoItemSuffix);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        world.metric->Emit({{"b", i % kSeries}}, {IncrCounter(1), Add(1)});
        world.metric->Emit({{"a", i % 500}}, Incr(1));  // others, so that the table grows
      }
    });
  }
  std::thread eraser([&] {
    for (int i = 0; i < 5000; ++i) {
      world.metric->impl_->collector_->Erase({std::to_string(i % 500), "-"});
    }
  });
  for (std::thread& thread : threads) thread.join();
  eraser.join();
  for (int series = 0; series < kSeries; ++series) {
    const auto cells = world.metric->WithTags({{"b", series}})->Fields();
    EXPECT_EQ(cells.at("counter")->Send(1).values.at(0), 3 * kRounds / kSeries);
    EXPECT_EQ(cells.at("delta_counter")->Send(1).values.at(0), 3 * kRounds / kSeries);
  }
  // A series that was erased between its making and its first emission refuses that.
  const unsigned long refused = world.metric->emit_fail_;
  EXPECT_EQ(GetStatValue(world.metric->emit_success_) + refused, 3u * 3 * kRounds);
  EXPECT_LT(refused, 5000u);
}

TEST(TagViewTest, WritesNumbersAsTheyRead) {
  using Limits = std::numeric_limits<int64_t>;
  constexpr double kTiny = 5e-324;
  const std::pair<TagView, const char*> texts[] = {
      {{"k", 0}, "0"},
      {{"k", NULL}, "0"},  // NOLINT(modernize-use-nullptr)
      {{"k", Limits::min()}, "-9223372036854775808"},
      {{"k", std::numeric_limits<uint64_t>::max()}, "18446744073709551615"},
      {{"k", static_cast<int8_t>(-128)}, "-128"},
      {{"k", static_cast<uint8_t>(65)}, "65"},
      {{"k", 'A'}, "A"},
      {{"k", u'A'}, "65"},
      {{"k", true}, "true"},
      {{"k", 0.1F}, "0.1"},
      {{"k", 200.0}, "200"},
      {{"k", -1e300}, "-1e+300"},
      {{"k", kTiny}, "5e-324"},
      {{"k", -std::numeric_limits<double>::max()}, "-1.7976931348623157e+308"},
      {{"k", -std::numeric_limits<long double>::denorm_min()}, "-4e-4951"},
      {{"k", std::nan("")}, "nan"},
      {{"k", static_cast<const char*>(nullptr)}, ""},
      {{"k", nullptr}, ""},
      {{"k", ""}, ""}};
  for (const auto& [view, text] : texts) {
    const TagView copy = view;  // keeps no address of its source
    EXPECT_EQ(copy.Value(), text);
    EXPECT_EQ(copy.Key(), "k");
  }
  const long double longest = -0.1234567890123456789012345e-4000L;
  EXPECT_EQ(std::stold(std::string(TagView("k", longest).Value())), longest);
}

TEST(TagViewTest, BracesMeanWhatListsMean) {
  World world(EmitInTwoCalls);
  world.Make(Kind::kCoItemSuffix);
  Metric& metric = *world.metric;
  struct Text {
    operator std::string() const { return "1"; }
  };
  const std::string one = "1", key = "a";
  const std::string_view view = one;
  const MetricTag tag("a", "1"), other("b", "-");
  const Tags list{tag};
  const char array[] = "1";
  const auto expected = metric.WithTags(list);
  for (const auto& found :
       {metric.WithTags({{"a", "1"}}), metric.WithTags({{key, one}}), metric.WithTags({{"a", 1}}),
        metric.WithTags({{"a", view}}), metric.WithTags({{"a", array}}), metric.WithTags({list}),
        metric.WithTags({{"a", std::to_string(1)}}), metric.WithTags({{"a", '1'}, {"b", "-"}}),
        metric.WithTags({tag}), metric.WithTags({tag, other}), metric.WithTags({tag, {"b", "-"}}),
        metric.WithTags({MetricTag("a", "1")}), metric.WithTags(Tags{{"a", "1"}}),
        metric.WithTags({{"a", Text()}}), metric.WithTags({{"a", Text()}, {"b", "-"}}),
        metric.WithTags({{"a", {one.data(), 1}}}), metric.WithTags({{"a", 1U}, {"b", '-'}})}) {
    EXPECT_EQ(found, expected);
  }
  EXPECT_EQ(metric.WithTags({}), metric.WithTags(Tags()));
  EXPECT_EQ(metric.WithTags({{}}), DummyItem());
  EXPECT_EQ(metric.WithTags({{"a", {}}}), DummyItem());
  for (const ReturnCode code :
       {metric.Emit({{"a", 1}}, Incr(1)), metric.Emit(list, Incr(1)), metric.Emit({tag}, Incr(1)),
        metric.Emit({{"a", 1}}, {Incr(1)}), metric.Emit(list, {Incr(1), Add(1)}),
        metric.Emit({{"a", one}}, {Incr(1), Add(1)}), metric.Emit({}, Incr(1)),
        metric.Emit({}, {Incr(1)}), metric.Emit({}, {})}) {
    EXPECT_EQ(code, ReturnCode::kOk);
  }
  EXPECT_EQ(expected->Fields().at("rate")->Send(1).values.at(0), 6);
}

}  // namespace
}  // namespace METRICS
