#include "util/metric_string_util.h"
#include "util/short_text.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace METRICS {
namespace {

// The legal characters once more, as a person would list them.
const std::string kAlphanumeric = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
const struct CharClass {
  const char* name;
  std::string legal;
  const unsigned char *table, *bitmap;
} kClasses[] = {{"key", kAlphanumeric + "%-./:_", g_t_validKey, g_s_validKey},
                {"value", kAlphanumeric + " !#$%&'+-./:;=?@[\\]^_`~", g_t_validVal, g_s_validVal}};

void ExpectValidity(const std::string& text, const CharClass& chars, bool legal) {
  const bool short_enough = text.size() < 4096;
  ASSERT_EQ(IsValidStrSIMD(text, chars.table, chars.bitmap), legal && short_enough);
  ASSERT_EQ(IsValidNonEmptyStrSIMD(text, chars.table, chars.bitmap),
            legal && short_enough && !text.empty());
  ASSERT_EQ(IsValidStrTable(text, chars.table), legal && text.size() <= 254);
}

// Below 16 bytes and for `IsValidStrTable` the table decides, in chunks of 16 and the tail after
// them the bitmap: so this also shows that the two agree.
TEST(StringValidityTest, EveryByteAtEveryPlaceOfShortStringChunkAndTail) {
  for (const CharClass& chars : kClasses) {
    ExpectValidity("", chars, true);
    for (const size_t length : {1u, 15u, 16u, 17u, 31u, 32u, 33u, 254u, 255u, 4095u, 4096u}) {
      std::string text(length, '\0');
      for (size_t i = 0; i < length; ++i) text[i] = chars.legal[i % chars.legal.size()];
      std::set<size_t> indexes{0, length / 2, length - 1};
      for (size_t i = 0; length <= 33 && i < length; ++i) indexes.insert(i);
      for (const size_t index : indexes) {
        std::string changed = text;
        for (int byte = 0; byte < 256; ++byte) {
          changed[index] = static_cast<char>(byte);
          SCOPED_TRACE(testing::Message() << chars.name << " length " << length << " byte " << byte
                                          << " at " << index);
          ExpectValidity(changed, chars, chars.legal.find(changed[index]) != std::string::npos);
          ASSERT_FALSE(testing::Test::HasFatalFailure());
        }
      }
    }
  }
}

TEST(ShortTextTest, SeesEveryByteAtEveryLength) {
  for (size_t size = 0; size <= 70; ++size) {
    const std::string text(size, 'x');
    std::string other = text;
    EXPECT_TRUE(SameText(text, other)) << size;
    EXPECT_FALSE(SameText(text, text + 'x') || SameText(text + 'x', text)) << size;
    for (char& byte : other) {
      byte = 'y';
      EXPECT_FALSE(SameText(text, other)) << other;
      byte = 'x';
    }
  }
}

}  // namespace
}  // namespace METRICS
