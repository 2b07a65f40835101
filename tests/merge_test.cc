#include "agent/merge_stage.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <set>
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
using testing::StartsWith;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr int64_t kTime = 1700000000;

const Columns kDelta = {"counter", "rate", "delta"};
const Columns kBounds = {"hist:b-0.000000", "hist:b-5.000000", "hist:sum", "hist:count"};

struct Point {
  uint8_t type;
  std::string name;
  Columns columns;
  std::vector<double> values;
  std::vector<uint32_t> indexes = {};
};

// Keeps points as lines: seconds since kTime, name, values by column.
class Lines : public PacketSink {
 public:
  void Handle(const Packet& packet, const ClientId& client) override {
    EXPECT_EQ(client.pid, 0);
    for (const Block& block : packet.blocks) {
      for (const Series& record : block.series) {
        std::ostringstream line;
        line << block.timestamp - kTime << ' ' << packet.tenant << ' ' << block.name;
        for (const Tag& tag : record.tags) line << ',' << tag.key << '=' << tag.value;
        for (size_t i = 0; i < record.values.size(); ++i) {
          const std::string column = block.FieldName(record, i);
          line << ' ' << column << (column.empty() ? "" : "=") << record.values[i];
        }
        lines.push_back(line.str());
      }
    }
  }

  std::vector<std::string> lines;
};

class MergeTest : public testing::Test {
 protected:
  // An agent that starts 20 seconds before kTime.
  void Make(const MergeStage::Options& options) {
    now_ = -20;
    step_ = 0;
    stage_ = std::make_unique<MergeStage>(
        options, std::vector<PacketSink*>{&sink_}, &health_,
        [this](const std::string& line) { reports_.push_back(line); },
        [this](const ProcessId& process) { return gone_.count(process.pid) == 0; },
        [this] {
          return SeriesTable::Time{std::chrono::steady_clock::time_point(seconds(1000 + now_)),
                                   kTime + now_ + step_};
        });
    now_ = 0;
  }
  MergeTest() { Make({}); }

  static Packet PacketOf(int64_t time, const std::vector<Point>& points,
                         const std::string& tenant = "t", const std::vector<Tag>& tags = {}) {
    Packet packet;
    packet.tenant = tenant;
    for (const Point& point : points) {
      packet.blocks.push_back(MakeBlock(point.type, point.name, point.columns,
                                        {{0, tags, point.indexes, point.values}}, kTime + time));
      ++packet.series_count;
    }
    return packet;
  }
  // The points of one packet, `time` seconds after kTime.
  void Send(pid_t pid, int64_t time, const std::vector<Point>& points,
            const std::string& tenant = "t", const std::vector<Tag>& tags = {}) {
    stage_->Handle(PacketOf(time, points, tenant, tags), {pid});
  }
  // A counter of a process that has just begun, or reports again after a silence.
  void SendFirst(pid_t pid, int64_t time, double total, double before = 0) {
    Send(pid, time, {{3, "c", {}, {total}}});
    Send(pid, time - 10, {{3, "c", {}, {before}}});
  }
  void SendTotal(pid_t pid, int64_t time, double total) {
    Send(pid, time, {{3, "c", {}, {total}}});
  }
  // What is handed on until then, a tick each second.
  std::vector<std::string> Until(int64_t time) {
    while (now_ < time) {
      ++now_;
      stage_->Tick();
    }
    return Taken();
  }
  std::vector<std::string> Flush() {
    stage_->Flush();
    return Taken();
  }
  std::vector<std::string> Taken() { return std::exchange(sink_.lines, {}); }
  uint64_t Refused(MergeRefusal reason) const {
    return health_.merge_refused_points[static_cast<size_t>(reason)];
  }

  int64_t now_ = 0;
  int64_t step_ = 0;  // of the wall clock
  std::set<pid_t> gone_;
  Health health_;
  std::vector<std::string> reports_;
  Lines sink_;
  std::unique_ptr<MergeStage> stage_;
};

