#include "agent/line_protocol.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "agent/partial_write.h"
#include "support/blocks.h"

namespace tidegate::agent {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string Lines(const Block& block, ProcessLabel label = ProcessLabel::kNone) {
  LineWriter writer(label);
  const Packet packet = PacketWith(block);
  const ClientId client{42};
  writer.StartBlock(packet, client, block);
  std::string lines;
  for (const Series& record : block.series) {
    const size_t before = lines.size();
    const bool appended = writer.AppendRecord(record, &lines);
    EXPECT_EQ(appended, lines.size() > before);
  }
  return lines;
}

TEST(LineProtocolTest, WritesEachKindAsTheMappingSays) {
  std::vector<std::string> columns;
  for (int i = 0; i < 100; ++i) columns.push_back("hist:b-" + std::to_string(i));
  columns.insert(columns.end(), {"hist:sum", "hist:count"});
  const std::vector<double> values(columns.size(), 1);
  const struct {
    Block block;
    const char* lines;
  } kCases[] = {
      {MakeBlock(1, "#m#\\", {}, {{0, {{"k ", "=,\\"}}, {}, {1e300}}}),
       "\\x23m#\\x5c,tenant=t1,k\\ =\\=\\,\\x5c value=1e+300 1700000000000000000\n"},
      // Values that differ in what cannot be carried, or in its form.
      {MakeBlock(1, "", {},
                 {{0, {{"a", "\xe9\xc3\xa9"}, {"b", "\\xe9"}, {"c", "C:\\d\\\n"}}, {}, {1}}}),
       "\\x,tenant=t1,a=\\xe9\xc3\xa9,b=\\x5cxe9,c=C:\\d\\x5c\\x0a value=1 1700000000000000000\n"},
      // Keys that InfluxDB keeps for itself, and those that they become.
      {MakeBlock(
           7, "m", {"time", "exported_time", "_field"},
           {{0, {{"_measurement", "1"}, {"exported_time", "2"}, {"time", "time"}}, {}, {1, 2, 3}}}),
       "m,tenant=t1,exported__measurement=1,exported_exported_time=2,exported_time=time "
       "exported_time=1,exported_exported_time=2,exported__field=3 1700000000000000000\n"},
      {MakeBlock(7, "m", {"a", "b.c", "d"}, {{0, {}, {0, 2}, {1, -2}}, {0, {}, {1}, {9}}}),
       "m,tenant=t1 a=1,d=-2 1700000000000000000\n"
       "m,tenant=t1 b.c=9 1700000000000000000\n"},
      // Two bounds that are one in six digits.
      {MakeBlock(6, "m.h", {"hist:b-0.0", "hist:b-1.0", "hist:b-1.0", "hist:sum", "hist:count"},
                 {{0, {{"le", "x"}, {"x_y", "1"}}, {}, {2, 3, 4, 8, 9}}}),
       "m.h,tenant=t1,exported_le=x,x_y=1 b-0.0=2,b-1.0=7,sum=8,count=9 1700000000000000000\n"
       "m.h,tenant=t1,exported_le=x,x_y=1,le=1 bucket=5 1700000000000000000\n"
       "m.h,tenant=t1,exported_le=x,x_y=1,le=+Inf bucket=9 1700000000000000000\n"},
      // More than 16 MiB of bucket lines, and lines of more than 256 KiB.
      {MakeBlock(6, std::string(200 << 10, 'm'), columns, {{0, {}, {}, values}}), ""},
      {MakeBlock(7, "m", {std::string(200 << 10, 'a'), std::string(100 << 10, 'b')},
                 {{0, {}, {}, {1, 1}}}),
       ""},
      {MakeBlock(7, "m", {"a\"", "a_"}, {{0, {}, {}, {1, 2}}}),
       "m,tenant=t1 a\\x22=1,a_=2 1700000000000000000\n"},
      // What is no number is left out, with its line where nothing else is in it.
      {MakeBlock(7, "m", {"a", "b", "c"}, {{0, {}, {}, {kNan, 4, kInfinity}}}),
       "m,tenant=t1 b=4 1700000000000000000\n"},
      {MakeBlock(3, "m", {}, {{0, {}, {}, {kNan}}, {0, {}, {}, {-kInfinity}}}), ""},
  };
  for (const auto& test : kCases) EXPECT_EQ(Lines(test.block), test.lines);

  Block block = MakeBlock(1, "m", {}, {{0, {}, {}, {1}}});
  EXPECT_EQ(Lines(block, ProcessLabel::kPid), "m,tenant=t1,pid=42 value=1 1700000000000000000\n");
  block.timestamp = std::numeric_limits<int64_t>::max() / 1000;
  EXPECT_EQ(Lines(block), "");
}

TEST(PartialWriteTest, CountsWhatInfluxDbHasDropped) {
  const struct {
    const char* body;
    std::optional<uint64_t> lines;
  } kCases[] = {
      {R"({"error":"partial write: invalid tag key: input tag \"time\" dropped=2"})"
       "\n",
       2},
      {R"({"error":"partial write: unable to parse 'a dropped=7\\n': x \u003e y dropped=0"})", 1},
      {R"({"error":"partial write: unable to parse 'a': b\nunable to parse 'c': d dropped=0"})", 2},
      {R"({"error":"partial write: unable to parse 'a': b\nor not dropped=0"})", {}},
      {R"({"error":"partial write: unable to parse 'a': "b" dropped=0"})", {}},
      {R"({"error":"partial write: nothing dropped=0"})", {}},
      {R"({"error":"partial write: much dropped=18446744073709551616"})", {}},
      {R"({"error":"partial write: some dropped=-1"})", {}},
      {R"({"error":"partial write: some dropped="})", {}},
      {R"({"error":"partial write: some dropped=1", "more":""})", {}},
      {R"({"error":"timeout dropped=1"})", {}},
      {"partial write: x dropped=1", {}},
      {"", {}},
  };
  for (const auto& [body, lines] : kCases) EXPECT_EQ(LinesDropped(body), lines) << body;
}

}  // namespace
}  // namespace tidegate::agent
