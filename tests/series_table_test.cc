#include "agent/series_table.h"

#include <gmock/gmock.h>

#include <chrono>
#include <limits>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/blocks.h"
#include "support/limited_allocations.h"

namespace tidegate::agent {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr int64_t kTime = 1700000000;
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

struct Point {
  uint8_t type;
  std::string name;
  Columns columns;
  std::vector<Tag> tags;
  std::vector<double> values;
  std::vector<uint32_t> indexes = {};
  int64_t time = kTime;
};

class SeriesTableTest : public testing::Test {
 protected:
  void Make(const SeriesTable::Options& options) {
    table_ = std::make_unique<SeriesTable>(
        options, &health_, [this](const std::string& line) { reports_.push_back(line); },
        [this] {
          return SeriesTable::Time{now_, kTime};
        });
  }
  static Packet PacketOf(const Point& point) {
    return PacketWith(MakeBlock(point.type, point.name, point.columns,
                                {{0, point.tags, point.indexes, point.values}}, point.time));
  }
  void Handle(const Point& point) { table_->Handle(PacketOf(point), {77}); }
  std::string Page(bool timestamps = false) {
    std::string page;
    const size_t most = table_->PageBytes();
    table_->AppendPage(timestamps, &page);
    EXPECT_LE(page.size(), most);
    EXPECT_LE(most, 3 * page.size() + 300);
    return page;
  }
  // Points and series.
  std::string Refused(Refusal reason) const {
    const auto i = static_cast<size_t>(reason);
    return std::to_string(health_.refused_points[i]) + " of " +
           std::to_string(health_.refused_series[i]);
  }
  // The samples of the page, each after the type of its family, without the tenant.
  std::string Samples() {
    std::istringstream page(Page());
    std::string samples, type;
    for (std::string line; std::getline(page, line);) {
      if (line.rfind("# TYPE ", 0) == 0) type = line.substr(line.rfind(' ') + 1) + ' ';
      if (line[0] != '#') samples += type + line + '\n';
    }
    samples = std::regex_replace(samples, std::regex(R"(\{tenant="t1"\})"), "");
    return std::regex_replace(samples, std::regex(R"(tenant="t1",)"), "");
  }

