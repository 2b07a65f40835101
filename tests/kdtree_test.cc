#include "metrics/metric_kdtree_collector.h"

#include <set>

#include "metrics/metric_collector_factory.h"
#include "support/environment.h"
#include "util/metric_log.h"
#include "util/metric_size_limits.h"

namespace METRICS {
namespace {

using tidegate::test::CountOf;
using tidegate::test::LogOf;
using Item = std::shared_ptr<MetricCollectorItem>;
using Strings = std::vector<std::string>;

constexpr uint32_t kHashMap = 0, kKDTree = 1;

// Every way to cut a text in three, which only the boundaries tell apart, and keys of other
// lengths.
std::vector<Strings> Keys() {
  const std::string text = "abcdefghijklmnopqrst";
  std::vector<Strings> keys{{}, {""}, {"", ""}, {text}, {"", "", "", "a"}};
  for (size_t i = 0; i <= text.size(); ++i) {
    for (size_t j = i; j <= text.size(); ++j) {
      keys.push_back({text.substr(0, i), text.substr(i, j - i), text.substr(j)});
    }
  }
  return keys;
}

// A client whose collectors are of one kind, and a metric with three tags.
struct Bench {
  explicit Bench(uint32_t kind, bool pre_encode_tags = true)
      : client({{}, tidegate::test::kNeverDue, {}, {false, false, pre_encode_tags}}) {
    client->collector_factory_->collector_kind_ = kind;
    metric = client.Metric("m", {"a", "b", "c"});
    collector = metric->impl_->collector_.get();
  }
  unsigned long Total() { return client->collector_factory_->total_series_; }
  tidegate::test::TestClient client;
  Metric* metric = nullptr;
  MetricCollectorBase* collector = nullptr;
};

// 4 threads get the items of all keys, in pairs that are one key apart; returns them.
std::vector<Item> Race(MetricCollectorBase& source, const std::vector<Strings>& keys) {
  constexpr size_t kThreads = 4;
  std::vector<Item> items[kThreads];
  std::atomic<size_t> arrived{0};
  std::vector<std::thread> threads;
  for (size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      items[t].resize(keys.size());
      for (++arrived; arrived < kThreads;) std::this_thread::yield();
      // A thread that is late finds the nodes that are there and catches up, so all stay close.
      for (size_t i = 0; i < keys.size(); ++i) {
        const size_t index = (i + t / 2) % keys.size();
        items[t][index] = source.GetOrCreate(keys[index]);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& mine : items) EXPECT_EQ(mine, items[0]);
  EXPECT_EQ(std::set<Item>(items[0].begin(), items[0].end()).size(), keys.size());
  EXPECT_EQ(source.GetAll().size(), keys.size());
  return items[0];
}

class CollectorKindTest : public testing::TestWithParam<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(Kinds, CollectorKindTest, testing::Values(kHashMap, kKDTree));

TEST_P(CollectorKindTest, RacingThreadsGetOneItemPerKeyAndClearGivesAllBack) {
  Bench bench(GetParam());
  MetricCollectorBase& collector = *bench.collector;
  bench.client.Metric("other")->WithTags({});
  const std::vector<Strings> keys = Keys();
  const std::vector<Item> items = Race(collector, keys);
  EXPECT_EQ(bench.Total(), keys.size() + 1);
  for (const Item& item : items) item->Emit({Store(1), WithSuffix("s", Incr(1))});
  EXPECT_EQ(collector.DPSize(), 2 * keys.size());
  for (const auto& [key, item] : collector.GetAll()) {
    EXPECT_EQ(item, collector.GetOrCreate(key));
  }
  tidegate::test::Workers clearers;
  clearers.Start(1, [&](int) { collector.Clear(); });
  for (int round = 0; round < 2000; ++round) {
    const std::string text = "too long for a short string " + std::to_string(round);
    collector.GetOrCreate({text, text, "c"});
    for (const auto& [key, item] : collector.GetAll()) {
      ASSERT_TRUE(key.size() != 3 || item->encoded_tags_.find(key[1]) != std::string::npos);
    }
  }
  clearers.Stop();
  collector.Clear();
  EXPECT_EQ(bench.Total(), 1u);
  EXPECT_EQ(collector.SeriesSize() + collector.GetAll().size(), 0u);
  EXPECT_NE(collector.GetOrCreate(keys[0]), items[0]);
  bench.client.Registry("p")->RemoveMetric("m");
  EXPECT_EQ(bench.Total(), 1u) << "so does destruction";
}

TEST_P(CollectorKindTest, ANewSeriesIsTracedAndOneWithMoreThan64MiBOfTagsRefused) {
  Bench bench(GetParam(), false);
  Metric& metric = *bench.metric;
  const std::string in = GetParam() == kKDTree ? "KDTree" : "Collector: p.m";
  const auto make = [&, values = Strings{"1", "", "3"}] { metric.WithTagValues(values); };
  EXPECT_THAT(LogOf(make, 0), testing::HasSubstr("[MetricSDK][Debug]Create a Item in " + in +
                                                 " with DataBase type: 1 with tag value: 1||3|\n"));
  EXPECT_EQ(metric.impl_->send_tag_bytes_, 3u) << "of the names";
  Metric* compatible = nullptr;
  metric.registry_->CreateMetric(compatible,
                                 {MetricCoItemType::kCoItemCompatible, {"c", {}, {}, {}, nullptr}});
  const std::string log = LogOf(
      [&] {
        EXPECT_EQ(compatible->impl_->CEmit(1, {"k", std::string(64 << 20, 'v')}),
                  ReturnCode::kNotSupported);
        for (Metric* const each : {&metric, compatible}) {  // 3 are left beside their own tags
          each->impl_->send_tag_bytes_ = kMaxSeriesTagBytes - 3;
        }
        EXPECT_NE(metric.WithTagValues({"x", "yz", ""}), DummyItem());
        EXPECT_EQ(metric.WithTagValues({"x", "yz", "-"}), DummyItem());
        EXPECT_EQ(metric.WithTagValues({"xy"}), DummyItem());
        EXPECT_EQ(metric.WithTagMap({{"b", "xy"}}), DummyItem());
        EXPECT_EQ(compatible->impl_->CEmit(1, {"k", "v"}), ReturnCode::kOk);
        EXPECT_EQ(compatible->impl_->CEmit(1, {"k", "xyz"}), ReturnCode::kNotSupported);
      },
      3);
  EXPECT_EQ(CountOf(" too long, bytes: 6710886", log), 5u) << log;
  EXPECT_TRUE(metric.emit_fail_ == 3 && compatible->emit_fail_ == 2 && bench.Total() == 3);
}

TEST(DebugMsgTest, CutsItsTextAt1023Bytes) {
  const auto trace = [] { DebugMsg({}, "%s", std::string(1024, 'x').c_str()); };
  EXPECT_EQ(LogOf(trace, 0), "[MetricSDK][Debug]" + std::string(1023, 'x') + " with tag value: \n");
  EXPECT_EQ(LogOf(trace, 1), "");
}

TEST(KDTreeCollectorTest, DiffersFromTheHashMapInWhatItIsToldTo) {
  Bench bench(kKDTree, false);
  const Item item = bench.metric->WithTagValues({"1", "2", "3"});
  EXPECT_EQ(item->encoded_tags_,
            Bench(kHashMap).metric->WithTagValues({"1", "2", "3"})->encoded_tags_);
  item->Emit({WithSuffix("cpu", Store(1))});
  bench.collector->Erase({"1", "2", "3"});
  EXPECT_EQ(bench.metric->WithTagValues({"1", "2", "3"}), item) << "nothing is erased";
  EXPECT_EQ(bench.metric->cache_mem_, 3u + 16u) << "cells alone";

  bench.client->collector_factory_->total_series_ += 9999999;
  EXPECT_EQ(bench.collector->GetOrCreate({"new", "-", "-"}), nullptr);
  EXPECT_EQ(bench.metric->emit_fail_, 0u);
  EXPECT_EQ(bench.metric->WithTagValues({"new"}), DummyItem());
  EXPECT_EQ(bench.metric->emit_fail_, 1u);
}

}  // namespace
}  // namespace METRICS
