// How a service tests what it reports.

#include "tidegate/metrics.h"
#include "tidegate/testing_gtest.h"

using tidegate::testing::HasPoint;

TEST(ConsumerTest, CountsRequests) {
  tidegate::testing::Receiver receiver;
  tidegate::Metrics metrics(receiver.Options("shop"));
  const tidegate::Counter requests = metrics.Counter("requests", {"method"});

  requests.Add(1, {{"method", "get"}});
  receiver.FlushNow();
  EXPECT_EQ(receiver.Value("shop.requests", {{"method", "get"}}), 1);

  EXPECT_THAT(receiver, HasPoint("shop.requests", {{"method", "get"}}, testing::Gt(0)));
}
