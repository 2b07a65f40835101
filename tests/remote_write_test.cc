#include <gmock/gmock.h>
#include <snappy.h>

#include <cstring>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "agent/remote_write_body.h"
#include "agent/remote_write_format.h"
#include "agent/remote_write_writer.h"
#include "support/blocks.h"

namespace tidegate::agent {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t kTime = 1700000000;

// A reader of its own, by the description of protobuf alone: the fields of a message.
std::vector<std::pair<uint64_t, std::string>> Fields(std::string_view message) {
  std::vector<std::pair<uint64_t, std::string>> fields;
  size_t at = 0;
  const auto varint = [&] {
    uint64_t value = 0;
    for (int shift = 0;; shift += 7) {
      const auto byte = static_cast<unsigned char>(message.at(at++));
      value |= uint64_t{byte & 0x7fU} << shift;
      if (byte < 0x80) return value;
    }
  };
  while (at < message.size()) {
    const uint64_t tag = varint();
    size_t size = 0;
    if ((tag & 7) == 0) {
      fields.emplace_back(tag >> 3, std::to_string(static_cast<int64_t>(varint())));
      continue;
    }
    size = (tag & 7) == 1 ? 8 : varint();
    fields.emplace_back(tag >> 3, message.substr(at, size));
    at += size;
  }
  return fields;
}

// "name{key=value,...}" of each TimeSeries, its time and its value; the labels must be in order.
struct Sample {
  std::string series;
  int64_t time_ms = 0;
  double value = 0;
};

std::vector<Sample> SamplesOf(std::string_view request) {
  std::vector<Sample> samples;
  for (const auto& [number, message] : Fields(request)) {
    if (number != 1) continue;
    Sample& sample = samples.emplace_back();
    std::string name, labels, last;
    for (const auto& [part, content] : Fields(message)) {
      const auto fields = Fields(content);
      if (part == 2) {
        std::memcpy(&sample.value, fields.at(0).second.data(), sizeof(double));
        sample.time_ms = std::stoll(fields.at(1).second);
        continue;
      }
      const auto& [key, value] = std::pair(fields.at(0).second, fields.at(1).second);
      EXPECT_LT(last, key);
      last = key;
      (key == "__name__" ? name : labels) += key == "__name__" ? value : key + '=' + value + ',';
    }
    sample.series = name + '{' + labels + '}';
  }
  return samples;
}

std::string Unpacked(const std::string& body) {
  std::string request;
  EXPECT_TRUE(snappy::Uncompress(body.data(), body.size(), &request));
  return request;
}

class RemoteWriteTest : public testing::Test {
 protected:
  static constexpr SeriesTable::Options kOptions{1000, seconds(300), ProcessLabel::kNone, true,
                                                 seconds(3600)};

  void Make(const SeriesTable::Options& options = kOptions) {
    writer_ = std::make_unique<RemoteWriteWriter>(options, [this] {
      return SeriesTable::Time{now_, kTime};
    });
  }
  static Packet PacketOf(uint8_t type, const std::string& name, int64_t time, std::vector<Tag> tags,
                         std::vector<double> values, const std::vector<std::string>& columns = {},
                         std::vector<uint32_t> indexes = {}) {
    return PacketWith(MakeBlock(
        type, name, columns, {{0, std::move(tags), std::move(indexes), std::move(values)}}, time));
  }
  void Handle(const Packet& packet) {
    writer_->StartBlock(packet, client_, packet.blocks[0]);
    EXPECT_TRUE(writer_->Write(packet.blocks[0].series[0], &output_));
  }
  void Count(const std::string& name, int64_t time, double value) {
    Handle(PacketOf(3, name, kTime + time, {}, {value}));
  }
  void Wait(seconds time, bool all = false) {
    now_ += time;
    writer_->HandOut(all, &output_);
  }
  // All that was written since the last call: "series time value", without the tenant.
  std::vector<std::string> Written() {
    output_.Push();
    std::vector<std::string> written;
    queue_.Flush();
    for (Batches batch; !(batch = queue_.Take({})).empty();) {
      const auto samples = SamplesOf(batch.front().body);
      EXPECT_EQ(batch.front().points, samples.size());
      for (const Sample& sample : samples) {
        std::ostringstream line;
        std::string series = sample.series;
        if (const auto at = series.find("tenant=t1,"); at != std::string::npos)
          series.erase(at, 10);
        line << series << ' ' << sample.time_ms - kTime * 1000 << ' ' << sample.value;
        written.push_back(line.str());
      }
    }
    return written;
  }
  uint64_t Dropped(ForwardDrop reason) const { return numbers_.Dropped(reason); }

