#include "agent/page_api.h"

#include <gmock/gmock.h>

#include <chrono>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "agent/api_query.h"
#include "agent/shown_settings.h"
#include "support/blocks.h"

namespace tidegate::agent {
namespace {

using std::chrono::seconds;
using testing::HasSubstr;
using testing::Not;
using Json = nlohmann::json;

constexpr int64_t kTime = 1700000000;

Packet PacketOf(uint8_t type, const std::string& name, std::vector<Tag> tags,
                std::vector<double> values, int64_t time = kTime,
                const std::vector<std::string>& columns = {}) {
  return PacketWith(
      MakeBlock(type, name, columns, {{0, std::move(tags), {}, std::move(values)}}, time));
}

class PageApiTest : public testing::Test {
 protected:
  void Make(const SeriesTable::Options& options = {}) {
    table_ = std::make_unique<SeriesTable>(
        options, &health_, [this](const std::string& line) { status_->AddCollision(line); },
        [this] {
          return SeriesTable::Time{now_, kTime};
        });
    status_ = std::make_unique<StatusReport>(
        &health_, table_.get(), &services_, [this] { return destinations_; }, options.history);
  }
  HttpAnswer Ask(const std::string& path, std::vector<std::pair<std::string, std::string>> query) {
    HttpAnswer answer;
    PageApi(table_.get(), status_.get()).Answer({path, std::move(query)}, &answer);
    return answer;
  }
  // The parser refuses what is not UTF-8.
  Json Get(const std::string& path, std::vector<std::pair<std::string, std::string>> query = {}) {
    const HttpAnswer answer = Ask(path, std::move(query));
    EXPECT_EQ(answer.status, 200u) << answer.text;
    return Json::parse(answer.text);
  }
  void Handle(const Packet& packet) { table_->Handle(packet, {77, 1, 5, 3}); }
  std::string IdOf(const std::string& metric) {
    return Get("/api/series", {{"metric", metric}})["series"][0]["id"];
  }
  Json Points(const std::string& id, int64_t since_ms) {
    return Get("/api/points",
               {{"id", id}, {"since_ms", std::to_string(since_ms)}})["series"][0]["points"];
  }

