#include "agent/merged_packets.h"

#include <bitset>
#include <chrono>
#include <cmath>
#include <iterator>
#include <utility>

#include "agent/sized_text.h"
#include "agent/survives.h"

namespace tidegate::agent {
namespace {

constexpr size_t kMaxRecords = 2000;
constexpr size_t kMaxBytes = 256 << 10;

int64_t NowInMilliseconds() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count();
}

}  // namespace

void PutTags(const std::vector<Tag>& tags, std::string* key) {
  for (const Tag& tag : tags) {
    const size_t end = key->size();
    key->resize(end + SizedBytes(tag.key) + SizedBytes(tag.value));
    PutSized(tag.value, PutSized(tag.key, key->data() + end));
  }
}

std::vector<Tag> TagsOf(std::string_view key) {
  std::vector<Tag> tags;
  while (!key.empty()) {
    const std::string_view name = TakeSized(&key);
    tags.push_back({std::string(name), std::string(TakeSized(&key))});
  }
  return tags;
}

MergedPackets::MergedPackets(std::vector<PacketSink*> sinks, Health* health)
    : sinks_(std::move(sinks)), health_(health) {}

void MergedPackets::Begin(const Packet& header, const ClientId& client, int64_t timestamp) {
  End();
  packet_ = header;
  client_ = client;
  name_ = nullptr;
  head_bytes_ = 0;
  timestamp_ = timestamp;
}

size_t MergedPackets::Append(const MergedName& name, std::string_view tags, uint32_t dropped,
                             MergedSeries* series) {
  const MergedLayout& layout = *series->layout();
  Series record;
  record.tags = TagsOf(tags);
  const bool timer = name.form == MergedName::Form::kTimerBlocks;
  if (!timer && (name_ != &name || layout_ != &layout)) StartBlock(name, layout);
  size_t left_out = series->Take(timestamp_, &record);
  if (left_out > 0) left_out -= std::bitset<32>(dropped >> kTimerFirstQuantile).count();
  const size_t bytes = tags.size() + record.values.size() * sizeof(double);
  if (timer) {
    AppendTimer(name, dropped, std::move(record));
  } else {
    packet_.blocks.back().series.push_back(std::move(record));
    Count(1, bytes);
  }
  return left_out;
}

void MergedPackets::StartBlock(const MergedName& name, const MergedLayout& layout) {
  // Long names and many columns must neither gather in a packet nor make one of each record.
  if (head_bytes_ >= kMaxBytes) HandOn();
  Block block;
  block.wire_type = name.wire_type;
  block.timestamp = timestamp_;
  block.name = name.name;
  block.fields = layout.fields;
  packet_.blocks.push_back(std::move(block));
  name_ = &name;
  layout_ = &layout;
  head_bytes_ += name.name.size() + layout.fields.size() * sizeof(Field);
}

// Percentiles that were left out have no block, nor has what rules drop.
void MergedPackets::AppendTimer(const MergedName& name, uint32_t dropped, Series record) {
  const std::vector<double> values = std::exchange(record.values, {});
  size_t blocks = 0;
  for (size_t i = 0; i < std::size(kTimerColumns); ++i) {
    if (i >= kTimerFirstQuantile && std::isnan(values[i])) continue;
    if ((dropped >> i & 1) != 0) continue;
    Block block;
    block.wire_type = name.wire_type;
    block.timestamp = timestamp_;
    block.name.append(name.name).append(".").append(kTimerColumns[i].name);
    Series& to = block.series.emplace_back(record);
    to.values = {values[i]};
    packet_.blocks.push_back(std::move(block));
    ++blocks;
  }
  name_ = nullptr;
  Count(blocks, blocks * (name.name.size() + 64));
}

void MergedPackets::Count(size_t records, size_t bytes) {
  packet_.series_count += static_cast<uint32_t>(records);
  bytes_ += bytes;
  if (packet_.series_count >= kMaxRecords || bytes_ >= kMaxBytes) HandOn();
}

void MergedPackets::End() {
  if (packet_.series_count > 0) HandOn();
}

void MergedPackets::HandOn() {
  packet_.block_count = static_cast<uint32_t>(packet_.blocks.size());
  packet_.send_time_ms = NowInMilliseconds();
  health_->merged_points += packet_.series_count;
  for (PacketSink* sink : sinks_) {
    Survives(health_, [&] { sink->Handle(packet_, client_); });
  }
  packet_.blocks.clear();
  packet_.series_count = 0;
  bytes_ = 0;
  head_bytes_ = 0;
  name_ = nullptr;
}

}  // namespace tidegate::agent
