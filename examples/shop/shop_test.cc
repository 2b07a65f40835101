// What the shop reports, without an agent and without waiting for an interval.

#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "shop.h"
#include "tidegate/testing.h"

namespace shop {
namespace {

// A shop with ten lamps, and what it reports.
class ShopTest : public testing::Test {
 protected:
  explicit ShopTest(const ShopOptions& options = {}) : shop_(metrics_, options) {
    shop_.store().Deliver(1, "lamp", 10);
  }

  // The status of the answer; 0: none.
  int Get(const std::string& path) { return StatusOf(client_.Get(path)); }
  int Order(int quantity) {
    return StatusOf(client_.Post(
        "/orders", httplib::Params{{"product", "1"}, {"quantity", std::to_string(quantity)}}));
  }

  tidegate::testing::Receiver receiver_;
  tidegate::Metrics metrics_{receiver_.Options("shop")};
  Shop shop_;

 private:
  static int StatusOf(const httplib::Result& result) { return result ? result->status : 0; }

  httplib::Client client_{"127.0.0.1", shop_.port()};
};

TEST_F(ShopTest, CountsAndTimesRequestsByRoute) {
  EXPECT_EQ(Get("/products/1"), 200);
  EXPECT_EQ(Get("/products/1"), 200);
  EXPECT_EQ(Get("/products/2"), 404);
  EXPECT_EQ(Get("/a/b/c"), 404);
  EXPECT_EQ(Order(0), 400);
  receiver_.FlushNow();
  EXPECT_EQ(receiver_.Value("shop.requests", {{"route", "product"}, {"status", 200}}), 2);
  EXPECT_EQ(receiver_.Value("shop.requests", {{"route", "product"}, {"status", 404}}), 1);
  EXPECT_EQ(receiver_.Value("shop.requests", {{"route", "none"}, {"status", 404}}), 1);
  EXPECT_EQ(receiver_.Value("shop.requests", {{"route", "orders"}, {"status", 400}}), 1);
  EXPECT_EQ(receiver_.Value("shop.latency", {{"route", "product"}}, "counter"), 3);
}

TEST_F(ShopTest, CountsWhatBecomesOfOrders) {
  EXPECT_EQ(Order(7), 202);
  EXPECT_EQ(Order(7), 202);
  EXPECT_TRUE(receiver_.WaitFor("shop.orders", {{"state", "packed"}}, 1));
  EXPECT_TRUE(receiver_.WaitFor("shop.orders", {{"state", "sold_out"}}, 1));
}

// Nobody packs, and two orders may wait.
class FullShopTest : public ShopTest {
 protected:
  FullShopTest() : ShopTest({":memory:", 0, 0, 2}) {}
};

TEST_F(FullShopTest, ReportsItsQueueAndRefusesOrders) {
  EXPECT_EQ(Order(1), 202);
  EXPECT_EQ(Order(1), 202);
  EXPECT_EQ(Order(1), 503);
  receiver_.FlushNow();
  EXPECT_EQ(receiver_.Value("shop.queue.length"), 2);
  EXPECT_EQ(receiver_.Value("shop.orders", {{"state", "refused"}}), 1);
}

// Its database is a file that somebody else breaks.
class BrokenShopTest : public ShopTest {
 protected:
  BrokenShopTest() : ShopTest({kFile}) {}
  ~BrokenShopTest() override { std::remove(kFile.c_str()); }

  static inline const std::string kFile =
      testing::TempDir() + "shop_test." + std::to_string(::getpid()) + ".db";
};

TEST_F(BrokenShopTest, CountsErrorsOfItsDatabase) {
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(kFile.c_str(), &other), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(other, "DROP TABLE products", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(other);
  EXPECT_EQ(Get("/products/1"), 500);
  receiver_.FlushNow();
  EXPECT_EQ(receiver_.Value("shop.store_errors", {{"at", "product"}}), 1);
  EXPECT_EQ(receiver_.Value("shop.requests", {{"status", 500}}), 1);
  EXPECT_EQ(receiver_.Value("shop.in_flight"), 0);
}

}  // namespace
}  // namespace shop