TEST_F(MergeTest, MergesEachKindByItsRule) {
  const Columns row = {"g",
                       "m",
                       "m.rate",
                       "d.counter",
                       "d.rate",
                       "d.delta",
                       "hist:h:b-0.000000",
                       "hist:h:sum",
                       "hist:h:count",
                       "t.min",
                       "t.max",
                       "t.avg",
                       "t.sum",
                       "t.counter",
                       "t.pct50",
                       "t.pct90",
                       "t.pct95",
                       "t.pct99",
                       "t.pct999"};
  const struct {
    std::vector<Point> one, other;
    std::vector<std::string> merged;
  } kCases[] = {
      {{{2, "r", {}, {0.5}}}, {{2, "r", {}, {2}}}, {"0 t r 2.5"}},
      {{{2, "r", {}, {kNan}}}, {{2, "r", {}, {2}}}, {"0 t r 2"}},
      {{{1, "g", {}, {3}}}, {{1, "g", {}, {-1}}}, {"0 t g 2"}},
      // Of totals the increases, which begin at what is seen first.
      {{{4, "m", {}, {7}}, {4, "m.rate", {}, {3}}},
       {{4, "m", {}, {5}}, {4, "m.rate", {}, {4}}},
       {"0 t m 0", "0 t m.rate 7"}},
      {{{8, "d", kDelta, {90, 3, 30}}},
       {{8, "d", kDelta, {50, 4, 40}}},
       {"0 t d counter=70 rate=7 delta=70"}},
      {{{6, "h", kBounds, {1, 2, 12.5, 3}}},
       {{6, "h", kBounds, {0, 1, 8, 1}}},
       {"0 t h hist:b-0.000000=1 hist:b-5.000000=3 hist:sum=20.5 hist:count=4"}},
      {{{5, "t", kTimer, {1, 9, 5, 10, 2, 5, 8, 8, 8, 9}}},
       {{5, "t", kTimer, {2, 80, 30, 90, 3, 9, 9, 9, 9, 80}}},
       {"0 t t min=1 max=80 avg=20 sum=100 counter=5 pct50=nan pct90=nan pct95=nan pct99=nan "
        "pct999=nan"}},
      {{{5, "t", kTimer, {1, 9, 5, 10, 2, 5, 8, 8, 8, 9}}},
       {},
       {"0 t t min=1 max=9 avg=5 sum=10 counter=2 pct50=5 pct90=8 pct95=8 pct99=8 pct999=9"}},
      {{{7, "w", row, {1, 10, 1, 20, 2, 2, 5, 6, 5, 1, 9, 5, 10, 2, 5, 8, 8, 8, 9}}},
       {{7, "w", row, {5, 3, 4, 3}, {0, 6, 7, 8}}},
       {"0 t w g=6 m=0 m.rate=1 d.counter=2 d.rate=2 d.delta=2 hist:h:b-0.000000=8 hist:h:sum=10 "
        "hist:h:count=8 t.min=1 t.max=9 t.avg=5 t.sum=10 t.counter=2"}},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.merged.front());
    Make({});
    Send(1, 0, test.one);
    if (!test.other.empty()) Send(2, 0, test.other);
    EXPECT_EQ(Flush(), test.merged);
  }
  EXPECT_EQ(health_.merge_left_out_percentiles, 10u);
}

TEST_F(MergeTest, MergesTimersOfTenGauges) {
  const auto timer = [](double first) {
    std::vector<Point> points;
    for (size_t i = 0; i < kTimer.size(); ++i) {
      points.push_back({1, "t." + kTimer[i], {}, {first + static_cast<double>(i)}});
    }
    return points;
  };
  Send(1, 0, timer(1));
  EXPECT_EQ(Flush().size(), 10u);
  Send(1, 10, timer(1));
  Send(2, 10, timer(11));
  EXPECT_THAT(Flush(), ElementsAre("10 t t.min 1", "10 t t.max 12", "10 t t.avg 0.9",
                                   "10 t t.sum 18", "10 t t.counter 20"));
  EXPECT_EQ(health_.merge_left_out_percentiles, 5u);
  EXPECT_THAT(reports_, ElementsAre(HasSubstr("percentiles")));
}

