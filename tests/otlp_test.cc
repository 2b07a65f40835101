#include <gmock/gmock.h>

#include <cstring>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/batch_queue.h"
#include "agent/destination_numbers.h"
#include "agent/formats.h"
#include "agent/forwarder.h"
#include "agent/otlp_format.h"
#include "support/blocks.h"
#include "support/limited_allocations.h"

namespace tidegate::agent {
namespace {

using testing::ElementsAre;
using testing::EndsWith;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// The messages that are expected: the name of each field, and of its message, or what its bytes
// are. Written from the protocol's definition, with no code of the agent's.
const std::map<std::string, std::map<uint64_t, std::pair<std::string, std::string>>> kMessages = {
    {"request", {{1, {"", "resource_metrics"}}}},
    {"resource_metrics", {{1, {"resource", "resource"}}, {2, {"", "scope_metrics"}}}},
    {"resource", {{1, {"", "attribute"}}}},
    {"scope_metrics", {{1, {"scope", "scope"}}, {2, {"metric", "metric"}}}},
    {"scope", {{1, {"name", "text"}}, {2, {"version", "text"}}}},
    {"attribute", {{1, {"", "text"}}, {2, {"=", "any"}}}},
    {"any", {{1, {"", "text"}}}},
    {"metric",
     {{1, {"", "text"}},
      {5, {"gauge", "data"}},
      {7, {"sum", "data"}},
      {9, {"histogram", "histogram"}},
      {11, {"summary", "summary"}}}},
    {"data", {{1, {"", "number"}}, {2, {"temporality", ""}}, {3, {"monotonic", ""}}}},
    {"histogram", {{1, {"", "buckets"}}, {2, {"temporality", ""}}}},
    {"summary", {{1, {"", "quantiles"}}}},
    {"number",
     {{2, {"start", "time"}}, {3, {"time", "time"}}, {4, {"", "double"}}, {7, {"", "attribute"}}}},
    {"buckets",
     {{2, {"start", "time"}},
      {3, {"time", "time"}},
      {4, {"count", "integer"}},
      {5, {"sum", "double"}},
      {6, {"counts", "integers"}},
      {7, {"bounds", "doubles"}},
      {9, {"", "attribute"}}}},
    {"quantiles",
     {{2, {"start", "time"}},
      {3, {"time", "time"}},
      {4, {"count", "integer"}},
      {5, {"sum", "double"}},
      {6, {"", "quantile"}},
      {7, {"", "attribute"}}}},
    {"quantile", {{1, {"", "double"}}, {2, {":", "double"}}}},
};

// A message as text: the names of its fields with their content, in the order of the bytes.
// NOLINTBEGIN(misc-no-recursion): messages are in messages
class MessageReader {
 public:
  explicit MessageReader(std::string_view bytes) : rest_(bytes) {}

  std::string Read(const std::string& message) {
    std::string text;
    while (!rest_.empty()) {
      const uint64_t key = Varint();
      const auto field = kMessages.at(message).find(key >> 3);
      if (field == kMessages.at(message).end()) return text + "?" + std::to_string(key >> 3);
      const auto& [name, type] = field->second;
      if (!text.empty() && name != "=" && name != ":") text += ' ';
      text += name;
      const std::string content = Content(key & 7, type);
      text += kMessages.count(type) != 0 && type != "any" && type != "attribute"
                  ? '{' + content + '}'
                  : content;
    }
    return text;
  }