  std::chrono::steady_clock::time_point now_{seconds(1000)};
  Health health_;
  std::vector<std::string> reports_;
  std::unique_ptr<SeriesTable> table_;
};

TEST_F(SeriesTableTest, ShowsEachKindInItsFamilies) {
  const Columns equal_bounds = {"hist:b--1.000000", "hist:b-0.500000", "hist:b-0.500000",
                                "hist:b-20.000000", "hist:sum",        "hist:count"};
  const struct {
    Point point;
    const char* samples;
  } kCases[] = {
      {{2, "1r", {}, {}, {kNan}}, "gauge _1r NaN\n"},
      {{3, "c.total", {}, {}, {kInf}}, "counter c_total +Inf\n"},
      {{3, "c2.total", {}, {}, {-9007199254740992}}, "counter c2_total -9007199254740992\n"},
      {{4, "m", {}, {}, {-kInf}}, "untyped m -Inf\n"},
      {{8, "d", {"counter", "rate", "delta"}, {}, {1e20, 0.5, 5}},
       "gauge d_rate 0.5\ncounter d_total 1e+20\n"},
      {{5, "t", kTimer, {{"quantile", "q"}}, {1, 9, 5, 50, 10, 4, 6, 7, 8, 9}},
       "summary t{exported_quantile=\"q\",quantile=\"0.5\"} 4\n"
       "summary t{exported_quantile=\"q\",quantile=\"0.9\"} 6\n"
       "summary t{exported_quantile=\"q\",quantile=\"0.95\"} 7\n"
       "summary t{exported_quantile=\"q\",quantile=\"0.99\"} 8\n"
       "summary t{exported_quantile=\"q\",quantile=\"0.999\"} 9\n"
       "summary t_sum{exported_quantile=\"q\"} 50\nsummary t_count{exported_quantile=\"q\"} 10\n"
       "gauge t_avg{exported_quantile=\"q\"} 5\ngauge t_max{exported_quantile=\"q\"} 9\n"
       "gauge t_min{exported_quantile=\"q\"} 1\n"},
      {{6, "h", equal_bounds, {}, {1, 2, 3, 4, -1.5, 10}},
       "histogram h_bucket{le=\"0.5\"} 3\nhistogram h_bucket{le=\"20\"} 6\n"
       "histogram h_bucket{le=\"+Inf\"} 10\nhistogram h_sum -1.5\nhistogram h_count 10\n"},
      {{6, "bad", {"hist:b-x", "hist:sum", "hist:count"}, {{"le", "1"}}, {1, 2, 3}},
       "gauge bad_hist:b_x{le=\"1\"} 1\ngauge bad_hist:count{le=\"1\"} 3\n"
       "gauge bad_hist:sum{le=\"1\"} 2\n"},
      {{7, "row", {"x", "y.rate", "z", "z"}, {}, {7, 8}, {1, 2}},
       "gauge row_y_rate 7\ngauge row_z 8\n"},
      {{1, "n\n\\", {}, {{"9 k", "a\"b\\c\nd\xff\xc3\xa9"}, {"__x", "1"}, {"e", ""}}, {0}},
       "gauge n__{_9_k=\"a\\\"b\\\\c\\nd\\\\xff\xc3\xa9\",exported__x=\"1\"} 0\n"},
      {{1, "nul", {}, {{"k", std::string("a\0b", 3)}, {"l", "a\\x00b"}}, {0}},
       "gauge nul{k=\"a\\\\x00b\",l=\"a\\\\x5cx00b\"} 0\n"},
      {{1, "g", {}, {{"pid", "p"}, {"tenant", "t"}, {"tenant", "u"}}, {0}},
       "gauge g{exported_tenant=\"t\",pid=\"p\"} 0\n"},
  };
  for (const auto& [point, samples] : kCases) {
    SCOPED_TRACE(point.name);
    Make({});
    Handle(point);
    EXPECT_EQ(Samples(), samples);
    EXPECT_THAT(reports_, IsEmpty());
  }
  health_.bytes = UINT64_MAX;
  std::string own;
  AppendHealth(health_, &own);
  EXPECT_THAT(own, HasSubstr("\ntidegate_agent_received_bytes_total 18446744073709551615\n"));

  SeriesTable::Options with_pid;
  with_pid.process_label = ProcessLabel::kPid;
  Make(with_pid);
  Handle({1, "g", {}, {{"pid", "p"}}, {0}});
  EXPECT_THAT(Page(true),
              HasSubstr("g{tenant=\"t1\",pid=\"77\",exported_pid=\"p\"} 0 1700000000000\n"));
}

TEST_F(SeriesTableTest, KeepsTheNewestAndAddsIntervalsUp) {
  Make({});
  Handle({3, "c", {}, {}, {5}});
  Handle({3, "c", {}, {}, {0}, {}, kTime - 10});  // an earlier point
  EXPECT_EQ(Samples(), "counter c_total 5\n");
  Handle({3, "c", {}, {}, {6}});
  EXPECT_EQ(Samples(), "counter c_total 6\n");

  Make({});
  Handle({7, "r", {"x", "y"}, {}, {1, 2}, {0, 1}});
  Handle({7, "r", {"x", "y"}, {}, {3}, {1}, kTime + 300});
  EXPECT_EQ(Samples(), "gauge r_x 1\ngauge r_y 3\n");
  Handle({7, "r", {"x", "y"}, {}, {4}, {1}, kTime + 301});  // x has been silent for too long
  EXPECT_EQ(Samples(), "gauge r_y 4\n");

  Make({});
  for (const double sum : {2.0, kNan, -0.5}) {
    Handle({6, "h", {"hist:b-0", "hist:b-1", "hist:sum", "hist:count"}, {}, {1, 2, sum, 3}});
    Handle({5, "t", kTimer, {}, {0, 0, 0, sum, 3, 0, 0, 0, 0, sum}});
  }
  const std::string samples = Samples();
  EXPECT_THAT(samples, HasSubstr("h_bucket{le=\"1\"} 3\nhistogram h_bucket{le=\"+Inf\"} 9\n"
                                 "histogram h_sum 1.5\nhistogram h_count 9\n"));
  EXPECT_THAT(samples, HasSubstr("t{quantile=\"0.999\"} -0.5\nsummary t_sum 1.5\n"
                                 "summary t_count 9\n"));
  // Other bounds: from the start, and not beside the old ones.
  Handle({6, "h", {"hist:b-7", "hist:sum", "hist:count"}, {}, {1, 7, 1}});
  EXPECT_THAT(Samples(), StartsWith("histogram h_bucket{le=\"+Inf\"} 1\nhistogram h_sum 7\n"
                                    "histogram h_count 1\nsummary t{"));
}

TEST_F(SeriesTableTest, SeesProcessesThatShareASeries) {
  const struct {
    const char* records;  // by the process that sent each
    int shared;
  } kCases[] = {
      {"AAAABBBBCCCC", 0},  // restarts
      {"ABCDEFGH", 0},
      {"AAABABBBBCBCCC", 0},        // with a last packet that comes late
      {"AAAABBBBBAAAAABBBBBA", 0},  // one of them at a time
      {"ABABAB", 1},
      {"ABBAABBAABBA", 1},
      {"ABCABCABC", 1},
      {"AAAAAAAAAABAAAAAAAAAABAAAAAAAAAA", 1},
      {"XXXXABABABABABAB", 1},
  };
  int shared = 0;
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.records);
    Make({});
    const Packet packet = PacketOf({1, "g\n", {}, {{"host", "a"}}, {0}});
    for (const char* process = test.records; *process != 0; ++process) {
      table_->Handle(packet, {*process, 1, 1});
    }
    EXPECT_EQ(health_.shared_series, static_cast<uint64_t>(shared += test.shared));
  }
  EXPECT_THAT(
      reports_[0],
      "\"g\\n{tenant=t1,host=a}\" comes from process 66 and process 65 at one time, which "
      "mixes their values; use --process-label slot, or give each of them a tag of its own");
  EXPECT_EQ(reports_.size(), static_cast<size_t>(shared));
}

