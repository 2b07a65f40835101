#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "agent/packet_reader.h"

namespace tidegate::test {

// Writes packets by the description of the wire format: those that the library itself would not
// send, or only after a flush. Lengths and counts come from the content; hashes stay 0, no one
// reads them.
class PacketWriter {
 public:
  static std::string Write(const agent::Packet& packet) {
    PacketWriter body;
    uint32_t records = 0;
    for (const agent::Block& block : packet.blocks) {
      body.Block(block);
      records += static_cast<uint32_t>(block.series.size());
    }
    PacketWriter rest;
    rest.Number<int64_t>(packet.send_time_ms);
    rest.Number<int64_t>(0);
    rest.Number<uint32_t>(15);
    rest.Number(static_cast<uint32_t>(packet.blocks.size()));
    rest.Number(records);
    rest.Text(packet.tenant);
    rest.Tags({{"account_id", ""}, {"project_id", ""}});
    rest.Text("1.0.4");
    PacketWriter whole;
    whole.bytes_ = "2scirtem\x04";
    whole.Number(static_cast<uint32_t>(22 + rest.bytes_.size()));
    whole.Number(static_cast<uint32_t>(body.bytes_.size()));
    whole.bytes_.append(5, '\0');
    return whole.bytes_ + rest.bytes_ + body.bytes_;
  }

 private:
  template <typename T>
  void Number(T value) {
    char bytes[sizeof(value)];
    std::memcpy(bytes, &value, sizeof(value));
    bytes_.append(bytes, sizeof(bytes));
  }
  void Text(const std::string& text) {
    Number(static_cast<uint32_t>(text.size()));
    bytes_ += text;
  }
  void Tags(const std::vector<agent::Tag>& tags) {
    Number(static_cast<uint32_t>(2 * tags.size()));
    for (const agent::Tag& tag : tags) {
      Text(tag.key);
      Text(tag.value);
    }
  }
  void Block(const agent::Block& block) {
    PacketWriter out;
    out.Number(static_cast<uint32_t>(block.series.size()));
    out.Number(block.wire_type);
    out.Number<uint32_t>(0);
    out.Number(block.timestamp);
    out.Text(block.name);
    out.Number(static_cast<uint32_t>(block.fields.size()));
    for (const agent::Field& field : block.fields) {
      out.Text(field.name);
      out.Number<uint8_t>(0);
    }
    for (const agent::Series& record : block.series) out.Record(record);
    Number(static_cast<uint32_t>(4 + out.bytes_.size()));
    bytes_ += out.bytes_;
  }
  void Record(const agent::Series& record) {
    Number<uint32_t>(0);
    Tags(record.tags);
    Number(static_cast<uint32_t>(record.indexes.size()));
    for (const uint32_t index : record.indexes) Number(index);
    Number(static_cast<uint32_t>(record.values.size()));
    for (const double value : record.values) {
      Number<uint32_t>(8);
      Number(value);
    }
  }

  std::string bytes_;
};

}  // namespace tidegate::test