 private:
  uint64_t Varint() {
    uint64_t number = 0;
    for (int shift = 0;; shift += 7) {
      const auto byte = static_cast<unsigned char>(Bytes(1)[0]);
      number |= uint64_t{byte & 0x7fU} << shift;
      if (byte < 0x80) return number;
    }
  }
  std::string_view Bytes(size_t size) {
    const std::string_view bytes = rest_.substr(0, size);
    if (bytes.size() < size) throw std::runtime_error("cut off");
    rest_.remove_prefix(size);
    return bytes;
  }
  template <typename T>
  T Fixed() {
    T number = 0;
    std::memcpy(&number, Bytes(sizeof(number)).data(), sizeof(number));
    return number;
  }
  std::string Content(uint64_t wire_type, const std::string& type) {
    if (wire_type == 0) return std::to_string(Varint());
    if (wire_type == 1 && type == "double") return Short(Fixed<double>());
    if (wire_type == 1) {
      const auto number = Fixed<uint64_t>();
      return std::to_string(type == "time" ? number / 1000000000 : number);
    }
    if (wire_type != 2) throw std::runtime_error("a wire type that nothing has");
    const std::string_view bytes = Bytes(Varint());
    if (type == "text") return std::string(bytes);
    MessageReader inner(bytes);
    if (kMessages.count(type) != 0) return inner.Read(type);
    std::string list = "[";
    while (!inner.rest_.empty()) {
      list += list.size() > 1 ? "," : "";
      list += type == "doubles" ? Short(inner.Fixed<double>())
                                : std::to_string(inner.Fixed<uint64_t>());
    }
    return list + ']';
  }
  static std::string Short(double number) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g", number);
    return text;
  }

  std::string_view rest_;
};
// NOLINTEND(misc-no-recursion)

class OtlpTest : public testing::Test {
 protected:
  void Send(std::vector<Block> blocks) {
    Packet packet;
    packet.tenant = "t1";
    packet.tenant_tags = {{"project_id", "p1"}};
    packet.blocks = std::move(blocks);
    for (const Block& block : packet.blocks) {
      writer_->StartBlock(packet, client_, block);
      for (const Series& record : block.series) EXPECT_TRUE(writer_->Write(record, &output_));
    }
    writer_->EndPacket(&output_);
  }

  // Each metric that has been written since the last call, resources being left out.
  std::vector<std::string> Metrics() {
    writer_->HandOut(true, &output_);
    output_.Push();
    std::vector<std::string> metrics;
    for (Batches batch; !(batch = queue_.TakeRest()).empty();) {
      const std::string text = MessageReader(batch.front().body).Read("request");
      resource_ = text.substr(0, text.find(" metric{"));
      for (size_t at = text.find("metric{"); at != text.npos; at = text.find("metric{", at)) {
        const size_t begin = at + sizeof("metric{") - 1;
        int depth = 1;
        for (at = begin; depth > 0; ++at) depth += text[at] == '{' ? 1 : text[at] == '}' ? -1 : 0;
        metrics.push_back(text.substr(begin, at - 1 - begin));
      }
      points_ += batch.front().points;
    }
    return metrics;
  }

  const ClientId client_{42};
  const OtlpFormat format_{{{"service.name", "shop"}, {"zone", "\xe9"}}, "host-1", {}};
  Health health_;
  DestinationNumbers numbers_{&health_, "otlp"};
  BatchQueue queue_{BatchLimits()};
  PointOutput output_{&queue_, &numbers_, &health_};
  const std::unique_ptr<PointWriter> writer_ = format_.MakeWriter();
  std::string resource_;
  uint64_t points_ = 0;
};

TEST_F(OtlpTest, WritesEachKindAsTheMappingSays) {
  Send({MakeBlock(1, "", {}, {{0, {{"", "\xe9"}}, {}, {1.5}}}),
        MakeBlock(2, "m.rate", {}, {{0, {}, {}, {2}}}),
        MakeBlock(4, "m.meter", {}, {{0, {}, {}, {3}}}),
        MakeBlock(4, "m.meter.rate", {}, {{0, {}, {}, {4}}}),
        MakeBlock(8, "m.delta", {"counter", "rate", "delta"}, {{0, {}, {}, {6, 7, 8}}}),
        MakeBlock(7, "m", {"a", "b", "c"},
                  {{0, {}, {0, 2}, {1, kNan}}, {0, {{"k", "v"}}, {}, {1, 2, 3}}}),
        MakeBlock(3, "nothing", {}, {{0, {}, {}, {kNan}}}),
        MakeBlock(1, "past", {}, {{0, {}, {}, {1}}}, 0),
        MakeBlock(5, "past", {}, {{0, {}, {}, {1}}}, INT64_MIN + 1)});
  EXPECT_THAT(
      Metrics(),
      ElementsAre("\\x gauge{{time1700000000 1.5 \\x=\\xe9}}", "m.rate gauge{{time1700000000 2}}",
                  "m.meter sum{{start1700000000 time1700000000 3} temporality2 monotonic1}",
                  "m.meter.rate gauge{{time1700000000 4}}",
                  "m.delta sum{{start1700000000 time1700000000 6} temporality2 monotonic1}",
                  "m.delta.rate gauge{{time1700000000 7}}",
                  "m.a gauge{{time1700000000 1} {time1700000000 1 k=v}}",
                  "m.b gauge{{time1700000000 2 k=v}}", "m.c gauge{{time1700000000 3 k=v}}"));
  EXPECT_THAT(resource_, EndsWith("resource{tenant=t1 project_id=p1 service.instance.id=host-1 "
                                  "host.name=host-1 service.name=shop zone=\\xe9} {scope{"
                                  "nametidegate-agent version" TIDEGATE_VERSION "}"));
  EXPECT_EQ(points_, 7u);
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kEmpty), 3u);
}

