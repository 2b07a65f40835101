#include "agent/packet_reader.h"

#include "agent/kinds.h"
#include "agent/packet_cursor.h"

namespace tidegate::agent {
namespace {

constexpr char kMagic[] = {'2', 's', 'c', 'i', 'r', 't', 'e', 'm'};
constexpr uint8_t kVersion = 4;
constexpr uint32_t kFormatWord = 15;
constexpr uint8_t kDoubleField = 0;
constexpr uint32_t kValueSize = 8;

// The fewest bytes that one element of each kind takes. A count that cannot fit into the bytes that
// are left is refused before room is made for it.
constexpr size_t kMinString = 4;
constexpr size_t kMinField = kMinString + 1;
constexpr size_t kIndexBytes = 4;
constexpr size_t kValueBytes = 4 + kValueSize;
constexpr size_t kMinSeries = 4 + 4 + 4 + 4 + kValueBytes;  // a hash, three counts, a value

// The element at the end of what has been read so far: one of a packet before, whose memory is used
// again, or a new one. Reading overwrites all of it.
template <typename T>
T& Element(std::vector<T>* elements, size_t i) {
  return i < elements->size() ? (*elements)[i] : elements->emplace_back();
}

bool ReadTags(PacketCursor* in, const char* what, std::vector<Tag>* tags) {
  const size_t start = in->offset();
  uint32_t words = 0;
  if (!in->ReadCount(what, kMinString, &words)) return false;
  if (words % 2 != 0) {
    return in->Fail(start, std::string(what) + " is odd: " + std::to_string(words));
  }
  tags->resize(words / 2);
  for (Tag& tag : *tags) {
    if (!in->ReadString("tag key", &tag.key) || !in->ReadString("tag value", &tag.value)) {
      return false;
    }
  }
  return true;
}

bool ReadFields(PacketCursor* in, std::vector<Field>* fields) {
  uint32_t count = 0;
  if (!in->ReadCount("field count", kMinField, &count)) return false;
  fields->resize(count);
  for (Field& field : *fields) {
    if (!in->ReadString("field name", &field.name) || !in->ExpectU8("field type", kDoubleField)) {
      return false;
    }
    field.type = kDoubleField;
  }
  return true;
}

bool ReadIndexes(PacketCursor* in, const Block& block, std::vector<uint32_t>* indexes) {
  const size_t start = in->offset();
  uint32_t count = 0;
  if (!in->ReadCount("index count", kIndexBytes, &count)) return false;
  if (count > 0 && FindKind(block.wire_type)->form != ColumnForm::kAny) {
    return in->Fail(start, "field indexes in a block of type " + std::to_string(block.wire_type));
  }
  if (count > block.fields.size()) {
    return in->Fail(start, "index count is " + std::to_string(count) + " with " +
                               std::to_string(block.fields.size()) + " fields");
  }
  indexes->resize(count);
  std::vector<bool> seen(count > 0 ? block.fields.size() : 0);
  for (uint32_t& index : *indexes) {
    const size_t at = in->offset();
    if (!in->ReadU32("field index", &index)) return false;
    if (index >= block.fields.size()) {
      return in->Fail(at, "field index " + std::to_string(index) + " with " +
                              std::to_string(block.fields.size()) + " fields");
    }
    if (seen[index]) return in->Fail(at, "field index " + std::to_string(index) + " comes twice");
    seen[index] = true;
  }
  return true;
}

bool ReadValues(PacketCursor* in, const Block& block, Series* record) {
  const size_t start = in->offset();
  uint32_t count = 0;
  if (!in->ReadCount("value count", kValueBytes, &count)) return false;
  const size_t expected = block.fields.empty()      ? 1
                          : record->indexes.empty() ? block.fields.size()
                                                    : record->indexes.size();
  if (!in->CheckEqual(start, "value count", count, expected)) return false;
  record->values.resize(count);
  for (double& value : record->values) {
    if (!in->ExpectU32("value prefix", kValueSize) || !in->ReadF64("value", &value)) return false;
  }
  return true;
}

bool ReadSeries(PacketCursor* in, const Block& block, Series* record) {
  return in->ReadU32("tag hash", &record->tag_hash) &&
         ReadTags(in, "tag word count", &record->tags) &&
         ReadIndexes(in, block, &record->indexes) && ReadValues(in, block, record);
}

bool ReadWireType(PacketCursor* in, uint8_t* wire_type) {
  const size_t start = in->offset();
  if (!in->ReadU8("wire_type", wire_type)) return false;
  if (FindKind(*wire_type) != nullptr) return true;
  return in->Fail(start, "unknown wire_type " + std::to_string(*wire_type));
}

bool ReadBlock(PacketCursor* in, size_t packet_end, Block* block) {
  const size_t start = in->offset();
  uint32_t block_len = 0;
  if (!in->ReadU32("block_len", &block_len)) return false;
  if (block_len < in->offset() - start || block_len > packet_end - start) {
    return in->Fail(start, "block_len is " + std::to_string(block_len) + ", but " +
                               std::to_string(packet_end - start) + " bytes are left");
  }
  const size_t end = start + block_len;
  in->SetEnd(end);

  uint32_t series_count = 0;
  if (!in->ReadCount("series in block", kMinSeries, &series_count) ||
      !ReadWireType(in, &block->wire_type) || !in->ReadU32("name_hash", &block->name_hash) ||
      !in->ReadI64("timestamp", &block->timestamp) || !in->ReadString("name", &block->name) ||
      !ReadFields(in, &block->fields)) {
    return false;
  }
  // Grows as records are read: the field list may leave far fewer bytes than the count was held to.
  for (uint32_t i = 0; i < series_count; ++i) {
    if (!ReadSeries(in, *block, &Element(&block->series, i))) return false;
  }
  block->series.resize(series_count);
  if (in->offset() != end) {
    return in->Fail(start, "block_len is " + std::to_string(block_len) +
                               ", but the last series record ends after " +
                               std::to_string(in->offset() - start));
  }
  in->SetEnd(packet_end);
  return true;
}

constexpr size_t kHeaderLenOffset = 9;
constexpr size_t kBodyLenOffset = 13;
constexpr size_t kBlockCountOffset = 42;
constexpr size_t kSeriesCountOffset = 46;

bool ReadHeader(PacketCursor* in, Packet* packet) {
  if (!in->Expect("magic", kMagic, sizeof(kMagic)) || !in->ExpectU8("version", kVersion) ||
      !in->ReadU32("header_len", &packet->header_len) ||
      !in->ReadU32("body_len", &packet->body_len) || !in->ExpectU8("reserved byte", 0) ||
      !in->ExpectU32("reserved word", 0) || !in->ReadI64("send_time_ms", &packet->send_time_ms) ||
      !in->ExpectU32("reserved word", 0) || !in->ExpectU32("reserved word", 0) ||
      !in->ExpectU32("format_word", kFormatWord) ||
      !in->ReadU32("block_count", &packet->block_count) ||
      !in->ReadU32("series_count", &packet->series_count) ||
      !in->ReadString("tenant", &packet->tenant) ||
      !ReadTags(in, "tenant tag word count", &packet->tenant_tags) ||
      !in->ReadString("sdk_version", &packet->sdk_version)) {
    return false;
  }
  packet->version = kVersion;
  packet->format_word = kFormatWord;
  return in->CheckEqual(kHeaderLenOffset, "header_len", packet->header_len, in->offset()) &&
         in->CheckEqual(kBodyLenOffset, "body_len", packet->body_len, in->remaining());
}

bool ReadBlocks(PacketCursor* in, size_t packet_end, Packet* packet) {
  size_t blocks = 0;
  size_t series = 0;
  while (in->remaining() > 0) {
    Block& block = Element(&packet->blocks, blocks++);
    if (!ReadBlock(in, packet_end, &block)) return false;
    series += block.series.size();
  }
  packet->blocks.resize(blocks);
  return in->CheckEqual(kBlockCountOffset, "block_count", packet->block_count,
                        packet->blocks.size()) &&
         in->CheckEqual(kSeriesCountOffset, "series_count", packet->series_count, series);
}

// Leaves anything in `packet` when it fails.
bool ReadInto(const void* data, size_t size, Packet* packet, ReadError* error) {
  PacketCursor in(static_cast<const unsigned char*>(data), size, error);
  return ReadHeader(&in, packet) && ReadBlocks(&in, size, packet);
}

// Each element of a kept packet can come to hold as much as the largest ever did in its place.
constexpr size_t kRenewBytes = 16 << 20;

}  // namespace

bool ReadPacket(const void* data, size_t size, Packet* packet, ReadError* error) {
  Packet result;
  if (!ReadInto(data, size, &result, error)) return false;
  *packet = std::move(result);
  return true;
}

Packet* PacketReader::Read(const void* data, size_t size, ReadError* error) {
  read_bytes_ += size;
  if (read_bytes_ > kRenewBytes) {
    packet_ = Packet();
    read_bytes_ = size;
  }
  return ReadInto(data, size, &packet_, error) ? &packet_ : nullptr;
}

std::string Block::FieldName(const Series& record, size_t i) const {
  if (fields.empty()) return {};
  return fields[record.indexes.empty() ? i : record.indexes[i]].name;
}

const char* WireTypeName(uint8_t wire_type) {
  const KindRow* const kind = FindKind(wire_type);
  return kind == nullptr ? "unknown" : kind->wire_name;
}

}  // namespace tidegate::agent
