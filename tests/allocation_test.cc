// Emissions on known series allocate nothing, whatever the way in: a counting allocator says so.

#include <cerrno>
#include <cstdlib>
#include <new>

#include "metrics/bound_series.h"
#include "metrics/cell_table.h"
#include "metrics/metric_ckms_quantiles.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/sampler_thread.h"
#include "support/counted_allocations.h"
#include "support/environment.h"
#include "support/keyed_numbers.h"
#include "tidegate/service_metrics.h"

// Of this thread: the client's others do as they like.
static __thread long allocations = 0;

static bool NextAllocationFails() {
  ++allocations;
  return IsOneTooMany();
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// All others call the C library's own.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
void* malloc(size_t size) { return NextAllocationFails() ? nullptr : __libc_malloc(size); }
void* calloc(size_t count, size_t size) {
  return NextAllocationFails() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, size_t size) {
  return NextAllocationFails() ? nullptr : __libc_realloc(memory, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
  return NextAllocationFails() ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** memory, size_t alignment, size_t size) {
  if (NextAllocationFails()) return ENOMEM;
  *memory = __libc_memalign(alignment, size);
  return 0;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
}
#else
// The sanitizers have the others.
#include "support/failing_new.h"
#endif

namespace tidegate::test {
namespace {

using namespace METRICS;

TEST(AllocationTest, NoneOnAKnownSeries) {
  TestClient client(ReportTo("/tmp/nobody.listens", kNeverDue));
  METRICS::Metric& metric = *client.Metric("m", {"b", "a"});
  METRICS::Metric* row = nullptr;
  client.Registry("p")->CreateMetric(
      row, MetricInstanceCfg{"row", {"a"}, {}, {{"hits", MetricsType::kRate}}, nullptr});
  METRICS::Metric* full = nullptr;
  client.Registry("p")->CreateMetric(full,
                                     MetricInstanceCfg{"full", {"a", "b"}, {}, {}, nullptr, 1});
  full->WithTags({})->Emit(Incr(1));
  std::atomic<int> unknown{0};
  const std::string value = "a value that is longer than a string holds in itself";
  const std::vector<MetricTag> sorted{{"a", value}, {"b", "2"}}, unsorted{{"b", "2"}, {"a", value}};
  const std::vector<std::string> values{value, "2"}, fewer{value};
  const std::unordered_map<std::string, std::string> map{{"b", "2"}, {"a", value}};
  const std::vector<MetricFieldValue> both{Incr(1), IncrCounter(1.5)};
  const std::vector<MetricFieldValue> hits{WithField("hits", Incr(1))};
  const std::unordered_map<std::string, double> hits_map{{"hits", 1}};
  const auto held = metric.WithTags(sorted);
  const auto held_row = row->WithTagValues({"1"});
  BoundSeries bound;
  bound.Bind(&metric, sorted, Incr(0));
  const std::vector<std::pair<const char*, std::function<void()>>> ways{
      {"WithTags", [&] { metric.WithTags(sorted)->Emit(both); }},
      {"WithTags, unsorted", [&] { metric.WithTags(unsorted)->Emit({Incr(1)}); }},
      {"WithTags of views",
       [&] {
         metric.WithTags({{"b", 2}, {"a", value}})->Emit(Incr(1));
       }},
      {"one call", [&] { metric.Emit(sorted, Incr(1)); }},
      {"one call, views",
       [&] {
         metric.Emit({{"a", value}, {"b", 2}}, {Incr(1), Store(.5)});
       }},
      {"beyond a limit of series",
       [&] {
         char text[64];
         std::snprintf(text, sizeof text, "a value that nobody has seen before: %d", ++unknown);
         full->Emit({{"a", std::string_view(text)}}, Incr(1));
         full->WithTags({{"b", std::string_view(text)}})->Emit(both);
       }},
      {"WithTagValues", [&] { metric.WithTagValues(values)->Emit(both); }},
      {"WithTagValues, fewer", [&] { metric.WithTagValues(fewer)->Emit(both); }},
      {"WithTagMap", [&] { metric.WithTagMap(map)->Emit(both); }},
      {"held item", [&] { held->Emit(both); }},
      {"held row", [&] { held_row->Emit(hits); }},
      {"held row by map", [&] { held_row->EmitMap(hits_map); }},
      {"bound series", [&] { bound.Emit(1); }}};
  const auto expect_none = [&ways = ways](int rounds) {
    for (const auto& [name, emit] : ways) {
      const long before = allocations;
      for (int i = 0; i < rounds; ++i) emit();
      EXPECT_EQ(allocations, before) << name;
    }
  };
  for (const auto& way : ways) way.second();
  expect_none(200);
  std::vector<std::thread> threads;  // nor the first one of a new thread
  std::atomic<int> working{12};
  for (int i = 0; i < 12; ++i) {
    threads.emplace_back([&] {
      expect_none(1);
      for (--working; working > 0;) std::this_thread::yield();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(allocations, 0) << "not counted at all";
}

TEST(AllocationTest, NoneInARoundOfSamplers) {
  tidegate::Options options;
  options.service = "s";
  options.socket_path = "/tmp/nobody.listens";
  options.log_level = LogLevel::kSilent;
  tidegate::Metrics metrics(options);
  metrics.AddProcessMetrics();
  metrics.AddAllocatorMetrics();
  std::atomic<long> round = 0;
  std::atomic<long> last_round = -1;
  // Asked first, so that a round is between two calls.
  const tidegate::Sampler sampler =
      metrics.Sample("allocations", [&, before = allocations]() mutable {
        round = allocations - before;
        before = allocations;
        return 1;
      });
  for (int i = 0; i < 4; ++i) {
    AskSamplersNow();
    last_round = round.exchange(-1);
  }
  EXPECT_EQ(last_round, 0);
}

TEST(AllocationTest, WhereOneFailsATableOfCellsIsAsItWas) {
  constexpr size_t kCells = 13;  // the first number that is searched by an index
  bool made = false;
  for (long left = 0; !made; ++left) {
    CellTable table;
    std::vector<std::string> names;
    for (size_t i = 0; i < kCells; ++i)
      names.push_back(std::string(99, static_cast<char>('a' + i)));
    const CellPtr cell = MetricCollectorItem::NoopDataPtr();
    for (size_t i = 0; i + 1 < kCells; ++i) table.Set(names[i], cell);
    made = Manages(left, [&] { table.Set(names.back(), cell); });
    EXPECT_EQ(table.Size(), made ? kCells : kCells - 1);
    for (const std::string& name : names) table.Set(name, cell);
    EXPECT_EQ(table.Size(), kCells) << "after " << left;
    EXPECT_EQ(table.ToMap().size(), kCells) << "after " << left;
  }
}

TEST(AllocationTest, WhereOneFailsATableOfSeriesIsAsItWas) {
  // The first numbers that make the leaf grow, the list, both chunks of it, and the leaf split.
  const std::pair<int, long> cases[] = {{0, 3}, {5, 1}, {8, 1}, {1024, 2}, {2816, 3}};
  for (const auto& [last, allocations] : cases) {
    for (long left = 0; left <= allocations; ++left) {
      std::atomic<unsigned long> total{0};
      tidegate::test::NumberTable<> table(total);
      for (int i = 0; i < last; ++i) tidegate::test::Insert(table, i);
      const auto added = std::make_shared<tidegate::test::KeyedNumber>();
      added->key = last;
      const bool made = Manages(left, [&] { table.Insert(added); });
      EXPECT_EQ(made, left == allocations) << left << " for " << last;
      EXPECT_EQ(total, static_cast<unsigned>(last) + (made ? 1 : 0)) << "after " << left;
      EXPECT_EQ(table.Get(last) == added, made) << "after " << left;
      for (int i = 0; i < last; ++i) ASSERT_NE(table.Erase(i), nullptr) << "after " << left;
      EXPECT_EQ(table.Size(), made ? 1u : 0u);
    }
  }
}

// The n-th sample; the same ones come back after some thousand.
double SampleAt(int n) { return n * 7919 % 10007; }

TEST(AllocationTest, WhereOneFailsAnEstimatorHasWhatItTookAndNoMore) {
  constexpr int kSamples = 1700;  // three merges
  for (const int from : {0, 400, 499, 998, 1499, 1600}) {
    for (long left = 0; left < 3; ++left) {
      CKMSQuantiles quantiles, expected;
      int refused = 0;
      for (int n = 0; n < kSamples; ++n) {
        const bool short_of_memory = n >= from && n < from + 110;
        if (Manages(short_of_memory ? left : -1, [&] { quantiles.Insert(SampleAt(n)); })) {
          expected.Insert(SampleAt(n));
        } else {
          ++refused;
        }
      }
      EXPECT_EQ(quantiles.Send(1).values, expected.Send(1).values) << from << ' ' << left;
      EXPECT_EQ(refused > 0, left == 0 && from % 500 >= 400) << from << ' ' << left;
    }
  }
}

TEST(AllocationTest, AnEmissionThatThrowsShowsNoSeriesAndIsNotCounted) {
  TestClient client(ReportTo("/tmp/nobody.listens", kNeverDue));
  METRICS::Metric& metric = *client.Metric("m");
  metric.SetUseCkms(true);
  const auto item = metric.WithTags({});
  item->active_ = false;
  const MetricFieldValue value = WithSuffix(std::string(99, 's'), Incr(1));  // its name allocates
  EXPECT_FALSE(Manages(0, [&] { item->Emit(value); }));
  EXPECT_FALSE(item->active_);
  BoundSeries timer;
  timer.Bind(&metric, {}, Observe(0));
  unsigned long accepted = 0;
  for (int i = 0; i < 600; ++i) accepted += Manages(0, [&] { timer.Emit(1); }) ? 1 : 0;
  EXPECT_EQ(accepted, 500u) << "as many as wait for a merge";
  EXPECT_EQ(metric.emit_success_, accepted);
}

TEST(AllocationTest, WhereOneFailsTheFacadeGoesOnAndEnds) {
  auto metrics = std::make_unique<Metrics>("shop");
  Counter counter;
  BoundCounter bound;
  const std::function<void()> ways[] = {[&] { counter = metrics->Counter("n", {"a"}); },
                                        [&] {
                                          bound = counter.With({{"a", "b"}});
                                        },
                                        [&] { metrics->Block(), metrics->UnBlock(); }};
  for (const auto& way : ways) {
    for (long left = 0; !Manages(left, way); ++left) ASSERT_LT(left, 200);
  }
  EXPECT_EQ(bound.Add(1), ReturnCode::kOk);
  metrics->Stop();
  EXPECT_TRUE(Manages(0, [&] { metrics.reset(); }));
}

// Each way in makes a series and its cells, and emits 1: at the first attempt that gets through,
// and once more. What a failed attempt leaves is whole, and nothing is counted twice.
TEST(AllocationTest, WhereOneFailsASeriesIsWholeAndHasWhatItTookAndNoMore) {
  // Tags encoded at the flush, at creation, in trees; and then with series that overflow.
  for (uint32_t mode = 0; mode < 6; ++mode) {
    TestClient client(ReportTo("/tmp/nobody.listens", kNeverDue, mode % 3 == 1));
    client->collector_factory_->collector_kind_ = mode % 3 / 2;
    const uint64_t limit = mode / 3;  // reached by one series
    HistoUtilBase bounds({0, 10});
    MetricRegistry& registry = *client.Registry("p");
    const auto make = [&](int kind, const char* name, const std::vector<MetricFieldCfg>& fields) {
      METRICS::Metric* metric = nullptr;
      registry.CreateMetric(metric,
                            {static_cast<MetricCoItemType>(kind),
                             {name, {"a"}, {}, fields, kind == 1 ? &bounds : nullptr, limit}});
      return metric;
    };
    METRICS::Metric& metric = *make(1, "m", {});
    METRICS::Metric& estimating = *make(1, "e", {});
    estimating.SetUseCkms(true);
    METRICS::Metric& row = *make(2, "row",
                                 {{"counter", MetricsType::kCounter},
                                  {"gauge", MetricsType::kGauge},
                                  {"histogram", MetricsType::kHistogram, &bounds},
                                  {"timer", MetricsType::kTimer},
                                  {"meter", MetricsType::kMeter}});
    METRICS::Metric& compatible = *make(3, "c", {});
    compatible.SetCompatibleType(MetricsType::kCounter);
    const auto tags = [](const std::string& of) { return std::vector<MetricTag>{{"a", of}}; };
    BoundSeries bound;
    using Of = const std::string&;  // a tag's value
    const auto bind_and_emit = [&](Of of, const MetricFieldValue& like) {
      bound.Bind(&metric, tags(of), like);
      bound.Emit(1);
    };
    const MetricFieldValue count = IncrCounter(1), sample = Observe(1), bucket = Stat(1);
    const std::vector<MetricFieldValue> list{Store(1), WithSuffix("x", Add(1)), count};
    const std::unordered_map<std::string, double> map{{"counter", 1}};
    const auto map_of = [](Of of) {
      return std::unordered_map<std::string, std::string>{{"a", of}};
    };
    const auto pair_of = [](Of of) { return std::vector<std::string>{"a", of}; };
    const struct {
      const char* name;
      METRICS::Metric& metric;
      std::function<void(Of)> emit;
      std::string cell;
    } ways[] = {
        {"WithTags", metric, [&](Of of) { metric.WithTags(tags(of))->Emit(count); }, "counter"},
        {"a list", metric, [&](Of of) { metric.WithTags(tags(of))->Emit(list); }, "counter"},
        {"histogram", metric, [&](Of of) { metric.WithTagValues({of})->Emit(bucket); },
         "histogram"},
        {"estimator", estimating, [&](Of of) { estimating.WithTagMap(map_of(of))->Emit(sample); },
         "timer"},
        {"row", row, [&](Of of) { row.WithTags(tags(of))->EmitMap(map); }, "counter"},
        {"compatible", compatible, [&](Of of) { compatible.CEmit(1, pair_of(of)); }, ""},
        {"handle", metric, [&](Of of) { bind_and_emit(of, count); }, "counter"},
        {"handle on a timer", metric, [&](Of of) { bind_and_emit(of, sample); }, ""}};
    const auto item_of = [&](METRICS::Metric& of, const std::string& value) {
      return &of == &compatible ? compatible.impl_->WithCompatibleTags({"a", value})
                                : of.WithTags(tags(value));
    };
    for (const auto& way : ways) {
      SCOPED_TRACE(std::string(way.name) + " in mode " + std::to_string(mode));
      // Long, so that it is allocated.
      const std::string of = std::string(40, 'v') + std::to_string(&way - ways);
      if (limit != 0) {
        way.metric.impl_->ClearCollector();
        item_of(way.metric, "0");
      }
      bool done = false;
      long left = 0;
      for (; !done && left < 1000; ++left) {
        done = Manages(left, [&] { way.emit(of); });
        unsigned long series = 0;
        for (METRICS::Metric* each : {&metric, &estimating, &row, &compatible}) {
          series += each->impl_->GetSeriesCount();
        }
        EXPECT_EQ(client->collector_factory_->total_series_, series) << left;
      }
      EXPECT_TRUE(done && left > 3) << left;
      way.emit(of);
      bound = BoundSeries();
      const auto item = item_of(way.metric, of);
      EXPECT_EQ(limit == 0, item->values().ToVector().back() == of);
      EXPECT_FALSE(item->IsHeld());
      const CellPtr cell = way.cell.empty() ? item->Data() : item->Fields().at(way.cell);
      const std::vector<double> values = cell->Send(1).values;
      if (way.cell == "histogram") {
        EXPECT_EQ(values, (std::vector<double>{2, 0, 2, 2}));
      } else if (way.cell == "timer") {
        EXPECT_EQ(values.at(4), 2);
      } else if (&way.metric == &compatible || !way.cell.empty()) {
        EXPECT_EQ(values, std::vector<double>{2});
      }
    }
    ASSERT_EQ(bound.Bind(&metric, tags("anew"), IncrCounter(0)), ReturnCode::kOk);
    registry.Block();
    registry.UnBlock();
    long left = 0;
    while (left < 1000 && !Manages(left, [&] { bound.Emit(1); })) ++left;
    EXPECT_GT(left, 3) << "it is bound anew";
    bound = BoundSeries();
    const auto item = metric.WithTags(tags("anew"));
    EXPECT_FALSE(item->IsHeld());
    EXPECT_EQ(item->Fields().at("counter")->Send(1).values, std::vector<double>{1});
  }
}

}  // namespace
}  // namespace tidegate::test