TEST_F(SeriesTableTest, LimitsSeriesAndForgetsThoseWithoutNews) {
  SeriesTable::Options options;
  options.max_series = 2;
  Make(options);
  for (const char* host : {"a", "b", "c", "a", "d"}) Handle({1, "g", {}, {{"host", host}}, {1}});
  EXPECT_EQ(Refused(Refusal::kLimit), "2 of 2");
  EXPECT_EQ(health_.series, 2U);
  now_ += seconds(300);
  Handle({1, "g", {}, {{"host", "b"}}, {2}});
  table_->Sweep();
  EXPECT_EQ(health_.series, 2U);                              // 300 s are not yet too long
  Handle({1, "g", {}, {{"host", "a"}}, {0}, {}, kTime - 1});  // is no news
  now_ += seconds(10);
  EXPECT_EQ(Samples(), "gauge g{host=\"b\"} 2\n");
  table_->Sweep();
  EXPECT_EQ(health_.series, 1U);
  Handle({1, "g", {}, {{"host", "a"}}, {7}, {}, kTime - 1});
  EXPECT_EQ(Samples(), "gauge g{host=\"b\"} 2\ngauge g{host=\"a\"} 7\n");
  now_ += seconds(301);
  table_->Sweep();
  EXPECT_EQ(Page(), "");
  EXPECT_EQ(health_.series_bytes, 0U);

  // A few huge series do not get around the limit.
  for (char c = 'a'; c < 'z'; ++c) Handle({1, "g", {}, {{"k", std::string(1000, c)}}, {1}});
  EXPECT_EQ(health_.series, 1U);  // which fills the page
  Make({});
  const std::vector<double> ones(1000, 1);
  Handle({7, "r", Columns(1000, "c"), {{"k", std::string(20000, 'v')}}, ones});
  Handle({1, std::string(100000, 'n'), {}, std::vector<Tag>(1000), {1}});  // tags without values
  EXPECT_EQ(health_.series, 1U);
  std::vector<Tag> tags;
  for (int i = 1000; i < 2000; ++i) tags.push_back({std::to_string(i), "v"});
  Handle({1, std::string(400000, 'n'), {}, tags, {1}});
  EXPECT_EQ(health_.series, 2U);
  EXPECT_LT(health_.series_bytes, 4000000U);  // labels do not hold the name

  // A series that is there may change its columns.
  options.max_series = 1;
  Make(options);
  Handle({7, "r", {"x"}, {}, {1}});
  Handle({7, "r", {"x", "y"}, {}, {1, 2}});
  EXPECT_EQ(Samples(), "gauge r_x 1\ngauge r_y 2\n");

  // A point from the future does not hide what comes after it for longer than the time to live.
  Make({});
  Handle({5, "t", kTimer, {}, std::vector<double>(10, 1), {}, kTime + 1000000});
  for (int i = 0; i < 2; ++i) {
    now_ += seconds(200);
    table_->Sweep();
    Handle({5, "t", kTimer, {}, std::vector<double>(10, 2), {}, kTime + i});
  }
  EXPECT_THAT(Samples(), HasSubstr("t{quantile=\"0.5\"} 2\n"));
}

