// The agent's table of series and its page. An input is a few packets with pauses between them, in
// a form that a fuzzer changes easily; the limits are low, so that they are reached. Whatever
// comes, a strict reader takes the page, it takes no more bytes than were counted for it, and in
// the end nothing is left.

#include "agent/series_table.h"

#include <chrono>
#include <cmath>
#include <iterator>
#include <limits>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/page_reader.h"
#include "fuzz/target.h"

namespace tidegate::fuzz {
namespace {

using agent::Block;
using agent::Packet;
using agent::Series;
using agent::SeriesTable;

constexpr int64_t kTime = 1700000000;

// Texts that meet each other as names, columns, keys and values.
constexpr std::string_view kTexts[] = {
    "",      "a",         "a.b",         "a_b",     "a:b",
    "b",     "a_sum",     "a.count",     "a_total", "a.rate",
    "le",    "quantile",  "tenant",      "pid",     "exported_le",
    "x",     "__a",       "exported__a", "9",       "min",
    "max",   "a_bucket",  "a_a",         "rate",    "tidegate_agent_info",
    "a.a.b", "\xc3\xa9",  "\xff",        "\n\"\\",  "exported.tenant",
    "x.y",   "b of row a"};
constexpr std::string_view kTimer[] = {"min",   "max",   "avg",   "sum",   "counter",
                                       "pct50", "pct90", "pct95", "pct99", "pct999"};
constexpr std::string_view kDelta[] = {"counter", "rate", "delta"};
constexpr std::string_view kBounds[] = {"hist:b--1.500000", "hist:b-0",        "hist:b-0.500000",
                                        "hist:b-0.500000",  "hist:b-2.000000", "hist:b-1e300"};
constexpr std::string_view kTail[] = {"hist:sum", "hist:count"};
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kValues[] = {
    0,    1,     -1,     0.1,     1.7976931348623157e308,
    kInf, -kInf, 1e-310, 1234567, std::numeric_limits<double>::quiet_NaN()};

// The bytes of an input; zeros after its end.
class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : data_(data), end_(data + size) {}

  bool AtEnd() const { return data_ == end_; }
  uint8_t Byte() { return AtEnd() ? 0 : *data_++; }
  size_t Below(size_t count) { return Byte() % count; }
  std::string Text() {
    const uint8_t byte = Byte();
    if (byte < 0xc0) return std::string(kTexts[byte % std::size(kTexts)]);
    if (byte == 0xff) return std::string(200, 'l');
    std::string text;
    for (int i = byte & 7; i > 0; --i) text += static_cast<char>(Byte());
    return text;
  }
  double Value() {
    const uint8_t byte = Byte();
    return byte < std::size(kValues) ? kValues[byte] : byte / 8.0;
  }
  int64_t Time(int64_t now) {
    const auto byte = static_cast<int8_t>(Byte());
    if (byte == INT8_MIN) return INT64_MIN;
    return byte == INT8_MAX ? INT64_MAX : now + byte;
  }

