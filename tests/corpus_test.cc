// Replays the fuzzers' seeds, so that what they check also holds in builds without a fuzzer.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/target.h"

namespace tidegate::fuzz {
namespace {

std::vector<uint8_t> BytesOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(CorpusTest, EverySeedIsTakenAsItsNameSays) {
  ASSERT_FALSE(Targets().empty());
  for (const Target& target : Targets()) {
    size_t seeds = 0;
    const auto folder = std::filesystem::path(TIDEGATE_SOURCE_DIR) / "fuzz/corpus" / target.name;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      SCOPED_TRACE(entry.path());
      const std::vector<uint8_t> bytes = BytesOf(entry.path());
      const bool to_accept = entry.path().filename().string().compare(0, 3, "ok_") == 0;
      EXPECT_EQ(target.run(bytes.data(), bytes.size()), to_accept);
      ++seeds;
    }
    EXPECT_GT(seeds, 0u) << target.name;
  }
}

}  // namespace
}  // namespace tidegate::fuzz
