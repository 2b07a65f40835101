#include "agent/line_protocol.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <set>
#include <utility>

namespace tidegate::agent {
namespace {

constexpr int64_t kNanosPerSecond = 1000000000;
constexpr int64_t kLastSecond = std::numeric_limits<int64_t>::max() / kNanosPerSecond;
constexpr std::string_view kValueField = "value";
constexpr std::string_view kBucketField = "bucket";
constexpr std::string_view kHistogramPrefix = "hist:";

// Bucket lines of one record: each has the measurement and all tags, so they grow with the product
// of what a packet holds.
constexpr size_t kMaxBucketBytes = 16 << 20;

bool IsEscapedIn(LinePart part, char c) {
  return c == ',' || c == ' ' || (c == '=' && part != LinePart::kMeasurement);
}

bool IsPlain(char c) {
  return c > ' ' && c != '\x7f' && c != ',' && c != '=' && c != '\\' && c != '"' && c != '#';
}

bool IsPlainText(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsPlain);
}

// How many bytes at the front of `text` are one character of UTF-8 beyond ASCII; 0 if they are
// none.
size_t Utf8Length(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const size_t length = byte(0) >= 0xf0 ? 4 : byte(0) >= 0xe0 ? 3 : 2;
  if (byte(0) < 0xc2 || byte(0) > 0xf4 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  // Too long for what they say, half of a pair, or beyond the last character.
  const bool bad = (byte(0) == 0xe0 && byte(1) < 0xa0) || (byte(0) == 0xed && byte(1) > 0x9f) ||
                   (byte(0) == 0xf0 && byte(1) < 0x90) || (byte(0) == 0xf4 && byte(1) > 0x8f);
  return bad ? 0 : length;
}

// Appends the character at the front of `text` and returns its length.
size_t AppendCharacter(LinePart part, std::string_view text, std::string* out) {
  const char c = text.front();
  if (static_cast<unsigned char>(c) >= 0x80) {
    const size_t length = Utf8Length(text);
    *out += length == 0 ? "_" : text.substr(0, length);
    return std::max<size_t>(length, 1);
  }
  // Receivers differ in what a backslash means in front of itself, and at the end it would join the
  // next character.
  const bool escape = c == '\\' && (text.size() == 1 || text[1] == '\\' || text[1] == '=' ||
                                    IsEscapedIn(LinePart::kTag, text[1]));
  if (c < ' ' || c == '\x7f' || escape || (c == '"' && part == LinePart::kField)) {
    *out += '_';
    return 1;
  }
  if (IsEscapedIn(part, c)) *out += '\\';
  *out += c;
  return 1;
}

void AppendNumber(double value, std::string* out) {
  char digits[32];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), value);
  out->append(std::begin(digits), end.ptr);
}

void AppendTag(std::string_view key, std::string_view value, std::string* out) {
  *out += ',';
  AppendEscaped(LinePart::kTag, key, out);
  *out += '=';
  AppendEscaped(LinePart::kTag, value, out);
}

// The name of a column as a field: that of a bucket without the mark of histograms, as its block is
// known to be one.
std::string_view FieldName(Kind kind, std::string_view column) {
  return kind == Kind::kHistogram ? column.substr(kHistogramPrefix.size()) : column;
}

}  // namespace

void AppendEscaped(LinePart part, std::string_view text, std::string* out) {
  if (IsPlainText(text)) {
    *out += text;
    return;
  }
  if (text.empty() || (part == LinePart::kMeasurement && text.front() == '#')) {
    *out += '_';
    text.remove_prefix(std::min<size_t>(text.size(), 1));
  }
  while (!text.empty()) text.remove_prefix(AppendCharacter(part, text, out));
}

