#include "agent/line_protocol.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "agent/numbers.h"

namespace tidegate::agent {
namespace {

constexpr int64_t kNanosPerSecond = 1000000000;
constexpr int64_t kLastSecond = std::numeric_limits<int64_t>::max() / kNanosPerSecond;
constexpr std::string_view kValueField = "value";
constexpr std::string_view kBucketField = "bucket";
constexpr std::string_view kExported = "exported_";

// Bucket lines of one record: each has the measurement and all tags, so they grow with the product
// of what a packet holds.
constexpr size_t kMaxBucketBytes = 16 << 20;

// Whether receivers reserve the key: InfluxDB 1 refuses the tag `time` and drops such a field,
// InfluxDB 2 does so with all three. A key that looks like a renamed one counts as well, so that
// two different keys stay different.
bool IsReserved(std::string_view key) {
  while (key.substr(0, kExported.size()) == kExported) key.remove_prefix(kExported.size());
  return key == "time" || key == "_measurement" || key == "_field";
}

void AppendKey(LinePart part, std::string_view key, std::string* out) {
  if (IsReserved(key)) *out += kExported;
  AppendEscaped(part, key, out);
}

void AppendTag(std::string_view key, std::string_view value, std::string* out) {
  *out += ',';
  AppendKey(LinePart::kTag, key, out);
  *out += '=';
  AppendEscaped(LinePart::kTag, value, out);
}

// The name of a column as a field: that of a bucket without the mark of histograms, as its block is
// known to be one.
std::string_view FieldName(Kind kind, std::string_view column) {
  return kind == Kind::kHistogram ? column.substr(kHistogramMark.size()) : column;
}

}  // namespace

void LineWriter::StartBlock(const Packet& packet, const ClientId& client, const Block& block) {
  packet_ = &packet;
  client_ = &client;
  block_ = &block;
  kind_ = KindOf(block);
  fits_ = block.timestamp <= kLastSecond && block.timestamp >= -kLastSecond;
  time_ = ' ' + std::to_string(fits_ ? block.timestamp * kNanosPerSecond : 0) + '\n';
  measurement_.clear();
  AppendEscaped(LinePart::kMeasurement, block.name, &measurement_);
  EscapeFields();
  // Before any record is tried, as a packet can hold one long name and very many of them.
  fits_ = fits_ && measurement_.size() + packet.tenant.size() <= kMaxLineBytes &&
          std::all_of(fields_.begin(), fields_.end(),
                      [](const std::string& field) { return field.size() <= kMaxLineBytes; });
  bounds_.clear();
  if (kind_ != Kind::kHistogram) return;
  // A bucket is known by its lower end, `le` by the upper one.
  const std::vector<double> bounds = HistogramBounds(block).value_or(std::vector<double>());
  for (size_t i = 1; i < bounds.size(); ++i) {
    AppendFinite(bounds[i], &bounds_.emplace_back(",le="));
  }
  bounds_.emplace_back(",le=+Inf");
}

void LineWriter::EscapeFields() {
  fields_.resize(block_->fields.size());
  for (size_t i = 0; i < fields_.size(); ++i) {
    fields_[i].clear();
    AppendKey(LinePart::kField, FieldName(kind_, block_->fields[i].name), &fields_[i]);
  }
}

bool LineWriter::AppendRecord(const Series& record, std::string* out) {
  tried_bytes_ = 0;
  if (!fits_) return false;
  tags_.Assign(*packet_, *client_, label_, kind_, record);
  AppendTags();
  tried_bytes_ = head_.size();
  if (bounds_.size() * head_.size() > kMaxBucketBytes) return false;

  double merged = 0;  // of buckets with the same name as the next
  for (size_t i = 0; i < record.values.size(); ++i) {
    if (kind_ == Kind::kHistogram && i + 1 < fields_.size() && fields_[i] == fields_[i + 1]) {
      merged += record.values[i];
      continue;
    }
    const size_t column = record.indexes.empty() ? i : record.indexes[i];
    AppendField(fields_.empty() ? kValueField : fields_[column],
                std::exchange(merged, 0) + record.values[i]);
  }
  tried_bytes_ += values_.size();
  const bool written = AppendLine(out);
  if (written && kind_ == Kind::kHistogram) AppendBuckets(record, out);
  return written;
}

void LineWriter::AppendTags() {
  head_ = measurement_;
  for (const PointTags::Tag& tag : tags_) AppendTag(tag.key, tag.value, &head_);
}

void LineWriter::AppendField(std::string_view escaped_name, double value) {
  if (!std::isfinite(value) || values_.size() > kMaxLineBytes) return;
  values_ += values_.empty() ? ' ' : ',';
  values_ += escaped_name;
  values_ += '=';
  AppendFinite(value, &values_);
}

bool LineWriter::AppendLine(std::string* out) {
  const bool fits =
      !values_.empty() && head_.size() + values_.size() + time_.size() <= kMaxLineBytes;
  if (fits) out->append(head_).append(values_).append(time_);
  values_.clear();
  return fits;
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
    if (!sample.owner.empty()) AppendTag(sample.owner, sample.owner_value, out);
    if (!sample.label.empty()) AppendTag(sample.label, sample.label_value, out);
    out->append(" value=");
    out->append(std::to_string(sample.value))
        .append(" ")
        .append(std::to_string(now_ns))
        .append("\n");
  });
}

}  // namespace tidegate::agent
