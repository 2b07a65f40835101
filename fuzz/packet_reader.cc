// The agent's reader of packets. A packet that it accepts is written again from its content: the
// bytes must be the same, so nothing was misread, invented or passed over.

#include "agent/packet_reader.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "fuzz/target.h"

namespace tidegate::fuzz {
namespace {

class Writer {
 public:
  template <class Integer>
  void Put(Integer value) {
    for (size_t i = 0; i < sizeof(value); ++i) {
      bytes_ += static_cast<char>(static_cast<uint64_t>(value) >> (8 * i));
    }
  }
  void PutCount(size_t count) { Put(static_cast<uint32_t>(count)); }
  void PutText(const std::string& text) {
    PutCount(text.size());
    bytes_ += text;
  }
  void PutTags(const std::vector<agent::Tag>& tags) {
    PutCount(2 * tags.size());
    for (const agent::Tag& tag : tags) {
      PutText(tag.key);
      PutText(tag.value);
    }
  }
  void PutSeries(const agent::Series& series) {
    Put(series.tag_hash);
    PutTags(series.tags);
    PutCount(series.indexes.size());
    for (const uint32_t index : series.indexes) Put(index);
    PutCount(series.values.size());
    for (const double value : series.values) {
      uint64_t bits = 0;
      std::memcpy(&bits, &value, sizeof(bits));
      PutCount(sizeof(bits));
      Put(bits);
    }
  }
  void PutBlock(const agent::Block& block) {
    const size_t start = bytes_.size();
    PutCount(0);
    PutCount(block.series.size());
    Put(block.wire_type);
    Put(block.name_hash);
    Put(block.timestamp);
    PutText(block.name);
    PutCount(block.fields.size());
    for (const agent::Field& field : block.fields) {
      PutText(field.name);
      Put(field.type);
    }
    for (const agent::Series& series : block.series) PutSeries(series);
    Patch(start, bytes_.size() - start);
  }
  void PutPacket(const agent::Packet& packet) {
    bytes_ = "2scirtem";
    Put(packet.version);
    PutCount(packet.header_len);
    PutCount(packet.body_len);
    bytes_.append(5, '\0');
    Put(packet.send_time_ms);
    Put(int64_t{0});
    Put(packet.format_word);
    PutCount(packet.blocks.size());
    size_t records = 0;
    for (const agent::Block& block : packet.blocks) records += block.series.size();
    PutCount(records);
    PutText(packet.tenant);
    PutTags(packet.tenant_tags);
    PutText(packet.sdk_version);
    Require(bytes_.size() == packet.header_len, "header_len ends the header");
    for (const agent::Block& block : packet.blocks) PutBlock(block);
    Require(bytes_.size() == size_t{packet.header_len} + packet.body_len, "body_len ends the body");
  }

  const std::string& bytes() const { return bytes_; }

 private:
  void Patch(size_t at, size_t length) {
    Writer word;
    word.PutCount(length);
    bytes_.replace(at, word.bytes_.size(), word.bytes_);
  }

  std::string bytes_;
};

void CheckColumns(const agent::Block& block) {
  Require(std::strcmp(agent::WireTypeName(block.wire_type), "unknown") != 0, "a known type");
  for (const agent::Series& record : block.series) {
    Require(!record.values.empty(), "a record has a value");
    for (size_t i = 0; i < record.values.size(); ++i) {
      const std::string name = block.FieldName(record, i);
      Require(block.fields.empty()
                  ? name.empty()
                  : std::any_of(block.fields.begin(), block.fields.end(),
                                [&name](const agent::Field& field) { return field.name == name; }),
              "a value belongs to a column of its block");
    }
  }
}

bool ReadPacketInput(const uint8_t* data, size_t size) {
  agent::Packet packet;
  packet.tenant = "untouched";
  agent::ReadError error;
  if (!agent::ReadPacket(data, size, &packet, &error)) {
    Require(packet.tenant == "untouched" && packet.blocks.empty(), "a refusal changes nothing");
    Require(error.offset <= size, "the offset lies in the packet");
    Require(!error.reason.empty() && std::all_of(error.reason.begin(), error.reason.end(),
                                                 [](char c) { return c >= ' ' && c <= '~'; }),
            "the reason is a line of text");
    return false;
  }
  for (const agent::Block& block : packet.blocks) CheckColumns(block);
  Writer again;
  again.PutPacket(packet);
  Require(again.bytes().size() == size && std::memcmp(again.bytes().data(), data, size) == 0,
          "what was read makes the same packet");
  return true;
}

const Registration kRegistration("packet_reader", ReadPacketInput);

}  // namespace
}  // namespace tidegate::fuzz