void LineWriter::StartBlock(const Packet& packet, const ClientId& client, const Block& block) {
  packet_ = &packet;
  client_ = &client;
  block_ = &block;
  kind_ = KindOf(block);
  in_time_ = block.timestamp <= kLastSecond && block.timestamp >= -kLastSecond;
  time_ = ' ' + std::to_string(in_time_ ? block.timestamp * kNanosPerSecond : 0) + '\n';
  measurement_.clear();
  AppendEscaped(LinePart::kMeasurement, block.name, &measurement_);

  fields_.resize(block.fields.size());
  for (size_t i = 0; i < fields_.size(); ++i) {
    fields_[i].clear();
    AppendEscaped(LinePart::kField, FieldName(kind_, block.fields[i].name), &fields_[i]);
  }
  bounds_.clear();
  if (kind_ != Kind::kHistogram) return;
  // A bucket is known by its lower end, `le` by the upper one.
  const std::vector<double> bounds = HistogramBounds(block).value_or(std::vector<double>());
  for (size_t i = 1; i < bounds.size(); ++i) {
    AppendNumber(bounds[i], &bounds_.emplace_back(",le="));
  }
  bounds_.emplace_back(",le=+Inf");
}

bool LineWriter::AppendRecord(const Series& record, std::string* out) {
  if (!in_time_) return false;
  tags_.Assign(*packet_, *client_, label_pid_, kind_, record);
  AppendTags();
  if (bounds_.size() * head_.size() > kMaxBucketBytes) return false;

  double merged = 0;  // of buckets with the same name as the next
  for (size_t i = 0; i < record.values.size(); ++i) {
    if (kind_ == Kind::kHistogram && i + 1 < fields_.size() && fields_[i] == fields_[i + 1]) {
      merged += record.values[i];
      continue;
    }
    AppendField(
        fields_.empty() ? kValueField : fields_[record.indexes.empty() ? i : record.indexes[i]],
        std::exchange(merged, 0) + record.values[i]);
  }
  const bool written = AppendLine(out);
  if (kind_ == Kind::kHistogram) AppendBuckets(record, out);
  return written;
}

void LineWriter::AppendTags() {
  head_ = measurement_;
  // Only where one is altered can two keys become one.
  const bool distinct = std::all_of(tags_.begin(), tags_.end(),
                                    [](const PointTags::Tag& tag) { return IsPlainText(tag.key); });
  std::set<std::string> keys;
  for (const PointTags::Tag& tag : tags_) {
    if (!distinct) {
      std::string key;
      AppendEscaped(LinePart::kTag, tag.key, &key);
      if (!keys.insert(std::move(key)).second) continue;
    }
    AppendTag(tag.key, tag.value, &head_);
  }
}

void LineWriter::AppendField(std::string_view escaped_name, double value) {
  if (!std::isfinite(value)) return;
  values_ += values_.empty() ? ' ' : ',';
  values_ += escaped_name;
  values_ += '=';
  AppendNumber(value, &values_);
}

bool LineWriter::AppendLine(std::string* out) {
  if (values_.empty()) return false;
  out->append(head_).append(values_).append(time_);
  values_.clear();
  return true;
}

void LineWriter::AppendBuckets(const Series& record, std::string* out) {
  const HistogramView histogram = HistogramOf(record);
  const size_t head_size = head_.size();
  double below = 0;
  for (size_t i = 0; i < histogram.buckets; ++i) {
    below += histogram.counts[i];
    if (i + 1 < histogram.buckets && bounds_[i] == bounds_[i + 1]) continue;
    head_ += bounds_[i];
    AppendField(kBucketField, below);
    AppendLine(out);
    head_.resize(head_size);
  }
}

void AppendHealthLines(const Health& health, std::string_view host, int64_t now_ns,
                       std::string* out) {
  health.ForEach([&](const Health::Sample& sample) {
    AppendEscaped(LinePart::kMeasurement, sample.name, out);
    AppendTag("host", host, out);
    if (!sample.label.empty()) AppendTag(sample.label, sample.label_value, out);
    out->append(" value=");
    AppendNumber(sample.value, out);
    out->append(" ").append(std::to_string(now_ns)).append("\n");
  });
}

}  // namespace tidegate::agent
