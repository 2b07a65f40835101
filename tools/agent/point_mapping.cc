#include "agent/point_mapping.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <set>

namespace tidegate::agent {
namespace {

constexpr size_t kTail = std::size(kHistogramColumns) - kHistogramSum;  // that are no buckets

bool IsNamed(const Field& field, const ColumnRow& column) { return field.name == column.name; }

bool HasFormOf(const KindRow& kind, const Block& block) {
  const std::vector<Field>& fields = block.fields;
  switch (kind.form) {
    case ColumnForm::kOne:
      return fields.empty();
    case ColumnForm::kFixed:
      return std::equal(fields.begin(), fields.end(), kind.columns.begin(), kind.columns.end(),
                        IsNamed);
    case ColumnForm::kBounds:
      return HistogramBounds(block).has_value();
    case ColumnForm::kAny:
      break;
  }
  return !fields.empty();
}

std::optional<double> BoundOf(std::string_view column) {
  constexpr std::string_view kPrefix = kHistogramColumns[kHistogramBucket].name;
  if (column.substr(0, kPrefix.size()) != kPrefix) return std::nullopt;
  column.remove_prefix(kPrefix.size());
  double bound = 0;
  const char* const end = column.data() + column.size();
  const auto result = std::from_chars(column.data(), end, bound);
  if (result.ec != std::errc() || result.ptr != end || !std::isfinite(bound)) return std::nullopt;
  return bound;
}

}  // namespace

Kind KindOf(const Block& block) {
  const KindRow* const kind = FindKind(block.wire_type);
  if (kind != nullptr && HasFormOf(*kind, block)) return kind->kind;
  return block.fields.empty() ? Kind::kGauge : Kind::kRow;
}

std::optional<std::vector<double>> HistogramBounds(const Block& block) {
  const std::vector<Field>& fields = block.fields;
  if (fields.size() <= kTail || !std::equal(fields.end() - kTail, fields.end(),
                                            std::end(kHistogramColumns) - kTail, IsNamed)) {
    return std::nullopt;
  }
  std::vector<double> bounds;
  for (size_t i = 0; i < fields.size() - kTail; ++i) {
    const std::optional<double> bound = BoundOf(fields[i].name);
    if (!bound || (i > 0 && *bound < bounds.back())) return std::nullopt;
    bounds.push_back(*bound);
  }
  return bounds;
}

HistogramView HistogramOf(const Series& record) {
  const size_t buckets = record.values.size() - kTail;
  return {record.values.data(), buckets, record.values[buckets], record.values[buckets + 1]};
}

std::string_view KeyOf(ProcessLabel label) {
  switch (label) {
    case ProcessLabel::kNone:
      break;
    case ProcessLabel::kSlot:
      return "slot";
    case ProcessLabel::kPid:
      return "pid";
  }
  return {};
}

std::string ValueOf(ProcessLabel label, const ClientId& client) {
  if (label == ProcessLabel::kPid) return std::to_string(client.pid);
  return client.slot == kNoSlot ? "overflow" : std::to_string(client.slot);
}

std::string_view HeaderValue(const Packet& packet, std::string_view key) {
  for (const Tag& tag : packet.tenant_tags) {
    if (tag.key == key) return tag.value;
  }
  return {};
}

bool IsOwnerKey(std::string_view key) {
  return key == kTenantKey ||
         std::find(std::begin(kHeaderKeys), std::end(kHeaderKeys), key) != std::end(kHeaderKeys);
}

void PointTags::Assign(const Packet& packet, const ClientId& client, ProcessLabel label, Kind kind,
                       const Series& record) {
  tags_.clear();
  tags_.push_back({kTenantKey, packet.tenant});
  for (const std::string_view key : kHeaderKeys) {
    const std::string_view value = HeaderValue(packet, key);
    if (!value.empty()) tags_.push_back({key, value});
  }
  if (label != ProcessLabel::kNone) {
    process_ = ValueOf(label, client);
    tags_.push_back({KeyOf(label), process_});
  }
  const size_t first = tags_.size();
  const std::string_view of_kind = RowOf(kind).own_label;
  bool distinct = true;
  for (const agent::Tag& tag : record.tags) {
    if (tag.value.empty()) continue;
    // Senders sort by key, so a comparison with the one before finds what comes twice.
    distinct = distinct && (of_kind.empty() || tag.key != of_kind) &&
               (tags_.size() == first || tags_.back().key < tag.key) &&
               std::none_of(tags_.begin(), tags_.begin() + static_cast<std::ptrdiff_t>(first),
                            [&](const Tag& front) { return front.key == tag.key; });
    tags_.push_back({tag.key, tag.value});
  }
  if (!distinct) Rename(first, of_kind);
}

void PointTags::Rename(size_t first, std::string_view of_kind) {
  renamed_.clear();
  // The order of tags must not make two series of one.
  const auto sort = [&] {
    std::stable_sort(tags_.begin() + static_cast<std::ptrdiff_t>(first), tags_.end(),
                     [](const Tag& a, const Tag& b) { return a.key < b.key; });
  };
  sort();
  std::set<std::string_view> taken = {of_kind};
  for (size_t i = 0; i < first; ++i) taken.insert(tags_[i].key);
  size_t kept = first;
  for (size_t i = first; i < tags_.size(); ++i) {
    Tag tag = tags_[i];
    if (taken.count(tag.key) != 0) {
      tag.key = renamed_.emplace_back("exported_").append(tag.key);
      if (taken.count(tag.key) != 0) continue;
    }
    taken.insert(tag.key);
    tags_[kept++] = tag;
  }
  tags_.resize(kept);
  sort();  // by their new keys
}

}  // namespace tidegate::agent