TEST_F(MergeTest, TakesGaugesAsTold) {
  const struct {
    GaugeMerge gauge;
    const char* merged;
  } kCases[] = {{GaugeMerge::kLast, "0 t g 4"},
                {GaugeMerge::kSum, "0 t g 12"},
                {GaugeMerge::kMax, "0 t g 6"}};
  for (const auto& test : kCases) {
    MergeStage::Options options;
    options.gauge = test.gauge;
    Make(options);
    for (const double value : {2, 6, 4}) {
      Send(static_cast<pid_t>(value), 0, {{1, "g", {}, {value}}});
    }
    EXPECT_THAT(Flush(), ElementsAre(test.merged));
  }
}

TEST_F(MergeTest, WaitsForLiveProcessesAndNotForLong) {
  SendTotal(1, 0, 1);
  SendTotal(2, 0, 1);
  EXPECT_THAT(Until(1), ElementsAre("0 t c 0"));  // all are there
  SendTotal(1, 10, 2);
  EXPECT_THAT(Until(14), IsEmpty());  // waits for the second
  EXPECT_THAT(Until(15), ElementsAre("10 t c 1"));
  // A later time is as good, and so is a packet that has nothing of the series.
  SendTotal(1, 20, 4);
  Send(2, 20, {{2, "r", {}, {1}}});
  EXPECT_THAT(Until(21), ElementsAre("20 t c 3", "20 t r 1"));
  SendTotal(1, 30, 5);
  gone_ = {2};
  EXPECT_THAT(Until(31), ElementsAre("30 t c 4"));
  // One that ends inside an interval reports its end: those that go on have to come first.
  Send(3, 40, {{2, "r", {}, {1}}});
  gone_ = {2, 3};
  EXPECT_THAT(Until(40), IsEmpty());
  Send(1, 40, {{2, "r", {}, {2}}});
  EXPECT_THAT(Until(42), ElementsAre("40 t r 3"));
  // Other tenants are others.
  SendTotal(1, 50, 6);
  Send(4, 0, {{3, "c", {}, {1}}}, "u");
  EXPECT_THAT(Until(51), testing::UnorderedElementsAre("50 t c 5", "0 u c 0"));
}

TEST_F(MergeTest, TotalsGoOnAsProcessesComeAndGo) {
  SendFirst(1, 10, 7);
  SendFirst(2, 10, 3);
  EXPECT_THAT(Until(12), ElementsAre("0 t c 0", "10 t c 10"));
  SendTotal(1, 20, 8);
  SendFirst(3, 20, 5);  // joins: the series does not begin again
  EXPECT_THAT(Until(25), ElementsAre("20 t c 16"));
  gone_ = {1};
  SendTotal(2, 30, 4);
  SendFirst(4, 30, 2);  // takes the place of the first
  SendTotal(3, 30, 5);
  EXPECT_THAT(Until(35), ElementsAre("30 t c 19"));
  // The series of one process starts again, with a higher total than before, as an earlier point
  // tells.
  SendFirst(4, 50, 9, 0);
  EXPECT_THAT(Until(65), ElementsAre("40 t c 19", "50 t c 28"));
  // After a silence of all, nothing falls back.
  SendFirst(2, 100, 6, 4);
  EXPECT_THAT(Flush(), ElementsAre("90 t c 28", "100 t c 30"));
  EXPECT_EQ(health_.merge_late_points, 0u);
}

TEST_F(MergeTest, LearnsTotalsOfRowsFromTheIntervalBefore) {
  const Columns columns = {"gauge", "total"};
  for (const pid_t pid : {1, 2}) {
    Send(pid, 10, {{7, "w", columns, {4, 8}, {0, 1}}});
    Send(pid, 0, {{7, "w", columns, {0}, {1}}});
  }
  EXPECT_THAT(Flush(), ElementsAre("0 t w total=0", "10 t w gauge=8 total=16"));
  Send(1, 20, {{7, "w", columns, {9}, {1}}});
  EXPECT_THAT(Flush(), ElementsAre("20 t w total=17"));
}