  const ClientId client_{7};
  std::chrono::steady_clock::time_point now_{seconds(1000)};
  Health health_;
  DestinationNumbers numbers_{&health_, "remote-write"};
  BatchQueue queue_{BatchLimits()};
  PointOutput output_{&queue_, &numbers_, &health_};
  std::unique_ptr<RemoteWriteWriter> writer_;
};

TEST_F(RemoteWriteTest, WritesWhatThePageShows) {
  const std::vector<std::string> bounds = {"hist:b--1.000000", "hist:b-0.500000", "hist:sum",
                                           "hist:count"};
  const std::vector<Packet> packets = {
      PacketOf(1, "g.x", kTime, {{"B", "1"}, {"a.b", "2"}, {"tenant", "x"}}, {-0.5}),
      PacketOf(2, "r", kTime, {}, {2}),
      PacketOf(3, "c", kTime, {{"z", "a b"}}, {3}),
      PacketOf(4, "m", kTime, {}, {4}),
      PacketOf(5, "t", kTime, {{"quantile", "q"}}, {1, 9, 5, 50, 10, 4, 6, 7, 8, 9}, kTimer),
      PacketOf(6, "h", kTime, {{"le", "1"}, {"x", "2"}}, {1, 2, 3.5, 3}, bounds),
      PacketOf(7, "row", kTime, {}, {7, 8}, {"x", "y.rate", "z"}, {1, 2}),
      PacketOf(8, "d", kTime, {}, {1e20, 0.5, 5}, {"counter", "rate", "delta"})};
  Make();
  SeriesTable table(
      kOptions, &health_, [](const std::string&) {},
      [this] {
        return SeriesTable::Time{now_, kTime};
      });
  for (const Packet& packet : packets) {
    Handle(packet);
    table.Handle(packet, {7});
  }
  Wait(RemoteWriteWriter::kHold);
  std::string page;
  table.AppendPage(false, &page);
  std::multiset<std::string> shown;
  std::istringstream lines(page);
  for (std::string line; std::getline(lines, line);) {
    if (line[0] == '#') continue;
    std::set<std::string> labels;
    const size_t end = line.find('}');
    std::istringstream list(line.substr(line.find('{') + 1, end - line.find('{') - 1));
    for (std::string label; std::getline(list, label, ',');) {
      label.erase(label.find('"'), 1).pop_back();
      if (label != "tenant=t1") labels.insert(label);
    }
    std::string series = line.substr(0, line.find('{') + 1);
    for (const std::string& label : labels) series += label + ',';
    shown.insert(series + "} 0 " + line.substr(end + 2));
  }
  const auto written = Written();
  EXPECT_EQ(std::multiset<std::string>(written.begin(), written.end()), shown);
  EXPECT_THAT(written, testing::SizeIs(22));
}

TEST_F(RemoteWriteTest, HoldsWhatAnEarlierPointMayPrecede) {
  Make();
  Count("c", 10, 5);
  EXPECT_THAT(Written(), IsEmpty());
  Count("c", 9, 0);  // the earlier point
  Count("c", 11, 6);
  Wait(RemoteWriteWriter::kHold - seconds(1));
  EXPECT_THAT(Written(), IsEmpty());
  Wait(seconds(1));
  EXPECT_THAT(Written(), ElementsAre("c_total{} 9000 0", "c_total{} 10000 5", "c_total{} 11000 6"));
  Count("c", 12, 7);  // a step further
  EXPECT_THAT(Written(), ElementsAre("c_total{} 12000 7"));
  Count("c", 12, 7);
  Count("c", 8, 7);
  EXPECT_EQ(Dropped(ForwardDrop::kLate), 2U);
  Count("c", 15, 8);  // after a silence
  Count("c", 14, 7);
  EXPECT_EQ(writer_->held().points, 2U);
  Wait(seconds(0), true);
  EXPECT_THAT(Written(), ElementsAre("c_total{} 14000 7", "c_total{} 15000 8"));

  for (int64_t time : {10, 20, 30, 25}) Count("between", time, 1);
  Wait(RemoteWriteWriter::kHold);
  EXPECT_THAT(Written(), testing::SizeIs(4));

  // A column of a row that is new has an earlier point, of a time that the others have had.
  const auto row = [this](int64_t time, std::vector<uint32_t> indexes, std::vector<double> values) {
    Handle(PacketOf(7, "r", kTime + time, {}, std::move(values), {"x", "y"}, std::move(indexes)));
  };
  for (int64_t time : {1, 2, 3}) row(time, {0}, {1});
  Wait(RemoteWriteWriter::kHold);
  EXPECT_THAT(Written(), testing::SizeIs(3));
  row(4, {0, 1}, {1, 2});
  row(3, {1}, {0});
  Wait(RemoteWriteWriter::kHold);
  EXPECT_THAT(Written(), ElementsAre("r_y{} 3000 0", "r_x{} 4000 1", "r_y{} 4000 2"));
  EXPECT_EQ(Dropped(ForwardDrop::kLate), 2U);

  // What adds up is late, but not lost.
  const auto timer = [this](int64_t time, double count) {
    Handle(PacketOf(5, "t", kTime + time, {}, {1, 1, 1, 2, count, 1, 1, 1, 1, 1}, kTimer));
  };
  timer(2, 1);
  timer(1, 10);
  EXPECT_EQ(Dropped(ForwardDrop::kLate), 12U);
  Written();
  timer(3, 100);
  EXPECT_THAT(Written(), testing::Contains("t_count{} 3000 111"));

  // With other columns a series goes on after the time that it had.
  for (int64_t time : {4, 5}) {
    Handle(PacketOf(7, "r", kTime + time, {}, {5, 6, 7}, {"x", "y", "z"}));
  }
  Wait(seconds(0), true);
  EXPECT_THAT(Written(), ElementsAre("r_x{} 5000 5", "r_y{} 5000 6", "r_z{} 5000 7"));
}

TEST_F(RemoteWriteTest, KeepsItsLimitsAndForgetsSeries) {
  SeriesTable::Options options = kOptions;
  options.max_series = 2;  // 768 bytes of records
  Make(options);
  Count("a", 1, 1);
  Count("b", 1, 1);
  Count("c", 1, 1);
  Count("a", 4000, 1);  // too far ahead
  EXPECT_EQ(Dropped(ForwardDrop::kSeries), 2U);
  Count("a", 5, 1);
  EXPECT_LE(writer_->held().points, 3U);
  for (int64_t time = 10; time < 1000; time += 3) Count("b", time, 1);
  EXPECT_LE(writer_->held().points, 5U);
  Wait(seconds(1000));
  EXPECT_EQ(Written().size(), 3U + 330U);
  EXPECT_EQ(writer_->held().points + writer_->held().bytes, 0U);

  Make();
  for (int64_t time = 1; time < 1000; time += 1 + time % 5) Count("b", time, 1);
  EXPECT_LE(writer_->held().points, RecordOrder::kMaxHeldOfSeries);
}

TEST_F(RemoteWriteTest, WritesEachSampleOnceInOrderHoweverTheyCome) {
  std::minstd_rand random(1);
  Make();
  std::map<std::string, int64_t> reported;
  size_t sent = 0;
  for (int64_t time = 1; time < 300; ++time) {
    std::vector<Packet> packets;
    for (const char* name : {"a", "b", "c", "d"}) {
      if (random() % 3 == 0) continue;
      packets.push_back(PacketOf(3, name, kTime + time, {}, {1}));
      // The first point, and one after a silence, is preceded by another, as the library does it.
      int64_t& last = reported[name];
      if (last != time - 1 || time == 1) {
        packets.push_back(PacketOf(3, name, kTime + time - 1, {}, {0}));
      }
      last = time;
    }
    std::shuffle(packets.begin(), packets.end(), random);
    for (const Packet& packet : packets) Handle(packet);
    sent += packets.size();
    Wait(seconds(1));
  }
  Wait(seconds(0), true);
  std::map<std::string, int64_t> last;
  size_t written = 0;
  for (const std::string& line : Written()) {
    std::istringstream words(line);
    std::string series;
    int64_t time = 0;
    words >> series >> time;
    EXPECT_TRUE(last.count(series) == 0 || time > last[series]) << line;
    last[series] = time;
    ++written;
  }
  EXPECT_EQ(written, sent);
  EXPECT_EQ(Dropped(ForwardDrop::kLate), 0U);
}

TEST_F(RemoteWriteTest, SplitsABodyUntilOneSeriesIsLeft) {
  Make();
  for (const char* name : {"a", "b", "c", "d", "e"}) Handle(PacketOf(1, name, kTime, {}, {1}));
  const DestinationNumbers second(&health_, "second");
  const RemoteWriteFormat format(kOptions);
  std::string request;
  format.AppendHealth(health_, "h", kTime * 1000000000, &request);
  const size_t own = SamplesOf(request).size();
  std::set<std::string> series;
  for (const Sample& sample : SamplesOf(request)) series.insert(sample.series);
  EXPECT_EQ(series.size(), own);
  output_.Push();
  queue_.Flush();
  request += queue_.Take({}).front().body;
  std::vector<PointFormat::Body> parts = {{format.Pack(request), 5}};
  std::vector<std::string> found;
  uint64_t points = 0;
  while (!parts.empty()) {
    const PointFormat::Body part = parts.front();
    parts.erase(parts.begin());
    if (const auto halves = format.Split(part.bytes, part.points)) {
      parts.insert(parts.begin(), {halves->first, halves->second});
      continue;
    }
    EXPECT_EQ(SamplesOf(Unpacked(part.bytes)).size(), 1U);
    points += part.points;
    if (part.points == 1) found.push_back(format.Describe(part.bytes));
  }
  EXPECT_EQ(points, 5U);
  EXPECT_GT(own, 10U);
  EXPECT_THAT(found, ElementsAre("a{tenant=t1}", "b{tenant=t1}", "c{tenant=t1}", "d{tenant=t1}",
                                 "e{tenant=t1}"));
  for (const char* bad : {"", "\x01", "\x05\x10hello", "\x02\x04\x0a\x7f"}) {
    EXPECT_FALSE(format.Split(bad, 1));
    EXPECT_EQ(format.Describe(bad), "");
  }
}

}  // namespace
}  // namespace tidegate::agent