TEST_F(SeriesTableTest, LeavesOutWhatCollidesAndSaysSoOnce) {
  Make({});
  Handle({1, "a.b", {}, {{"x.y", "1"}}, {1}});
  for (int i = 0; i < 2; ++i) {
    Handle({1, "a_b", {}, {}, {2}});              // another name
    Handle({2, "a.b", {}, {}, {3}});              // another kind
    Handle({1, "a.b", {}, {{"x_y", "1"}}, {4}});  // a label that another tag has
    Handle({6, "a", {"hist:b-0", "hist:sum", "hist:count"}, {}, {1, 1, 1}});
    Handle({1, "a.sum", {}, {}, {5}});  // a line of the histogram
  }
  EXPECT_EQ(Samples(),
            "histogram a_bucket{le=\"+Inf\"} 2\nhistogram a_sum 2\nhistogram a_count 2\n"
            "gauge a_b{x_y=\"1\"} 1\n");
  EXPECT_THAT(
      reports_,
      ElementsAre(HasSubstr("\"a_b\" stands for the gauge a.b in /metrics; the gauge a_b"),
                  HasSubstr("the rate a.b is left out"),
                  HasSubstr("\"a_b{x_y}\" stands for the tag x.y in /metrics; series with the "
                            "tag x_y are left out there"),
                  HasSubstr("\"a_sum\" stands for the histogram a")));
  EXPECT_EQ(Refused(Refusal::kCollision), "8 of 4");
}

TEST_F(SeriesTableTest, RefusesWhatLiesAheadOrTakesTooMuchWork) {
  Make({});
  Handle({1, "g", {}, {}, {1}, {}, kTime + 3600});
  Handle({1, "g", {}, {}, {2}, {}, kTime + 3601});
  Handle({1, "g", {}, {}, {3}, {}, INT64_MAX});
  EXPECT_EQ(Samples(), "gauge g 1\n");
  EXPECT_EQ(health_.refused_points[static_cast<size_t>(Refusal::kAhead)], 2U);

  const size_t before = health_.series;
  const auto& refused = health_.refused_points[static_cast<size_t>(Refusal::kWork)];
  // Every key holds the tenant.
  Packet packet = PacketOf({1, "many", {}, {}, {1}});
  packet.tenant.assign(500000, 't');
  packet.blocks[0].series.resize(2000, packet.blocks[0].series[0]);
  table_->Handle(packet, {});
  EXPECT_NEAR(static_cast<double>(refused), 2000 - SeriesTable::kMaxPacketWork / 500000.0, 5);
  // Every family holds the name.
  const uint64_t so_far = refused;
  const std::vector<double> ones(150, 1);
  packet = PacketOf({7, std::string(9000, 'n'), Columns(150, "c"), {}, ones});
  packet.blocks.resize(50, packet.blocks[0]);
  for (size_t i = 0; i < packet.blocks.size(); ++i) packet.blocks[i].name += std::to_string(i);
  table_->Handle(packet, {});
  EXPECT_GT(refused, so_far + 30);
  // Every record is held against the length of the name, as there is no room for it.
  const uint64_t until_now = refused;
  packet = PacketOf({7, std::string(400000, 'n'), std::vector<std::string>(14, "c"), {}, {1}, {0}});
  packet.blocks[0].series.resize(1000, packet.blocks[0].series[0]);
  table_->Handle(packet, {});
  EXPECT_GT(refused, until_now + 900);
  Handle({1, "next", {}, {}, {1}});  // a packet anew
  EXPECT_GT(health_.series, before + 2);
}