TEST_F(MergeTest, KeepsSumsOfLatePoints) {
  const auto points = [](double total, double count) {
    return std::vector<Point>{{3, "c", {}, {total}},
                              {5, "t", kTimer, {1, 9, 5, 2 * count, count, 5, 8, 8, 8, 9}},
                              {1, "g", {}, {count}}};
  };
  Send(1, 0, points(0, 1));
  Send(2, 0, points(0, 1));
  Until(1);
  Send(1, 10, points(5, 3));
  const std::string percentiles = " pct50=nan pct90=nan pct95=nan pct99=nan pct999=nan";
  EXPECT_THAT(Until(16), ElementsAre("10 t c 5",
                                     "10 t t min=1 max=9 avg=5 sum=6 counter=3 pct50=5 pct90=8 "
                                     "pct95=8 pct99=8 pct999=9",
                                     "10 t g 3"));
  Send(2, 10, points(20, 4));
  EXPECT_EQ(health_.merge_late_points, 3u);
  Send(1, 20, points(6, 1));
  EXPECT_THAT(Until(25),
              ElementsAre("20 t c 26", "20 t t min=1 max=9 avg=2 sum=10 counter=5" + percentiles,
                          "20 t g 1"));
  // An earlier point, of a process that comes then, has nothing to lose.
  SendFirst(3, 30, 1);
  EXPECT_THAT(Until(35), ElementsAre("30 t c 27"));
  EXPECT_EQ(health_.merge_late_points, 3u);
}

TEST_F(MergeTest, AddsWhatWasMeantForTheAgentBeforeToTheNextTime) {
  SendFirst(1, -20, 7);
  Send(1, -20, {{2, "r", {}, {3}}});
  SendTotal(2, -20, 100);
  SendTotal(2, -10, 104);
  Send(1, -10, {{2, "r", {}, {1}}});
  EXPECT_THAT(Flush(), ElementsAre("-30 t c 0", "-10 t c 11", "-10 t r 4"));
  EXPECT_EQ(health_.merge_late_points, 1u);
}

TEST_F(MergeTest, GoesOnWhenClocksWereWrong) {
  for (const pid_t pid : {1, 2}) SendFirst(pid, 10, 7);
  EXPECT_THAT(Until(12), ElementsAre("0 t c 0", "10 t c 14"));
  step_ = -3600;
  SendTotal(1, -3580, 9);
  EXPECT_THAT(Until(14), IsEmpty());  // waits for the second
  SendTotal(2, -3580, 8);
  EXPECT_THAT(Until(22), ElementsAre("-3580 t c 17"));
  // Far into the future, and back.
  SendTotal(1, int64_t{1} << 40, 10);
  EXPECT_THAT(Until(330), ElementsAre("1099511627776 t c 18"));
  SendTotal(1, -3270, 12);
  SendTotal(2, -3270, 9);
  EXPECT_THAT(Until(332), ElementsAre("-3270 t c 21"));
  EXPECT_EQ(health_.merge_late_points, 0u);
}

TEST_F(MergeTest, RefusesOtherBoundsWhileTheFirstOnesAreThere) {
  const Columns other = {"hist:b-1.000000", "hist:sum", "hist:count"};
  for (int64_t time = 0; time < 50; time += 10) {
    Send(2, time, {{6, "h", kBounds, {1, 2, 3, 3}}});
    if (time == 20) gone_ = {2};
    if (time > 20) Taken();
    if (time <= 20) Send(1, time, {{6, "h", other, {1, 1, 1}}});
    Until(time + 6);
  }
  EXPECT_EQ(Refused(MergeRefusal::kColumns), 3u);
  EXPECT_THAT(reports_, ElementsAre(HasSubstr("\"h\"")));
  // Those with the first ones have gone.
  for (const int64_t time : {60, 70}) Send(1, time, {{6, "h", other, {1, 1, 1}}});
  EXPECT_THAT(Until(76), ElementsAre("70 t h hist:b-1.000000=1 hist:sum=1 hist:count=1"));
}

