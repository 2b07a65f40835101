#include "metrics/metric_factory.h"

#include "support/environment.h"

namespace METRICS {
namespace {

using R = ReturnCode;
using Tags = std::vector<tidegate::MetricTag>;

class FactoryTest : public testing::Test {
 protected:
  tidegate::test::TestClient client_;
  MetricFactory& factory_ = *client_->metric_factory_;
  MetricRegistry* registry_ = nullptr;
};

TEST_F(FactoryTest, OfTwoErrorsTheEarlierCheckAnswers) {
  MetricRegistry* const existing = client_.Registry("b.c", "a");
  const Tags many(256, {"bad key", ""});
  const struct {
    std::string prefix, tenant;
    Tags tags;
    int interval;
    R code;
  } cases[] = {{"b.c", "a", many, 0, R::kObjectExisted},
               {"c", "a.b", many, 0, R::kObjectExisted},  // another pair of the same key
               {"", "", many, 0, R::kMaxTagPair},
               {"", "", {}, 0, R::kInvalidString},
               {"bad,prefix", "t", {}, 0, R::kInvalidString},
               {"", "t", {{"k", "1"}, {"k", ""}}, 0, R::kInvalidString},
               {"", "t", {{"k", "1"}, {"", "1"}}, 0, R::kInvalidString},
               {"", "t", {{"k", "1"}, {"k", "2"}}, 0, R::kDuplicatedTagName},
               {"", "t", {}, 0, R::kNotSupported}};
  for (const auto& [prefix, tenant, tags, interval, code] : cases) {
    registry_ = existing;
    const auto create = [&, &p = prefix, &t = tags, &o = tenant, i = interval, c = code] {
      EXPECT_EQ(factory_.CreateRegistry(registry_, p, Tags(t), o, i), c);
    };
    EXPECT_THAT(tidegate::test::LogOf(create, 2),
                testing::HasSubstr("]" + std::string(MetricGetErrorCodeStr(code)) + "\n"));
    EXPECT_EQ(registry_, nullptr);
  }
}

TEST_F(FactoryTest, BlockTakesTheTenantFirstAndGetAndRemoveThePrefix) {
  client_.Registry("prefix", "tenant");
  EXPECT_EQ(factory_.Block("prefix", "tenant"), R::kObjectNotExisted);
  EXPECT_EQ(factory_.UnBlock("prefix", "tenant"), R::kObjectNotExisted);
  EXPECT_EQ(factory_.GetRegistry(registry_, "tenant", "prefix"), R::kObjectNotExisted);
  EXPECT_EQ(registry_, nullptr);
  EXPECT_EQ(factory_.RemoveRegistry("tenant", "prefix"), R::kObjectNotExisted);
  EXPECT_EQ(factory_.GetRegistry(registry_, "prefix", "tenant"), R::kOk);
  EXPECT_EQ(factory_.Block("tenant", "prefix"), R::kOk);
  EXPECT_EQ(registry_->state_.load(), MetricState::BLOCKED);
  EXPECT_EQ(factory_.UnBlock("tenant", "prefix"), R::kOk);
  EXPECT_EQ(registry_->state_.load(), MetricState::READY);

  const MetricSender* const sender = &client_.Sender("tenant");
  EXPECT_EQ(factory_.RemoveRegistry("prefix", "tenant"), R::kOk);
  EXPECT_EQ(&client_.Sender("tenant"), sender) << "it outlives its last registry";
}

TEST_F(FactoryTest, ARemovedRegistryLeavesItsPlaceAmongThe512) {
  const auto create = [this](const std::string& prefix) {
    return client_->CreateMetric({prefix, {}, "t1", nullptr, 1}, {"m", {}, {}, {}, nullptr});
  };
  for (int i = 0; i < 512; ++i) ASSERT_EQ(create("p" + std::to_string(i)).code, R::kOk);
  EXPECT_EQ(create("one.more").code, R::kMaxRegistry);
  EXPECT_EQ(client_->RemoveRegistry("t1", "p7"), R::kObjectNotExisted) << "the prefix comes first";
  EXPECT_EQ(client_->RemoveRegistry("p7", "t1"), R::kOk);
  const auto [metric, code] = create("one.more");
  ASSERT_EQ(code, R::kOk);
  const auto emit = [metric = metric] { return metric->WithTags({})->Emit({Store(1)}); };
  EXPECT_EQ(emit(), R::kOk);
  EXPECT_EQ(client_->Block("one.more", "t1"), R::kOk);
  EXPECT_EQ(emit(), R::kNotSupported);
  EXPECT_EQ(client_->UnBlock("one.more", "t1"), R::kOk);
  EXPECT_EQ(emit(), R::kOk);
}

}  // namespace
}  // namespace METRICS