// The parts of the table alone: what a series takes goes back to the last byte, wherever it was.
TEST_F(SeriesTableTest, PartsGiveBackWhatTheyTook) {
  SeriesBudget budget(10);
  PageNames names(
      health_, [](const std::string&) {}, budget.counted_bytes());
  LayoutTable layouts(true, &names, &budget);
  SeriesStore store(&names, &budget);
  SeriesIdentity identity;
  const auto add = [&](const Packet& packet) {
    LayoutTable::Target target = layouts.Find(packet.blocks[0]);
    identity.Assign(packet, {77}, ProcessLabel::kPid, target.kind, packet.blocks[0].series[0]);
    if (target.layout == nullptr) layouts.Add(&target, identity.LabelBytes());
    KeyedSeries* const known = store.Find(&identity, *target.metric);
    if (known != nullptr) store.Move(known, target.layout);
    return known != nullptr ? known : store.Add(&identity, target.layout);
  };
  KeyedSeries* const series = add(PacketOf({7, "r", {"x", "y"}, {{"k", "v"}}, {1, 2}}));
  ASSERT_NE(series, nullptr);
  SeriesLayout* const layout = series->second.layout;
  EXPECT_EQ(add(PacketOf({7, "r", {"z"}, {{"k", "v"}}, {1}})), series);  // moves
  EXPECT_THAT(layout->series, IsEmpty());
  EXPECT_EQ(add(PacketOf({7, "r", {"z"}, {{"a.b", "1"}, {"a_b", "2"}}, {1}})), nullptr);
  EXPECT_EQ(store.size(), 1U);
  EXPECT_THAT(names.families(), SizeIs(3));
  layouts.Sweep();
  EXPECT_THAT(names.families(), SizeIs(1));
  EXPECT_GT(budget.bytes(), 0U);
  store.Sweep(now_, seconds(1));
  layouts.Sweep();
  EXPECT_EQ(budget.bytes() + budget.page_bytes() + store.size(), 0U);
}

// Whatever allocation fails, in a packet or on a page, the table goes on and nothing is left.
TEST_F(SeriesTableTest, OutlivesEveryFailingAllocation) {
  const std::string text(40, 'x');
  const Point kPoints[] = {
      {1, "gauge." + text, {}, {{text, "1"}, {"b", text}}, {1}},
      {7, "row." + text, {text, "y"}, {}, {1, 2}},
      {7, "row." + text, {text, "y", "z"}, {}, {1, 2, 3}},    // other columns of the same series
      {7, "row." + text, {"z", text}, {{"b", "c"}}, {1, 2}},  // families that others have
      {1, "gauge." + text, {}, {{text, "1"}, {"b", "2"}}, {1}},
      {1, "gauge_" + text, {}, {{"c." + text, "1"}, {"c_" + text, "2"}}, {1}},  // collide
      {5, "timer." + text, kTimer, {}, std::vector<double>(10, 1)},
      {6, "timer." + text, {"hist:b-0", "hist:sum", "hist:count"}, {}, {1, 2, 3}},  // collides
  };
  bool failed = true;
  uint64_t series = 0;
  std::string expected;
  for (long n = -1; failed; ++n) {
    SCOPED_TRACE(n);
    failed = n < 0;
    Make({});
    const auto try_all = [&](bool failing) {
      for (const Point& point : kPoints) {
        const Packet packet = PacketOf(point);
        std::string page;
        failed |= !Manages(failing ? n : -1, [&] {
          table_->Handle(packet, {77});
          table_->AppendPage(false, &page);
        });
      }
    };
    try_all(true);
    try_all(false);
    if (n < 0) series = health_.series;
    EXPECT_EQ(health_.series, series);
    now_ += seconds(301);
    table_->Sweep();
    EXPECT_EQ(health_.series_bytes, 0U);
    EXPECT_EQ(table_->PageBytes(), 0U);
    try_all(false);
    if (n < 0) expected = Samples();
    EXPECT_EQ(Samples(), expected);  // all names and labels were free
  }
}

}  // namespace
}  // namespace tidegate::agent
