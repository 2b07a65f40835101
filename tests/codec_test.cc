#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codec/fnv_hash.h"
#include "codec/pack.h"
#include "metrics/metric_collector.h"

namespace lattice_kit::codec {
namespace {

TEST(FNVHashTest, GivesTheKnownAnswersOfFNV1aInOnePieceOrTwo) {
  const struct {
    std::string text;
    uint32_t hash;
  } cases[] = {{"", 0x811c9dc5},       {"a", 0xe40c292c},       {"b", 0xe70c2de5},
               {"foobar", 0xbf9cf968}, {"svc.lat", 0x7bae937a}, {{"\xff\0\x80", 3}, 0xa36cd47e}};
  for (const auto& [text, hash] : cases) {
    for (size_t cut = 0; cut <= text.size(); ++cut) {
      EXPECT_EQ(StrFNVHash(text.substr(cut), StrFNVHash(text.substr(0, cut), 0x811c9dc5)), hash)
          << text << " cut at " << cut;
    }
  }
}

TEST(FNVHashTest, ListsHashWithTheirBoundariesAndSlotsWithout) {
  EXPECT_EQ(StrVecFNVHash({}), 0x811c9dc5);
  EXPECT_EQ(StrVecFNVHash({"", ""}), 0x117697cd);
  EXPECT_EQ(StrVecFNVHash({"ab", "c"}), 0x35708e65);
  EXPECT_EQ(StrVecFNVHash({"a", "bc"}), 0xb125c599);
  EXPECT_EQ(TagVecFNVHash({{"dc", "b"}, {"host", "a"}}), 0xd214ee0d);
  EXPECT_EQ(METRICS::TagKVHash()({"ab", "c"}), 0x1a47e90b);
  EXPECT_EQ(METRICS::TagKVHash()({"a", "bc"}), 0x1a47e90b);
}

TEST(PackTest, GrowsByMultiplesOf1024AndIsCutBackByClear) {
  const struct {
    int32_t capacity, used, n, grown, cleared;
  } cases[] = {{64, 60, 3, 64, 64},
               {64, 60, 4, 1088, 1088},  // one byte stays free
               {64, 60, 1029, 2112, 2112},
               {262143, 262000, 5000, 267263, 267263},
               {409600, 0, 1, 409600, 409600},
               {409601, 0, 1, 409601, 262143}};
  for (const auto& [capacity, used, n, grown, cleared] : cases) {
    Pack pack(capacity);
    const std::string content(static_cast<size_t>(used), 'x');
    pack.PutRaw(content.data(), used);
    pack.Reserve(n);
    EXPECT_EQ(pack.capacity, grown) << capacity << " bytes, " << n << " more";
    EXPECT_EQ(pack.Bytes(), content);
    pack.Clear();
    EXPECT_EQ(pack.capacity, cleared);
    const std::string refill(static_cast<size_t>(cleared) - 1, 'r');
    pack.PutRaw(refill.data(), cleared - 1);  // shows a sanitizer the real size
    EXPECT_EQ(pack.Bytes(), refill);
  }
}

TEST(PackTest, NumbersAndTagsAreLittleEndianWithoutPadding) {
  using namespace std::string_literals;
  Pack pack(1);
  pack.Put(uint8_t{4});
  pack.Put(uint32_t{0x01020304});
  pack.Put(int64_t{-2});
  pack.Put(1.5);
  Encode(TagKV("dc", "\x80\0b"s), pack);
  Encode(TagKV("", ""), pack);
  pack.Patch(1, uint32_t{0xaabbccdd});
  EXPECT_EQ(pack.Bytes(),
            "\x04\xdd\xcc\xbb\xaa\xfe\xff\xff\xff\xff\xff\xff\xff"
            "\0\0\0\0\0\0\xf8\x3f\x02\0\0\0dc\x03\0\0\0\x80\0b\0\0\0\0\0\0\0\0"s);
}

}  // namespace
}  // namespace lattice_kit::codec