TEST_F(OtlpTest, AddsUpWhatTheWireHasForOneInterval) {
  const Columns bounds = {"hist:b-0.0", "hist:b-1.0", "hist:b-1.0", "hist:sum", "hist:count"};
  const auto send = [&](int64_t time, std::vector<double> buckets, double sum) {
    Send({MakeBlock(6, "h", bounds, {{0, {{"le", "x"}}, {}, std::move(buckets)}}, time),
          MakeBlock(5, "t", kTimer, {{0, {}, {}, {1, 9, kNan, sum, 3, 5, kNan, kNan, 8, 9}}},
                    time)});
  };
  send(1700000010, {2, 3, 4, 8, 77}, 10);
  send(1700000020, {1, -5, kNan, kNan, 1}, 20);
  // It is late, and goes with the next one.
  send(1700000015, {0, 0, 1e300, -3, 0}, 40);
  send(1700000030, {0, 0, 0, 0, 0}, 80);
  const std::string quantiles = " {0:1} {0.5:5} {0.99:8} {0.999:9} {1:9}}}";
  EXPECT_THAT(
      Metrics(),
      ElementsAre("h histogram{{start1700000009 time1700000010 count9 sum8 counts[5,4] bounds[1] "
                  "exported_le=x} temporality2}",
                  "t summary{{start1700000009 time1700000010 count3 sum10" + quantiles,
                  "h histogram{{start1700000009 time1700000020 count10 sum8 counts[6,4] bounds[1] "
                  "exported_le=x} temporality2}",
                  "t summary{{start1700000009 time1700000020 count6 sum30" + quantiles,
                  "h histogram{{start1700000009 time1700000030 count9007199254740998 sum5 "
                  "counts[6,9007199254740992] bounds[1] exported_le=x} temporality2}",
                  "t summary{{start1700000009 time1700000030 count12 sum150" + quantiles));
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kLate), 2u);
  // Sums with other bounds have begun after the last ones.
  Send({MakeBlock(6, "h", {"hist:b-5.0", "hist:sum", "hist:count"},
                  {{0, {{"le", "x"}}, {}, {2, 3, 2}}}, 1700000050)});
  EXPECT_THAT(Metrics(), ElementsAre("h histogram{{start1700000030 time1700000050 count2 sum3 "
                                     "counts[2] exported_le=x} temporality2}"));
}

