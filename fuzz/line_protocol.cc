// The agent's lines for a database. Whatever a packet holds, a strict reader takes every line that
// is made of it, and nothing in it can end a line early or begin another one. The seeds are those
// of packet_reader.

#include "agent/line_protocol.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "agent/packet_reader.h"
#include "agent/point_mapping.h"
#include "fuzz/target.h"

namespace tidegate::fuzz {
namespace {

using agent::LinePart;

bool IsSeparator(char c) { return c == ',' || c == ' ' || c == '='; }

// The bytes that end a name, and may not stand in it without a backslash.
struct Bounds {
  std::string_view ends;
  std::string_view escaped;
};
constexpr Bounds kMeasurement = {", ", ""};
constexpr Bounds kKey = {"=", ", "};
constexpr Bounds kTagValue = {", ", "="};

// Reads a line by the rules of the protocol alone, and where receivers differ in them, by the
// narrowest.
class LineReader {
 public:
  explicit LineReader(std::string_view line) : rest_(line) {}

  // `repeated`: keys that more than one field of the line may have.
  void ReadLine(const std::set<std::string>& repeated) {
    Require(ReadName(kMeasurement).front() != '#', "no line is a comment");
    std::set<std::string> tags;
    while (TakeIf(',')) {
      Require(tags.insert(ReadName(kKey)).second, "a line has a tag once");
      Take('=');
      ReadName(kTagValue);
    }
    Take(' ');
    std::set<std::string> fields;
    do {
      const std::string key = ReadName(kKey);
      Require(key.find('"') == std::string::npos, "no quote in the key of a field");
      Require(fields.insert(key).second || repeated.count(key) != 0, "a line has a field once");
      Take('=');
      Require(std::isfinite(ReadNumber<double>()), "a field is finite");
    } while (TakeIf(','));
    Take(' ');
    Require(ReadNumber<int64_t>() % 1000000000 == 0, "a time is of whole seconds");
    Require(AtEnd(), "a line ends with its time");
  }

  // Without escapes.
  std::string ReadName(const Bounds& bounds) {
    std::string name;
    while (!AtEnd() && bounds.ends.find(rest_.front()) == std::string_view::npos) {
      const bool backslash = TakeIf('\\');
      Require(!AtEnd() && !(backslash && rest_.front() == '\\'), "a backslash stands alone");
      const bool escape = backslash && IsSeparator(rest_.front());
      Require(!escape || (bounds.ends.find(rest_.front()) != std::string_view::npos ||
                          bounds.escaped.find(rest_.front()) != std::string_view::npos),
              "only what has to be is escaped");
      Require(escape || bounds.escaped.find(rest_.front()) == std::string_view::npos,
              "separators are escaped");
      if (backslash && !escape) {
        name += '\\';
        continue;
      }
      name += rest_.front();
      rest_.remove_prefix(1);
    }
    Require(!name.empty(), "no name is empty");
    return name;
  }

  bool AtEnd() const { return rest_.empty(); }

 private:
  bool TakeIf(char c) {
    if (AtEnd() || rest_.front() != c) return false;
    rest_.remove_prefix(1);
    return true;
  }
  void Take(char c) { Require(TakeIf(c), "a separator stands where it has to"); }

  template <typename Number>
  Number ReadNumber() {
    Number number = 0;
    const auto [end, failure] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), number);
    Require(failure == std::errc(), "a number stands where it has to");
    rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
    return number;
  }

  std::string_view rest_;
};

// Text of whole characters, no control characters among them.
void CheckText(std::string_view text) {
  while (!text.empty()) {
    const auto lead = static_cast<unsigned char>(text.front());
    const size_t length = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    Require((lead < 0x80 || (lead >= 0xc0 && lead < 0xf8)) && text.size() >= length,
            "a character is whole");
    uint32_t code = lead & (length == 1 ? 0x7f : 0x7f >> length);
    for (size_t i = 1; i < length; ++i) {
      Require((text[i] & 0xc0) == 0x80, "a character is whole");
      code = code << 6 | (text[i] & 0x3f);
    }
    constexpr uint32_t kFirstOfLength[] = {' ', 0x80, 0x800, 0x10000};
    Require(code >= kFirstOfLength[length - 1] && code <= 0x10ffff && code != 0x7f &&
                !(code >= 0xd800 && code < 0xe000),
            "a character is one");
    text.remove_prefix(length);
  }
}

