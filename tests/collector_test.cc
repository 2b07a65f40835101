#include "metrics/metric_collector.h"

#include <numeric>
#include <random>
#include <set>

#include "metrics/metric_collector_factory.h"
#include "metrics/metric_factory.h"
#include "metrics/packed_values.h"
#include "support/environment.h"
#include "support/keyed_numbers.h"

namespace METRICS {
namespace {

using Strings = std::vector<std::string>;

using tidegate::test::Insert;
using tidegate::test::KeyedNumber;
using tidegate::test::NumberHash;
using tidegate::test::NumberTable;

// Many keys at one slot, at both ends of a leaf.
struct FewHashes {
  size_t operator()(int key) const { return static_cast<size_t>(key % 3) * 0x7fffffffU; }
};

template <class Hash>
void IsAMap(int keys, int steps, int checked) {
  std::atomic<unsigned long> total{5};  // of other tables
  auto owner = std::make_unique<NumberTable<Hash>>(total);
  auto& map = *owner;
  std::map<int, int> expected;
  std::mt19937 random(1);
  for (int step = 0; step < steps; ++step) {
    const int key = static_cast<int>(random() % static_cast<unsigned>(keys));
    const bool grows = step % (steps / 3) < steps / 5;  // and shrinks, and grows again
    if (random() % 5 < (grows ? 4 : 1)) {
      const bool added = Insert(map, key, step) == ReturnCode::kOk;
      EXPECT_EQ(added, expected.emplace(key, step).second);
    } else {
      EXPECT_EQ(map.Erase(key) != nullptr, expected.erase(key) == 1);
    }
    if (step % (steps / 7) == steps / 7 - 1) {
      map.Clear();
      expected.clear();
    }
    if (step % checked != 0) continue;
    std::map<int, int> listed;
    for (const auto& [known, value] : map.GetAll()) {
      EXPECT_TRUE(listed.emplace(known, value->number).second);
    }
    ASSERT_EQ(listed, expected);
    for (int other = 0; other < keys; ++other) {
      ASSERT_EQ(map.Get(other) != nullptr, expected.count(other) == 1) << other;
    }
  }
  EXPECT_EQ(total, 5 + expected.size());
  owner.reset();
  EXPECT_EQ(total, 5u);
}

TEST(ConcurrentHashmapTest, IsAMapWhateverIsAddedAndErasedInWhichOrder) {
  IsAMap<NumberHash>(60, 5000, 1);
  IsAMap<FewHashes>(60, 5000, 1);
  IsAMap<NumberHash>(20000, 120000, 20000);  // of several leaves and chunks
}

TEST(ConcurrentHashmapTest, GrowsWhereNoSplittingTellsValuesApart) {
  struct OneHash {
    size_t operator()(int /*key*/) const { return 0x7fffffff; }
  };
  std::atomic<unsigned long> total{0};
  NumberTable<OneHash> table(total);
  for (int key = 0; key < 3500; ++key) Insert(table, key);
  for (int key = 3499; key >= 0; --key) ASSERT_NE(table.Erase(key), nullptr) << key;
  EXPECT_EQ(total, 0u);
}

TEST(ConcurrentHashmapTest, WhatStaysIsFoundAndListedOnceWhileOthersComeAndGo) {
  constexpr int kStaying = 5000;
  std::atomic<unsigned long> total{0};
  NumberTable<> table(total);
  for (int key = 0; key < kStaying; ++key) {
    Insert(table, key);
    Insert(table, -1 - key);  // leaves a hole
  }
  tidegate::test::Workers others;
  others.Start(2, [&](int thread) {
    for (int key = 1 + thread; key < 9000; key += 2) table.Erase(-key);
    for (int key = 1 + thread; key < 9000; key += 2) Insert(table, -key);
  });
  for (int round = 0; round < 50; ++round) {
    std::vector<int> seen(kStaying);
    ListCursor cursor;
    for (std::vector<std::shared_ptr<KeyedNumber>> piece; table.NextPiece(cursor, piece);) {
      ASSERT_LE(piece.size(), NumberTable<>::kPiece);
      for (const auto& value : piece) {
        if (value->key >= 0) ++seen[static_cast<size_t>(value->key)];
      }
    }
    ASSERT_EQ(seen, std::vector<int>(kStaying, 1));
    for (int key = 0; key < kStaying; ++key) {
      const auto is_it = [&](const KeyedNumber& value) { EXPECT_EQ(value.key, key); };
      ASSERT_TRUE(table.Visit(key, table.HashOf(key), is_it));
    }
  }
  others.Stop();
  for (int key = 1; key < 9000; ++key) table.Erase(-key);
  EXPECT_EQ(total, static_cast<unsigned long>(kStaying));
}

TEST(TagKVHashTest, ChainsTextsWithoutDelimiters) {
  EXPECT_EQ(TagKVHash()(Strings{"ab", "c"}), TagKVHash()(Strings{"a", "", "bc"}));
  EXPECT_FALSE(TagKVCmp()({"ab", "c"}, {"a", "bc"}));
  EXPECT_TRUE(TagKVCmp()({"ab", ""}, {"ab", ""}));
}

TEST(TagValuesHashTest, TellsListsApartThatAreMuchAlike) {
  std::set<uint64_t> hashes;
  size_t lists = 0;
  const auto add = [&](const Strings& list) {
    ++lists;
    const uint64_t hash = TagValuesHash()(list);
    hashes.insert(hash);
    TagValueRefs refs(list.size());
    for (size_t i = 0; i < list.size(); ++i) refs.Set(i, list[i]);
    EXPECT_EQ(TagValuesHash()(refs), hash);
  };
  for (size_t size = 0; size <= 70; ++size) {
    const std::string text(size, 'a');
    add({text});
    for (size_t i = 0; i < size; ++i) add({text.substr(0, i) + 'b' + text.substr(i + 1)});
    add({text.substr(0, size / 3), text.substr(size / 3)});
    add({text, "b"});
    add({"b", text});
    add({text, "", "b"});
  }
  EXPECT_EQ(hashes.size(), lists);
  // The table's bits are random, wherever it takes them from.
  for (const unsigned shift : {0U, 24U, 56U}) {
    std::vector<int> buckets(256);
    for (int i = 0; i < 25600; ++i) {
      ++buckets[TagValuesHash()(Strings{"v" + std::to_string(i)}) >> shift & 255];
    }
    EXPECT_GT(*std::min_element(buckets.begin(), buckets.end()), 40) << shift;
    EXPECT_LT(*std::max_element(buckets.begin(), buckets.end()), 180) << shift;
  }
}

class CollectorTest : public testing::Test {
 protected:
  tidegate::test::TestClient client_;
  MetricCollectorFactory& factory_ = *client_->collector_factory_;
  Metric* const metric_ = client_.Metric("m", {"a", "b"});
  MetricCollectorBase& collector_ = *metric_->impl_->collector_;
};

TEST_F(CollectorTest, StatisticsFollowCreationErasureAndClearing) {
  const auto item = collector_.GetOrCreate({"ab", "c"});
  EXPECT_EQ(collector_.GetOrCreate({"ab", "c"}), item);
  EXPECT_EQ(metric_->cache_mem_, 3u + 112u);
  item->Emit({WithSuffix("cpu", Store(1)), Incr(1)});
  EXPECT_EQ(metric_->cache_mem_, 3u + 112u + 3u + 16u + 4u + 16u);
  EXPECT_EQ(collector_.DPSize(), 2u);
  collector_.Erase({"no", "such"});
  EXPECT_EQ(factory_.total_series_, 1u);
  collector_.Erase({"ab", "c"});
  EXPECT_EQ(factory_.total_series_, 0u);
  EXPECT_EQ(metric_->cache_mem_, 112u - 56u);

  EXPECT_NE(collector_.GetOrCreate({"ab", "c"}), item) << "the series starts anew";
  EXPECT_NE(collector_.GetOrCreate({"ab", "c"}), collector_.GetOrCreate({"a", "bc"}));
  EXPECT_EQ(collector_.SeriesSize(), 2u);
  collector_.Clear();
  collector_.Clear();
  EXPECT_EQ(factory_.total_series_, 0u);
  EXPECT_EQ(metric_->cache_mem_, 56u + 2 * (3u + 112u)) << "clearing gives nothing back";
}

TEST_F(CollectorTest, AnItemCarriesItsValues) {
  for (const Strings& values : {Strings{}, Strings{""}, Strings{"ab", "", "c"},
                                Strings{std::string(5000, 'x'), "y"}, Strings(510, "value")}) {
    const auto item = collector_.MakeItem(values, false);
    const PackedValues& packed = item->values();
    EXPECT_EQ(packed.ToVector(), values);
    EXPECT_TRUE(packed.Equals(values));
    EXPECT_EQ(packed.TextBytes(),
              std::accumulate(values.begin(), values.end(), std::string()).size());
    for (size_t i = 0; i < values.size(); ++i) {
      Strings others = values;
      others[i] += 'x';
      EXPECT_FALSE(packed.Equals(others));
    }
    EXPECT_FALSE(packed.Equals(Strings(values.size() + 1, "")));
  }
  EXPECT_FALSE(collector_.MakeItem({"ab", "c"}, false)->values().Equals(Strings{"a", "bc"}));
}

TEST_F(CollectorTest, FactoryKeepsOneCollectorPerTenantAndNameAndRemovesNoOther) {
  const CollectorPtr collector = factory_.CreateCollector("t1", "x", metric_);
  EXPECT_EQ(factory_.CreateCollector("t1", "x", metric_), collector);
  EXPECT_NE(factory_.CreateCollector("t2", "x", metric_), collector);
  EXPECT_EQ(factory_.RemoveCollector("t2", "y"), ReturnCode::kObjectNotExisted);
  EXPECT_EQ(factory_.GetAll().size(), 3u);
  EXPECT_EQ(factory_.RemoveCollector("t1", "x"), ReturnCode::kOk);
  EXPECT_EQ(factory_.GetAll().size(), 2u);
}

TEST_F(CollectorTest, FlushPlansFollowIntervalsAndStates) {
  using Intervals = std::set<int>;
  const Intervals all{1, 5, 10, 15, 30, 60};
  for (const int interval : all) {
    Metric* metric = nullptr;
    client_.Registry(std::to_string(interval), "plan", {}, interval)
        ->CreateMetric(metric, "m", {}, nullptr);
  }
  const auto intervals = [](const CollectorList& list) {
    Intervals result;
    for (const CollectorPtr& collector : list) result.insert(std::stoi(collector->name_));
    return result;
  };
  const struct {
    int base;
    long now;
    Intervals due;
    std::map<int64_t, Intervals> next;
  } cases[] = {{30, 90, {1, 5, 10, 15, 30}, {{120, all}}},
               {30, 120, all, {{150, {1, 5, 10, 15, 30}}, {180, {60}}}},
               {1, 7, {1}, {{8, {1}}, {10, {5, 10}}, {15, {15}}, {30, {30}}, {60, {60}}}},
               {5, 10, {1, 5, 10}, {{15, {1, 5, 15}}, {20, {10}}, {30, {30}}, {60, {60}}}}};
  for (const auto& [base, now, due, next] : cases) {
    std::map<int64_t, Intervals> plan;
    for (const auto& [second, list] : factory_.GatherForFlush("plan", base, now)) {
      plan[second] = intervals(list);
    }
    EXPECT_EQ(plan, next) << base << " at " << now;
    EXPECT_EQ(intervals(factory_.GetTenantSendCollector("plan", base, now)), due);
  }
  for (const size_t state : {0u, 1u, 2u, 3u}) {  // only metrics in service are flushed
    metric_->impl_->state_ = static_cast<MetricState>(state);
    const size_t listed = state == 1 ? 1 : 0;
    EXPECT_EQ(factory_.GetTenantCollector("t1").size(), listed);
    EXPECT_EQ(factory_.GetTenantSendCollector("t1", 30, 60).size(), listed);
    EXPECT_EQ(factory_.GatherForFlush("t1", 30, 60).size(), listed);
  }
}

}  // namespace
}  // namespace METRICS
