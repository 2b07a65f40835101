#include "agent/packet_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "golden/golden_file.h"

namespace tidegate::agent {
namespace {

// A copy of exactly the right size lets the address sanitizer see a read past the end.
bool Read(const std::string& bytes, Packet* packet, ReadError* error) {
  const std::vector<char> exact(bytes.begin(), bytes.end());
  return ReadPacket(exact.data(), exact.size(), packet, error);
}

TEST(PacketReaderTest, NamesOffsetAndReasonOfEachCorruption) {
  constexpr char kGauge[] = "gauge.hex";
  constexpr char kMulti[] = "multi_field.hex";
  const struct {
    const char* file;
    size_t at;  // the byte that is replaced; one past the end: appended
    char byte;
    size_t offset;
    const char* reason;
  } kCases[] = {
      {kGauge, 0, 'x', 0, "wrong magic"},
      {kGauge, 8, 5, 8, "version is 5 instead of 4"},
      {kGauge, 9, 111, 9, "header_len is 111 instead of 112"},
      {kGauge, 13, 87, 13, "body_len is 87 instead of 88"},
      {kGauge, 17, 1, 17, "reserved byte is 1 instead of 0"},
      {kGauge, 21, 1, 18, "reserved word is 16777216 instead of 0"},
      {kGauge, 34, 1, 34, "reserved word is 1 instead of 0"},
      {kGauge, 38, 7, 38, "format_word is 7 instead of 15"},
      {kGauge, 42, 2, 42, "block_count is 2 instead of 1"},
      {kGauge, 46, 0, 46, "series_count is 0 instead of 1"},
      {kGauge, 51, 1, 50, "tenant has the length 258, but 146 bytes are left"},
      {kGauge, 56, 3, 56, "tenant tag word count is odd: 3"},
      {kGauge, 112, 87, 184, "value count is 1, but 11 bytes are left"},
      {kGauge, 112, 89, 112, "block_len is 89, but 88 bytes are left"},
      {kGauge, 112, 3, 112, "block_len is 3, but 88 bytes are left"},
      {kGauge, 116, 0, 112, "block_len is 88, but the last series record ends after 36"},
      {kGauge, 116, 2, 200, "cut off in tag hash"},
      {kGauge, 116, 3, 116, "series in block is 3, but 80 bytes are left"},
      {kGauge, 120, 0, 120, "unknown wire_type 0"},
      {kGauge, 120, 9, 120, "unknown wire_type 9"},
      {kGauge, 180, 1, 180, "field indexes in a block of type 1"},
      {kGauge, 184, 0, 184, "value count is 0 instead of 1"},
      {kGauge, 188, 9, 188, "value prefix is 9 instead of 8"},
      {kGauge, 200, 0, 13, "body_len is 88 instead of 89"},
      {kMulti, 142, 99, 142, "field count is 99, but 105 bytes are left"},
      {kMulti, 151, 1, 151, "field type is 1 instead of 0"},
      {kMulti, 179, 3, 179, "index count is 3 with 2 fields"},
      {kMulti, 187, 2, 187, "field index 2 with 2 fields"},
      {kMulti, 187, 0, 187, "field index 0 comes twice"},
      {kMulti, 191, 1, 191, "value count is 1 instead of 2"},
      {kMulti, 227, 0, 231, "value count is 1 instead of 2"},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(std::string(test.file) + " byte " + std::to_string(test.at));
    Packet packet;
    ReadError error;
    EXPECT_FALSE(Read(ReadGolden(test.file).replace(test.at, 1, 1, test.byte), &packet, &error));
    EXPECT_EQ(error.offset, test.offset);
    EXPECT_EQ(error.reason, test.reason);
  }
}

TEST(PacketReaderTest, WithstandsEveryCutAndHugeNumbersAnywhere) {
  for (const char* file : {"gauge.hex", "multi_field.hex"}) {
    const std::string golden = ReadGolden(file);
    for (size_t at = 0; at < golden.size(); ++at) {
      SCOPED_TRACE(std::string(file) + " at " + std::to_string(at));
      Packet packet;
      ReadError error;
      EXPECT_FALSE(Read(golden.substr(0, at), &packet, &error));
      EXPECT_LE(error.offset, at);
      EXPECT_NE(error.reason, "");

      std::string huge = golden;
      huge.replace(at, 4, 4, '\xff').resize(golden.size());
      error = {};
      const bool accepted = Read(huge, &packet, &error);
      EXPECT_LE(error.offset, huge.size());
      EXPECT_EQ(accepted, error.reason.empty());
    }
  }
}

}  // namespace
}  // namespace tidegate::agent