  std::chrono::steady_clock::time_point now_ = std::chrono::steady_clock::now();
  Health health_;
  ConnectedServices services_{[](const ProcessId&) { return true; }};
  std::vector<DestinationStatus> destinations_;
  std::unique_ptr<SeriesTable> table_;
  std::unique_ptr<StatusReport> status_;
};

TEST_F(PageApiTest, RefusesWhatMakesNoSense) {
  Make();
  const std::string id(32, '0');
  std::vector<std::pair<std::string, std::string>> many_ids;
  for (int i = 0; i < 65; ++i) many_ids.emplace_back("id", TextOf({1, static_cast<uint64_t>(i)}));
  const struct {
    std::string path;
    std::vector<std::pair<std::string, std::string>> query;
    bool good;
  } kCases[] = {
      {"/api/status", {}, true},
      {"/api/status", {{"search", ""}}, false},
      {"/api/metrics", {{"limit", "1000"}, {"offset", "4294967295"}, {"search", ""}}, true},
      {"/api/metrics", {{"limit", "1001"}}, false},
      {"/api/metrics", {{"limit", "-1"}}, false},
      {"/api/metrics", {{"limit", ""}}, false},
      {"/api/metrics", {{"limit", "1x"}}, false},
      {"/api/metrics", {{"limit", "1"}, {"limit", "1"}}, false},
      {"/api/metrics", {{"offset", "4294967296"}}, false},
      {"/api/metrics", {{"search", std::string(256, 'x')}}, true},
      {"/api/metrics", {{"search", std::string(257, 'x')}}, false},
      {"/api/metrics", {{"search", " a b c d e f g h i j k l m n o p "}}, true},
      {"/api/metrics", {{"search", "a b c d e f g h i j k l m n o p q"}}, false},
      {"/api/series", {{"metric", ""}}, false},
      {"/api/series", {{"id", id}}, false},
      {"/api/points", {{"id", id}, {"id", id}, {"since_ms", "-5"}}, true},
      {"/api/points", {{"id", id + "0"}}, false},
      {"/api/points", {{"id", "+" + id.substr(1)}}, false},
      {"/api/points", {{"id", id}, {"since_ms", "9223372036854775808"}}, false},
      {"/api/points", {many_ids.begin(), many_ids.end() - 1}, true},
      {"/api/points", many_ids, false},
      {"/api/points", {{std::string(9000, '\xff') + "\n", "\"\xff"}}, false},
  };
  for (const auto& [path, query, good] : kCases) {
    const HttpAnswer answer = Ask(path, query);
    SCOPED_TRACE(answer.text);
    EXPECT_EQ(answer.status, good ? 200u : 400u);
    EXPECT_EQ(answer.etag.empty(), !good);
    const Json json = Json::parse(answer.text);
    EXPECT_EQ(json.contains("error"), !good);
    EXPECT_LT(answer.text.size(), 5000u);
  }
}

TEST_F(PageApiTest, FindsAndOrdersWhateverTheNamesHold) {
  Make();
  const std::string odd = "<b>\"\\\n\x7f\xff\xc3\xa9" + std::string(1, '\0');
  const std::string shown = "<b>\"\\\n\x7f\\xff\xc3\xa9\\x00";
  Handle(PacketOf(1, odd, {{odd, odd}}, {std::numeric_limits<double>::infinity()}));
  for (int i = 0; i < 3; ++i) {
    Handle(PacketOf(2, "shop.B.rate", {{"user", std::to_string(2 - i)}}, {0.5}));
  }
  Handle(PacketOf(7, "shop.a", {}, {1, 2}, kTime, {"x", "y"}));
  const Json all = Get("/api/metrics");
  EXPECT_EQ(all["total"], 3);
  EXPECT_EQ(all["metrics"][0]["name"], shown);
  EXPECT_EQ(all["metrics"][1].dump(),
            R"({"kind":"rate","name":"shop.B.rate","series":3,"tenant":"t1"})");
  EXPECT_EQ(Get("/api/metrics", {{"search", "RATE Shop"}, {"limit", "0"}})["total"], 1);
  EXPECT_EQ(Get("/api/metrics", {{"offset", "9"}})["metrics"].size(), 0u);

  const Json series =
      Get("/api/series", {{"search", "USER= shop"}, {"offset", "1"}, {"limit", "1"}});
  EXPECT_EQ(series["total"], 3);
  ASSERT_EQ(series["series"].size(), 1u);
  EXPECT_EQ(series["series"][0]["labels"].dump(), R"({"tenant":"t1","user":"1"})");
  EXPECT_EQ(series["series"][0]["columns"].dump() + series["series"][0]["values"].dump(),
            R"(["value"][0.5])");
  EXPECT_EQ(series["series"][0]["time_ms"], kTime * 1000);
  const Json strange = Get("/api/series", {{"metric", shown}})["series"][0];
  EXPECT_EQ(strange["labels"][shown], shown);
  EXPECT_TRUE(strange["values"][0].is_null());
  EXPECT_EQ(Get("/api/series", {{"metric", "shop"}})["total"], 0);
  EXPECT_EQ(Get("/api/status")["top_metrics"][0]["name"], "shop.B.rate");
  // Without a history there is the newest point.
  EXPECT_EQ(Points(IdOf("shop.a"), kTime * 1000).dump(), "[[1700000000000,1,2]]");
  EXPECT_EQ(Points(IdOf("shop.a"), kTime * 1000 + 1).dump(), "[]");
}

TEST_F(PageApiTest, KeepsPointsForTheirTimeAndTheNewestOfAll) {
  SeriesTable::Options options;
  options.history = seconds(100);
  options.history_bytes = PointHistory::kMinBytes;
  options.ttl = seconds(10);
  Make(options);
  for (int i = 0; i < 5; ++i) {
    Handle(PacketOf(3, "c", {}, {1.0 * i}, kTime - 4 + i));
    Handle(PacketOf(7, "r", {}, {1.0 * i, 2.0 * i}, kTime - 200 + 50L * i, {"x", "y"}));
  }
  const std::string id = IdOf("c");
  EXPECT_EQ(Points(id, (kTime - 1) * 1000).dump(), "[[1699999999000,3],[1700000000000,4]]");
  Handle(PacketOf(3, "c", {}, {7}));
  Handle(PacketOf(3, "c", {}, {0}, kTime - 9));  // too late
  EXPECT_EQ(Points(id, (kTime - 2) * 1000 + 1).dump(), "[[1699999999000,3],[1700000000000,7]]");
  EXPECT_EQ(Points(IdOf("r"), 0).dump(),
            "[[1699999900000,2,4],[1699999950000,3,6],[1700000000000,4,8]]");
  // With other columns a row starts again, and a column may be silent.
  Packet other = PacketOf(7, "r", {}, {5}, kTime + 1, {"x", "z"});
  other.blocks[0].series[0].indexes = {1};
  Handle(other);
  EXPECT_EQ(Points(IdOf("r"), 0).dump(), "[[1700000001000,null,5]]");

  // 2 words for each point; a sixty-fourth goes at a time.
  constexpr size_t kRoom = PointHistory::kMinBytes / 16;
  const auto before = static_cast<size_t>(health_.history_points);
  for (size_t i = 0; i < 2 * kRoom; ++i) Handle(PacketOf(1, "many", {}, {1}, kTime + 2));
  EXPECT_EQ(health_.history_points + health_.history_dropped_points, before + 2 * kRoom);
  EXPECT_GE(health_.history_points, kRoom - kRoom / 64 - 1);
  EXPECT_LE(health_.history_bytes, PointHistory::kMinBytes);
  EXPECT_EQ(Points(id, 0).dump(), "[[1700000000000,7]]");  // what the table has

  const auto dropped = static_cast<uint64_t>(health_.history_dropped_points);
  now_ += seconds(101);
  table_->Sweep();
  EXPECT_EQ(health_.history_points + health_.history_bytes, 0u);
  EXPECT_EQ(health_.history_dropped_points, dropped);
  EXPECT_EQ(Get("/api/points", {{"id", id}})["series"].size(), 0u);
}

TEST_F(PageApiTest, KeepsAnswersBelowTheirLimit) {
  SeriesTable::Options options;
  options.history = seconds(10000);
  options.history_bytes = 4 * PointHistory::kMinBytes;
  Make(options);
  std::vector<std::string> columns;
  for (char c = '0'; c < 'd'; ++c) columns.emplace_back(1, c);
  const std::vector<double> values(columns.size(), -1.2345678901234567e-300);  // 24 bytes each
  for (int i = 0; i < 7000; ++i) Handle(PacketOf(7, "r", {}, values, kTime - 7000 + i, columns));
  EXPECT_GT(Points(IdOf("r"), 0).size(), 5000u);

  for (char c = 'a'; c < 'e'; ++c) {
    Handle(PacketOf(1, std::string(300000, '\x01') + c, {}, {1}));
  }
  EXPECT_EQ(Get("/api/metrics")["total"], 5);
  EXPECT_LT(Ask("/api/status", {}).text.size(), size_t{5} << 20);
}

TEST_F(PageApiTest, TellsTheStateWithoutSecrets) {
  Make();
  status_->SetSettings(ShownSettings({{"ttl", "60"},
                                      {"quiet", ""},
                                      {"header", "Authorization: Bearer abc"},
                                      {"forward", "http://me:abc@db:1/w?token=abc"}}));
  Packet packet = PacketOf(2, "shop.web.requests.rate", {}, {1});
  packet.tenant_tags = {{"project_id", "p\xff"}};
  for (int flush = 0; flush < 3; ++flush) {
    packet.blocks.push_back(packet.blocks[0]);
    packet.blocks.back().name = "shop.jobs";
    packet.blocks[0].timestamp += 10;
    services_.Handle(packet, {77, 1, 5, 3});
  }
  Handle(packet);
  packet.blocks[0].name = "shop.web_requests.rate";
  Handle(packet);
  status_->Look();
  destinations_.resize(2);
  destinations_[0].dropped[static_cast<size_t>(ForwardDrop::kLate)] = 3;
  destinations_[0].last_refusal = DestinationStatus::Refusal{"no\"\xff", 400, 5};
  const HttpAnswer answer = Ask("/api/status", {});
  EXPECT_THAT(answer.text, Not(HasSubstr("abc")));
  const Json status = Json::parse(answer.text);
  EXPECT_EQ(status["settings"],
            Json({{"forward", "http://db:1/w"}, {"header", "(set)"}, {"ttl", "60"}}));
  ASSERT_EQ(status["services"].size(), 1u);
  Json service = status["services"][0];
  EXPECT_GT(service["last_packet_ms"], 0);
  service.erase("last_packet_ms");
  EXPECT_EQ(service.dump(),
            R"({"account_id":"","interval_s":10,"name":"shop","pid":77,"points_per_s":0.3,)"
            R"("project_id":"p\\xff","slot":3,"tenant":"t1"})");
  EXPECT_EQ(status["destinations"][0]["dropped"]["late"], 3);
  EXPECT_EQ(status["destinations"][0]["last_refusal"]["text"], "no\"\\xff");
  EXPECT_TRUE(status["destinations"][1]["last_refusal"].is_null());
  ASSERT_EQ(status["drops"].size(), 2u);
  EXPECT_EQ(status["drops"][0]["number"], "tidegate_agent_refused_points_total");
  EXPECT_EQ(status["drops"][0]["reason"], "collision");
  EXPECT_GT(status["drops"][0]["last_ms"], 0);
  EXPECT_EQ(status["drops"][0]["href"], "docs/agent.md#names-and-labels");
  EXPECT_THAT(std::string(status["collisions"][0]["text"]), HasSubstr("shop.web_requests.rate"));
}

}  // namespace
}  // namespace tidegate::agent
