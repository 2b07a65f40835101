#include "metrics/suffix_blocks.h"

#include <array>
#include <cassert>

#include "codec/fnv_hash.h"
#include "metrics/cell_kinds.h"
#include "metrics/metric_parts.h"
#include "util/metric_log.h"
#include "util/short_text.h"

namespace METRICS {

using lattice_kit::codec::FieldInfo;
using lattice_kit::codec::StrFNVHash;

namespace {

void AppendPart(std::string& tail, std::string_view part) {
  if (!part.empty()) {
    tail += '.';
    tail += part;
  }
}

std::string HeaderOf(const MetricParts& metric, MetricsType type, const std::string& tail,
                     const std::string& columns) {
  return PackHeader({type, StrFNVHash(tail, metric.name_hash_), metric.name_ + tail, columns, 0});
}

}  // namespace

bool CheckSendRes(MetricsType type, const std::vector<double>& values, unsigned long expected) {
  if (values.empty()) {
    return false;
  }
  if (values.size() != expected) {
    METRICS_LOG_WARN("Invalid Metric[%d] array size [require: %lu actual: %lu]\n",
                     static_cast<int>(type), expected, values.size());
    return false;
  }
  return true;
}

bool IsRow(const MetricParts& metric, MetricsType type) {
  const SuffixForm form = KindOf(type).suffix_form;
  return form == SuffixForm::kRow ||
         (form == SuffixForm::kRowIfAskedFor && metric.multi_field_summary_.load());
}

SuffixBlocks::SuffixBlocks(const MetricParts& metric, std::string_view suffix_name,
                           MetricsType cell_type, bool as_row)
    : suffix(suffix_name), type(cell_type), row(as_row), numbers(KindOf(cell_type).numbers) {
  std::string tail;
  AppendPart(tail, suffix);
  if (row) {
    std::vector<FieldInfo> columns;
    AppendColumns(columns, type, std::string(), metric.GetHistogram());
    numbers = columns.size();
    headers.push_back(HeaderOf(metric, type, tail, lattice_kit::codec::PackFields(columns)));
    return;
  }
  // A summary in single numbers is a set of gauges to the receiver.
  const MetricsType wire_type = type == MetricsType::kTimer ? MetricsType::kGauge : type;
  for (size_t i = 0; i < numbers; ++i) {
    std::string whole_tail = tail;
    AppendPart(whole_tail, KindOf(type).names[i]);
    headers.push_back(HeaderOf(metric, wire_type, whole_tail, std::string()));
  }
}

void SuffixBlocks::Pack(MetricDataPack& pack, int64_t timestamp, std::string_view tags,
                        const double* values) const {
  if (row) {
    DoPackSuffixToMultiField(pack, timestamp, tags, values);
  } else {
    DoPackSuffixMetric(pack, timestamp, tags, values);
  }
}

void SuffixBlocks::DoPackSuffixMetric(MetricDataPack& pack, int64_t timestamp,
                                      std::string_view tags, const double* values) const {
  pack.PutNumberBlocks(headers, timestamp, tags, values);
}

void SuffixBlocks::DoPackSuffixToMultiField(MetricDataPack& pack, int64_t timestamp,
                                            std::string_view tags, const double* values) const {
  pack.PutRowBlock(headers.front(), timestamp, tags, values, numbers);
}

void SuffixBlocks::PackPrevious(FlushPackets& packets, int64_t timestamp, std::string_view tags,
                                double prev_value) const {
  assert(KindOf(type).previous != 0);
  const std::array<double, CellKind::kMostNames> point{prev_value};  // the others are 0
  packets.WritePrevious([&](MetricDataPack& pack) { Pack(pack, timestamp, tags, point.data()); });
}

void SuffixBlockTable::Clear() {
  blocks_.clear();
  suffixes_.Clear();
}

const SuffixBlocks& SuffixBlockTable::BlocksOf(const MetricParts& metric, std::string_view suffix,
                                               MetricsType type, bool row, size_t index) {
  const auto matches = [&](size_t i) {
    const SuffixBlocks& blocks = blocks_[i];
    return blocks.type == type && blocks.row == row && SameText(blocks.suffix, suffix);
  };
  if (index < blocks_.size() && matches(index)) {
    return blocks_[index];
  }
  const size_t found = suffixes_.Find(suffix, blocks_.size(), matches);
  if (found == blocks_.size()) {
    blocks_.emplace_back(metric, suffix, type, row);
    suffixes_.Extend(blocks_.size(),
                     [this](size_t i) -> std::string_view { return blocks_[i].suffix; });
  }
  return blocks_[found];
}

}  // namespace METRICS