// The text before some of its bytes became \x and two digits.
std::string Decoded(std::string_view text) {
  constexpr std::string_view kForm = "\\x";
  std::string decoded;
  if (text == kForm) return decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.substr(i, kForm.size()) != kForm) {
      decoded += text[i];
      continue;
    }
    const std::string_view digits = text.substr(i + kForm.size(), 2);
    uint8_t byte = 0;
    const auto [end, failure] =
        std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    Require(failure == std::errc() && end == digits.data() + 2, "a byte has two digits");
    decoded += static_cast<char>(byte);
    i += kForm.size() + 1;
  }
  return decoded;
}

// Each text keeps to its part of a line, and comes back from there.
void CheckEscapes(std::string_view text) {
  const std::pair<LinePart, Bounds> kParts[] = {{LinePart::kMeasurement, kMeasurement},
                                                {LinePart::kTag, kKey},
                                                {LinePart::kTag, kTagValue},
                                                {LinePart::kField, kKey}};
  for (const auto& [part, bounds] : kParts) {
    std::string escaped;
    agent::AppendEscaped(part, text, &escaped);
    CheckText(escaped);
    LineReader reader(escaped);
    Require(Decoded(reader.ReadName(bounds)) == text, "what was escaped comes back");
    Require(reader.AtEnd(), "a text ends where it has to");
  }
}

// The fields of those columns whose names the packet itself has twice.
std::set<std::string> RepeatedFields(const agent::Block& block, const agent::Series& record) {
  std::set<std::string> once;
  std::set<std::string> repeated;
  for (size_t i = 0; i < record.values.size(); ++i) {
    const std::string name = block.FieldName(record, i);
    if (once.insert(name).second) continue;
    std::string_view field = name;
    if (agent::KindOf(block) == agent::Kind::kHistogram) field.remove_prefix(sizeof("hist:") - 1);
    std::string escaped;
    agent::AppendEscaped(LinePart::kField, field, &escaped);
    repeated.insert({LineReader(escaped).ReadName(kKey), "exported_" + escaped});
  }
  return repeated;
}

void CheckLines(std::string_view lines, const std::set<std::string>& repeated) {
  while (!lines.empty()) {
    const size_t end = lines.find('\n');
    Require(end != std::string_view::npos, "a line has its end");
    CheckText(lines.substr(0, end));
    LineReader(lines.substr(0, end)).ReadLine(repeated);
    lines.remove_prefix(end + 1);
  }
}

std::string LinesOf(const agent::Packet& packet, agent::LineWriter* writer) {
  const agent::ClientId client;
  std::string all;
  for (const agent::Block& block : packet.blocks) {
    writer->StartBlock(packet, client, block);
    for (const agent::Series& record : block.series) {
      std::string lines;
      const bool written = writer->AppendRecord(record, &lines);
      Require(written != lines.empty(), "what is written is said to be");
      CheckLines(lines, RepeatedFields(block, record));
      all += lines;
    }
  }
  return all;
}

bool WriteLinesOfInput(const uint8_t* data, size_t size) {
  agent::Packet packet;
  agent::ReadError error;
  if (!agent::ReadPacket(data, size, &packet, &error)) {
    constexpr size_t kMaxText = 16;  // enough for all that stands side by side
    CheckEscapes(std::string(data, data + std::min(size, kMaxText)));
    return false;
  }
  agent::LineWriter writer(agent::ProcessLabel::kPid);
  const std::string lines = LinesOf(packet, &writer);
  Require(LinesOf(packet, &writer) == lines, "a writer makes the same lines again");
  return true;
}

const Registration kRegistration("line_protocol", WriteLinesOfInput);

}  // namespace
}  // namespace tidegate::fuzz