TEST_F(MergeTest, BoundsWhatClientsCanTake) {
  MergeStage::Options options;
  options.max_series = 100;
  Make(options);
  for (int i = 0; i < 150; ++i) Send(1, 0, {{1, "g", {}, {1}}}, "t", {{"k", std::to_string(i)}});
  EXPECT_EQ(Refused(MergeRefusal::kLimit), 50u);
  EXPECT_EQ(Flush().size(), 100u);
  // Series, times and processes that take memory: 200 KB in all.
  const std::vector<double> values(2000, 1);
  for (int i = 0; i < 50; ++i) {
    Point point = {7, "w", {}, values};
    for (size_t j = 0; j < values.size(); ++j) point.columns.push_back("c" + std::to_string(j));
    Send(i, i, {point}, "u");
  }
  EXPECT_GT(Refused(MergeRefusal::kLimit), 50u + 40u);
  Flush();
  Make({});
  for (int64_t time = 0; time < 1000; ++time) Send(1, 5000 + time, {{1, "g", {}, {1}}});
  EXPECT_EQ(health_.merge_held_points, MergeIdentity::kMaxTimesMeanwhile);
  for (size_t i = 0; i < MergeStage::kMaxIdentities + 100; ++i) {
    Send(1, 0, {{1, "g", {}, {1}}}, "t" + std::to_string(i));
  }
  EXPECT_EQ(health_.merge_series, MergeStage::kMaxIdentities);
  // What is idle goes.
  Flush();
  gone_ = {1};
  now_ += 7300;
  Until(now_ + 1);
  Until(now_ + 400);
  EXPECT_EQ(health_.merge_series, 0u);
}

TEST_F(MergeTest, SurvivesALackOfMemoryAnywhere) {
  const std::vector<Point> points = {{3, "a counter whose name is long", {}, {4}},
                                     {8, "d", kDelta, {1, 1, 1}},
                                     {6, "h", kBounds, {1, 2, 3, 3}}};
  bool failed = true;
  for (long n = 0; failed; ++n) {
    Make({});
    failed = false;
    for (const int64_t time : {0, 10, 0}) {
      Packet packet = PacketOf(time, points);
      failed |= !Manages(n, [&] {
        stage_->Handle(packet, {static_cast<pid_t>(time + 1)});
        stage_->Flush();
      });
    }
    // What comes after that is as ever.
    Flush();
    Send(1, 20, {points[2]});
    Send(2, 20, {points[2]});
    EXPECT_THAT(Flush(), ElementsAre(StartsWith("20 t h hist:b-0.000000=")));
    EXPECT_EQ(health_.merge_held_points, 0U);
    gone_ = {1, 2, 11};
    now_ += 7300;
    Until(now_ + 1);
    Until(now_ + 400);
    EXPECT_EQ(health_.merge_bytes, 0U);
    gone_.clear();
  }
}

// What a sweep frees must not wait to be handed on.
TEST_F(MergeTest, HoldsNoSeriesWithoutItsPoint) {
  MergeStage::Options options;
  options.max_series = 1;
  options.ttl = seconds(1);
  bool failed = true;
  for (long n = 0; failed; ++n) {
    Make(options);
    Send(2, 0, {});  // is waited for
    const Packet packet = PacketOf(200, {{3, "c", {}, {4}}});
    failed = !Manages(n, [&] { stage_->Handle(packet, {1}); });
    Until(40);
    EXPECT_EQ(health_.merge_held_points, health_.merge_series);
    Flush();
  }
}

// In short turns, between which packets are taken.
TEST_F(MergeTest, HandsOnALotInTurns) {
  constexpr size_t kPoints = MergeStage::kMaxHandedOnTick + 30000;
  for (size_t i = 0; i < kPoints;) {
    Packet packet = PacketOf(0, {{1, "g", {}, {1}}});
    std::vector<Series>& records = packet.blocks.front().series;
    records.clear();
    for (size_t end = i + kPoints / 4; i < end; ++i) {
      records.push_back({0, {{"k", std::to_string(i)}}, {}, {1}});
    }
    stage_->Handle(packet, {1});
  }
  EXPECT_EQ(Until(1).size(), MergeStage::kMaxHandedOnTick);
  Send(1, 10, {{1, "other", {}, {1}}});
  EXPECT_EQ(Taken().size(), MergeStage::kMaxHandedOn);
  Send(1, 10, {{1, "other", {}, {1}}});
  EXPECT_EQ(Taken().size(), 10000u);
}

}  // namespace
}  // namespace tidegate::agent