TEST_F(OtlpTest, KnowsSinceWhenATotalCounts) {
  const auto send = [&](int64_t time, double total) {
    Send({MakeBlock(3, "c", {}, {{0, {}, {}, {total}}}, time)});
  };
  send(1700000020, 5);
  send(1700000010, 0);  // the earlier point
  send(1700000030, 7);
  EXPECT_THAT(
      Metrics(),
      ElementsAre("c sum{{start1700000010 time1700000010 0} {start1700000010 time1700000020 5} "
                  "{start1700000010 time1700000030 7} temporality2 monotonic1}"));
  send(1700000040, 3);  // started again between two points
  send(1700000050, 3);
  send(1700000060, 0);  // and at one
  send(1700000070, 1);
  send(1700000070, 2);
  EXPECT_THAT(Metrics(),
              ElementsAre("c sum{{start1700000030 time1700000040 3} temporality2 monotonic1}",
                          "c sum{{start1700000030 time1700000050 3} temporality2 monotonic1}",
                          "c sum{{start1700000060 time1700000060 0} temporality2 monotonic1}",
                          "c sum{{start1700000060 time1700000070 1} temporality2 monotonic1}"));
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kLate), 1u);
}

TEST_F(OtlpTest, ReadsWhatWasRejected) {
  const auto read = [this](int status, const std::string& body) {
    HttpReply reply;
    reply.status = status;
    reply.body = body;
    const Verdict verdict = format_.Read(reply, 10);
    return std::to_string(static_cast<int>(verdict.kind)) + ' ' + std::to_string(verdict.dropped) +
           ' ' + verdict.words;
  };
  EXPECT_EQ(read(200, ""), "0 0 ");
  EXPECT_EQ(read(200, "{}"), "0 0 ");
  EXPECT_EQ(read(200, "\x0a\x09\x08\x03\x12\x05late\n"), "0 3 late");
  EXPECT_EQ(read(200, "\x0a\x02\x08\x63"), "0 10 it did not say why");
  EXPECT_EQ(read(400,
                 "\x08\x03\x12\x03"
                 "bad"),
            "1 0 HTTP 400: bad");
  EXPECT_EQ(read(400, "<html>"), "1 0 ");
  EXPECT_EQ(read(503, ""), "2 0 ");
}

// Of each destination that holds points, each of which is one sample here.
TEST(OrderedWriterTest, CountsEachPointOnceWhereverMemoryEnds) {
  for (const DestinationKind kind : {DestinationKind::kOtlp, DestinationKind::kRemoteWrite}) {
    bool failed = true;
    for (long n = 0; failed; ++n) {
      SCOPED_TRACE(n);
      failed = false;
      Health health;
      DestinationNumbers numbers(&health, "x");
      ForwardOptions options;
      options.kind = kind;
      Forwarder forwarder(options, MakeFormat(options, {}), &numbers, &health,
                          [](const std::string&) {});
      uint64_t points = 0;
      for (int64_t time = 1; time < 8; ++time) {
        const std::vector<Tag> tags = {{"k", std::string(40000, 'x')}};
        Packet packet;
        packet.blocks = {MakeBlock(3, "total", {}, {{0, {}, {}, {1}}}, time * 10 % 60),
                         MakeBlock(1, "gauge", {}, {{0, tags, {}, {1}}, {0, {}, {}, {2}}}, time),
                         MakeBlock(7, "row", {"x", "y"}, {{0, tags, {1}, {1}}}, time)};
        packet.series_count = 4;
        points += packet.series_count;
        allocations_left = n;
        try {
          forwarder.Handle(packet, ClientId{static_cast<pid_t>(1 + time % 2)});
        } catch (const std::bad_alloc&) {
        }
        failed |= std::exchange(allocations_left, -1) == 0;
      }
      forwarder.Flush();
      for (const long left : {n, -1L}) {
        allocations_left = left;
        forwarder.Tick();
        allocations_left = -1;
      }
      const DestinationStatus status = forwarder.Status();
      EXPECT_TRUE(status.queue_points > 0 || failed);
      EXPECT_EQ(std::accumulate(std::begin(status.dropped), std::end(status.dropped),
                                status.queue_points),
                points);
    }
  }
}

}  // namespace
}  // namespace tidegate::agent