 private:
  const uint8_t* data_;
  const uint8_t* end_;
};

template <typename Names>
void AddFields(const Names& names, Block* block) {
  for (const std::string_view name : names) block->fields.push_back({std::string(name)});
}

// Type and columns.
void MakeKind(Bytes* in, Block* block) {
  const uint8_t form = in->Byte();
  constexpr uint8_t kTypes[] = {1, 5, 8, 6, 7, 7, 2, 3, 4};
  const size_t kind = form % std::size(kTypes);
  block->wire_type = kTypes[kind];
  if (kind == 1) AddFields(kTimer, block);
  if (kind == 2) AddFields(kDelta, block);
  if (kind == 3) {
    const uint8_t chosen = in->Byte() | 1;
    for (size_t i = 0; i < std::size(kBounds); ++i) {
      if ((chosen >> i & 1) != 0) block->fields.push_back({std::string(kBounds[i])});
    }
    AddFields(kTail, block);
  }
  if (kind == 4 || kind == 5) {
    for (size_t i = 1 + in->Below(3); i > 0; --i) block->fields.push_back({in->Text()});
  }
  // Columns that are not those of the type.
  if (form >= 0xf0) block->wire_type = static_cast<uint8_t>(1 + in->Below(8));
}

Series MakeSeries(Bytes* in, const Block& block) {
  constexpr uint8_t kMultiField = 7;
  Series series;
  for (size_t i = in->Below(4); i > 0; --i) {
    agent::Tag& tag = series.tags.emplace_back();
    tag.key = in->Text();
    tag.value = in->Text();
  }
  size_t values = std::max<size_t>(block.fields.size(), 1);
  if (block.wire_type == kMultiField && !block.fields.empty()) {
    const uint8_t chosen = in->Byte();
    for (uint32_t i = 0; i < block.fields.size() && i < 8; ++i) {
      if ((chosen >> i & 1) != 0) series.indexes.push_back(i);
    }
    if (!series.indexes.empty()) values = series.indexes.size();
  }
  while (values-- > 0) series.values.push_back(in->Value());
  return series;
}

Packet MakePacket(Bytes* in, int64_t now) {
  Packet packet;
  packet.tenant = in->Text();
  for (size_t blocks = 1 + in->Below(3); blocks > 0; --blocks) {
    Block& block = packet.blocks.emplace_back();
    MakeKind(in, &block);
    block.name = in->Text();
    block.timestamp = in->Time(now);
    for (size_t i = 1 + in->Below(3); i > 0; --i) block.series.push_back(MakeSeries(in, block));
  }
  return packet;
}

// A table, and the points that an input puts in.
class Play {
 public:
  explicit Play(Bytes* in)
      : in_(in),
        options_{1 + in->Below(12), std::chrono::seconds(20),
                 in->Below(2) != 0 ? agent::ProcessLabel::kPid : agent::ProcessLabel::kNone, true,
                 std::chrono::seconds(60)},
        table_(
            options_, &health_,
            [this](const std::string& line) {
              Require(reports_.insert(line).second, "a collision is reported once");
            },
            [this] {
              return SeriesTable::Time{now_, kTime + now_.time_since_epoch() / kSecond};
            }) {}

  // Returns whether the last page has a sample.
  bool Run() {
    constexpr int kMaxSteps = 12;  // more only take longer
    for (int i = 0; i < kMaxSteps && !in_->AtEnd(); ++i) Step();
    const bool shown = ReadPage() > 0;
    now_ += 10 * options_.ttl;
    table_.Sweep();
    Require(health_.series == 0 && health_.series_bytes == 0 && table_.PageBytes() == 0,
            "nothing is left");
    Require(ReadPage() == 0, "what is out of date is not shown");
    return shown;
  }

 private:
  static constexpr std::chrono::steady_clock::duration kSecond = std::chrono::seconds(1);

  void Step() {
    const uint8_t step = in_->Byte();
    if (step < 0xc0) {
      const Packet packet = MakePacket(in_, kTime + now_.time_since_epoch() / kSecond);
      table_.Handle(packet, {step});
      if (step % 4 == 0) table_.Handle(packet, {step});
      Require(health_.series <= options_.max_series, "the table has its limit");
    } else if (step < 0xf0) {
      now_ += std::chrono::seconds(step & 0x1f);
      table_.Sweep();
    } else {
      ReadPage();
    }
  }

  size_t ReadPage() {
    const size_t most = table_.PageBytes();
    std::string page;
    table_.AppendPage(true, &page);
    Require(page.size() <= most, "a page takes what was counted for it at most");
    return PageReader().Read(page);
  }

  Bytes* const in_;
  const SeriesTable::Options options_;
  std::chrono::steady_clock::time_point now_;
  agent::Health health_;
  std::set<std::string> reports_;
  SeriesTable table_;
};

bool ShowInput(const uint8_t* data, size_t size) {
  Bytes in(data, size);
  return Play(&in).Run();
}

const Registration kRegistration("series_table", ShowInput);

}  // namespace
}  // namespace tidegate::fuzz
