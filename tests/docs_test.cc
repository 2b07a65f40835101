// Keeps the documents true: this tree has everything that they show and name.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "agent/health.h"
#include "agent/packet_reader.h"
#include "golden/golden_file.h"
#include "util/metric_error_code.h"

namespace tidegate::agent {
namespace {

void AddTags(const std::vector<Tag>& tags, std::ostream& out) {
  out << 2 * tags.size() << '\n';
  for (const Tag& tag : tags) out << tag.key << '=' << tag.value << '\n';
}

// The contents of a packet of one block and one record, field by field, a line each.
std::string Describe(const Packet& packet) {
  const Block& block = packet.blocks.at(0);
  const Series& record = block.series.at(0);
  std::ostringstream out;
  out << "2scirtem\n" << int{packet.version} << '\n';
  out << packet.header_len << '\n' << packet.body_len << "\n0\n" << packet.send_time_ms << "\n0\n";
  out << packet.format_word << '\n' << packet.block_count << '\n' << packet.series_count << '\n';
  out << packet.tenant << '\n';
  AddTags(packet.tenant_tags, out);
  out << packet.sdk_version << '\n' << packet.body_len << '\n' << block.series.size() << '\n';
  out << int{block.wire_type} << ", " << WireTypeName(block.wire_type) << '\n';
  out << std::hex << "0x" << block.name_hash << std::dec << '\n' << block.timestamp << '\n';
  out << block.name << '\n' << block.fields.size() << '\n';
  out << std::hex << "0x" << record.tag_hash << std::dec << '\n';
  AddTags(record.tags, out);
  out << record.indexes.size() << '\n' << record.values.size() << '\n' << record.values.at(0);
  return out.str() + '\n';
}

TEST(DocsTest, ReadmeShowsTheQuickStart) {
  EXPECT_EQ(FencedBlock(ReadSourceFile("README.md"), "```cpp"),
            ReadSourceFile("examples/quick_start.cc"));
}

TEST(DocsTest, WorkedExampleDecodesToItsTable) {
  const std::string document = ReadSourceFile("docs/wire_format.md");
  const std::string bytes = ReadGolden("gauge.hex");
  Packet packet;
  ReadError error;
  ASSERT_TRUE(ReadPacket(bytes.data(), bytes.size(), &packet, &error)) << error.reason;

  const std::regex row(R"(\| (\d+) \| (\d+) \| .+ \| (.+) \|)");  // offset, bytes, field, content
  std::string contents;
  size_t offset = 0;
  for (std::sregex_iterator it(document.begin(), document.end(), row), end; it != end; ++it) {
    EXPECT_EQ(std::stoul(it->str(1)), offset) << it->str();
    offset += std::stoul(it->str(2));
    contents += it->str(3) + '\n';
  }
  EXPECT_EQ(offset, bytes.size());
  EXPECT_EQ(contents, Describe(packet));
}

TEST(DocsTest, EveryReturnCodeHasItsRow) {
  const std::string table = ReadSourceFile("docs/errors.md");
  const std::string header = ReadSourceFile("src/util/metric_error_code.h");
  const std::regex code(R"((k\w+) = (\d+),)");
  const std::sregex_iterator first(header.begin(), header.end(), code), end;
  EXPECT_EQ(std::distance(first, end), 26);
  for (std::sregex_iterator it = first; it != end; ++it) {
    const char* const text =
        METRICS::MetricGetErrorCodeStr(METRICS::ReturnCode(std::stoi(it->str(2))));
    const std::string row = "\n| " + it->str(2) + " | `" + it->str(1) + "` | ";
    EXPECT_NE(table.find(row + (text == nullptr ? "|" : text + std::string(" | "))), table.npos)
        << row;
  }
}

TEST(DocsTest, EveryNumberOfTheAgentHasItsRow) {
  const std::string document = ReadSourceFile("docs/agent.md");
  Health().ForEach([&](const Health::Sample& sample) {
    const std::string name(sample.name.substr(sizeof("tidegate_agent") - 1));
    const size_t row =
        std::min(document.find("`tidegate_agent" + name + '`'), document.find("`..." + name + '`'));
    ASSERT_NE(row, std::string::npos) << sample.name;
    if (sample.label != "reason") return;
    const std::string reason = '`' + std::string(sample.label_value) + '`';
    EXPECT_LT(document.find(reason, row), document.find('\n', row)) << sample.name << reason;
  });
}

std::vector<std::filesystem::path> Pages() {
  const std::filesystem::path root = TIDEGATE_SOURCE_DIR;
  std::vector<std::filesystem::path> pages;
  for (const std::filesystem::path& folder : {root, root / "docs"}) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (entry.path().extension() == ".md") pages.push_back(entry.path().lexically_relative(root));
    }
  }
  return pages;
}

// Whether `document` has the heading that links call `anchor`: its words in small letters, joined
// by hyphens.
bool HasHeading(const std::string& document, const std::string& anchor) {
  std::istringstream lines(document);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind('#', 0) != 0) continue;
    std::string words;
    for (const char c : line.substr(line.find(' ') + 1)) {
      const auto byte = static_cast<unsigned char>(c);
      if (std::isalnum(byte) != 0 || c == '-' || c == ' ') {
        words += c == ' ' ? '-' : static_cast<char>(std::tolower(byte));
      }
    }
    if (words == anchor) return true;
  }
  return false;
}

TEST(DocsTest, DesignNamesEachUnitOfMetrics) {
  const std::string design = ReadSourceFile("docs/design.md");
  const std::filesystem::path folder = TIDEGATE_SOURCE_DIR "/src/metrics";
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.path().extension() != ".h") continue;
    const std::string unit = entry.path().lexically_relative(folder).replace_extension().string();
    EXPECT_NE(design.find("`" + unit + "`"), design.npos) << unit;
  }
}

TEST(DocsTest, NamedFilesAndHeadingsExist) {
  const std::filesystem::path root = TIDEGATE_SOURCE_DIR;
  // Links, and paths in code spans; `src/metrics/metric` stands for the files of that name.
  const std::regex name(
      R"(\]\(([\w./]*)(?:#([\w-]+))?\)|`((?:bench|cmake|docs|examples|include|scripts|src|stress|tests|tools)/[\w./-]+)`)");
  for (const std::filesystem::path& page : Pages()) {
    const std::string text = ReadSourceFile(page.string());
    for (std::sregex_iterator it(text.begin(), text.end(), name), end; it != end; ++it) {
      const std::string where = page.string() + ": " + it->str();
      if ((*it)[3].matched) {
        const std::filesystem::path path = root / it->str(3);
        EXPECT_TRUE(exists(path) || std::filesystem::exists(path.string() + ".h") ||
                    std::filesystem::exists(path.string() + ".cc"))
            << where;
        continue;
      }
      const std::filesystem::path target =
          it->length(1) == 0 ? page : (page.parent_path() / it->str(1)).lexically_normal();
      ASSERT_TRUE(exists(root / target)) << where;
      if ((*it)[2].matched) {
        EXPECT_TRUE(HasHeading(ReadSourceFile(target.string()), it->str(2))) << where;
      }
    }
  }
}

}  // namespace
}  // namespace tidegate::agent
