// The form of suffixed metrics: each number that a cell reports is a block of its own, or, for
// cells that report a row of numbers, one block whose columns name them.

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "codec/fnv_hash.h"
#include "metrics/cell_kinds.h"
#include "metrics/impl/metric_multi_field_impl.h"
#include "metrics/metric_encoder.h"
#include "metrics/metric_parts.h"
#include "metrics/packet_sender.h"
#include "util/metric_log.h"
#include "util/short_text.h"

namespace METRICS {

using lattice_kit::codec::FieldInfo;
using lattice_kit::codec::StrFNVHash;

namespace {

using SuffixTable = std::vector<std::string>;

/// The names of a kind's numbers as strings. Never destroyed: a flush may still run while the
/// process exits.
SuffixTable& MakeNames(MetricsType type) {
  const CellKind& kind = KindOf(type);
  return *new SuffixTable(kind.names, kind.names + kind.numbers);
}

SuffixTable& TimerSuffixes() {
  static SuffixTable& table = MakeNames(MetricsType::kTimer);
  return table;
}

SuffixTable& MeterSuffixes() {
  static SuffixTable& table = MakeNames(MetricsType::kMeter);
  return table;
}

SuffixTable& DeltaCounterSuffixes() {
  static SuffixTable& table = MakeNames(MetricsType::kDeltaCounter);
  return table;
}

void AppendPart(std::string& tail, std::string_view part) {
  if (!part.empty()) {
    tail += '.';
    tail += part;
  }
}

/// Appends a number to bytes that there is room for.
template <class T>
void Append(char*& to, T number) {
  static_assert(std::is_arithmetic_v<T>);
  std::memcpy(to, &number, sizeof(number));
  to += sizeof(number);
}

void AppendBytes(char*& to, std::string_view bytes) {
  std::memcpy(to, bytes.data(), bytes.size());
  to += bytes.size();
}

}  // namespace

std::string& MetricEncoder::ConvertIdxToTimerSuffix(const unsigned long& idx) {
  return TimerSuffixes()[idx];
}

std::string& MetricEncoder::ConvertIdxToMeterSuffix(const unsigned long& idx) {
  return MeterSuffixes()[idx];
}

std::string& MetricEncoder::ConvertIdxToDeltaCounter(const unsigned long& idx) {
  return DeltaCounterSuffixes()[idx];
}

void MetricEncoder::PrepareSuffixTables() {
  TimerSuffixes();
  MeterSuffixes();
  DeltaCounterSuffixes();
}

void MetricEncoder::PackSuffixedMetric(std::vector<Series>& items) {
  for (size_t begin = 0, end = 0; begin < items.size(); begin = end) {
    end = ListFrom(items, begin);
    for (size_t k = begin; k < end; ++k) {
      ListedSeries& listed = listed_[k - begin];
      if (listed.active) {
        PackListedSeries(items[k], listed);
      }
      items[k].second.reset();
      if (listed.cells.capacity() > kCellsKept) {
        std::vector<CellRef>().swap(listed.cells);
      }
    }
  }
}

size_t MetricEncoder::ListFrom(const std::vector<Series>& items, size_t begin) {
  constexpr size_t kCellsAhead = 64;  // more would push each other out of the cache
  const size_t last = std::min(begin + kSeriesAhead, items.size());
  size_t cells = 0;
  size_t k = begin;
  for (; k < last && cells < kCellsAhead; ++k) {
    FetchAhead(items, k);
    MetricCollectorItem& item = *items[k].second;
    ListedSeries& listed = listed_[k - begin];
    listed.active = item.active_.load(std::memory_order_relaxed);
    if (listed.active) {
      item.ListCells(listed.cells);
      cells += listed.cells.size();
    }
  }
  return k;
}

void MetricEncoder::PackListedSeries(const Series& series, const ListedSeries& listed) {
  BeginSeries(series);
  if (series.first.size() != metric_->impl_parts_->tag_index_.size() &&
      EncodeCurrentTagKV().empty()) {
    cur_tag_kv_ = "";  // reported: its records go out without tags
  }
  for (size_t i = 0; i < listed.cells.size(); ++i) {
    DrainAndWrite([&] { EncodeMetricWithSuffix(listed.cells[i], i); });
    if (CheckMsgLenAndSend(pack_, false)) {
      RePackFromRegistry(pack_);
    }
  }
}

void MetricEncoder::EncodeMetricWithSuffix(const CellRef& ref, size_t place) {
  if (!IsCellType(ref.type)) {
    METRICS_LOG_ERROR("Sender[%s]Internal Error for Unknown MetricType: %d\n", name_.c_str(),
                      static_cast<int>(ref.type));
    return;
  }
  const SendRes res = ref.cell->Send(static_cast<unsigned int>(interval_));
  if (res.values.empty()) {
    return;
  }
  const SuffixBlocks& blocks = BlocksOf(ref.name, ref.type, IsRow(ref.type), place);
  if (!CheckSendRes(ref.type, res.values, blocks.numbers)) {
    return;
  }
  PackNumbers(pack_, blocks, res.values.data(), sender_->last_flush_ts_);
  if (res.need_prev && KindOf(ref.type).previous != 0) {
    METRICS_LOG_DEBUG("Pack a prev interval value for counter/meter/deltacounter.\n");
    EncodePreviousInterval(res.prev_value, blocks);
  }
}

bool MetricEncoder::IsRow(const MetricsType& type) const {
  const SuffixForm form = KindOf(type).suffix_form;
  return form == SuffixForm::kRow ||
         (form == SuffixForm::kRowIfAskedFor && metric_->multi_field_summary_.load());
}

const MetricEncoder::SuffixBlocks& MetricEncoder::BlocksOf(const std::string& suffix,
                                                           MetricsType type, bool row,
                                                           size_t place) {
  const auto matches = [&](const SuffixBlocks& blocks) {
    return blocks.type == type && blocks.row == row && SameText(blocks.suffix, suffix);
  };
  if (place < blocks_.size() && matches(blocks_[place])) {
    return blocks_[place];
  }
  for (size_t i = 0; i < std::min(blocks_.size(), kSearchedBlocks); ++i) {
    if (matches(blocks_[i])) {
      return blocks_[i];
    }
  }
  if (blocks_.size() > kSearchedBlocks) {
    const auto [first, last] = more_blocks_.equal_range(suffix);
    for (auto known = first; known != last; ++known) {
      if (matches(blocks_[known->second])) {
        return blocks_[known->second];
      }
    }
  }
  blocks_.push_back(MakeBlocks(suffix, type, row));
  if (blocks_.size() > kSearchedBlocks) {
    more_blocks_.emplace(suffix, blocks_.size() - 1);
  }
  return blocks_.back();
}

MetricEncoder::SuffixBlocks MetricEncoder::MakeBlocks(const std::string& suffix, MetricsType type,
                                                      bool row) const {
  SuffixBlocks blocks{suffix, type, row, 0, {}};
  std::string tail;
  AppendPart(tail, suffix);
  if (row) {
    const std::vector<FieldInfo> fields = RowFieldsOf(type);
    blocks.numbers = fields.size();
    blocks.headers.push_back(BlockHeader(type, tail, PrePack(fields)));
    return blocks;
  }
  // A summary in single numbers is a set of gauges to the receiver.
  const MetricsType wire_type = type == MetricsType::kTimer ? MetricsType::kGauge : type;
  const CellKind& kind = KindOf(type);
  blocks.numbers = kind.numbers;
  for (size_t i = 0; i < blocks.numbers; ++i) {
    std::string whole_tail = tail;
    AppendPart(whole_tail, kind.names[i]);
    blocks.headers.push_back(BlockHeader(wire_type, whole_tail, std::string()));
  }
  return blocks;
}

std::string MetricEncoder::BlockHeader(MetricsType type, const std::string& tail,
                                       const std::string& fields) const {
  EPacket scratch(kTagScratchBytes);
  PutMetricHeader(scratch, type, StrFNVHash(tail, metric_->name_hash_), metric_->name_ + tail,
                  fields, 0);
  return scratch.Bytes();
}

std::vector<FieldInfo> MetricEncoder::RowFieldsOf(const MetricsType& type) const {
  std::vector<FieldInfo> fields;
  MultiFieldMetricImpl::AppendColumns(fields, {std::string(), type, metric_->GetHistogram()});
  return fields;
}

void MetricEncoder::PackNumbers(MetricDataPack& pack, const SuffixBlocks& blocks,
                                const double* values, long timestamp) {
  if (blocks.row) {
    DoPackSuffixToMultiField(pack, blocks, values, timestamp);
  } else {
    DoPackSuffixMetric(pack, blocks, values, timestamp);
  }
}

void MetricEncoder::DoPackSuffixMetric(MetricDataPack& pack, const SuffixBlocks& blocks,
                                       const double* values, long timestamp) {
  for (size_t i = 0; i < blocks.numbers; ++i) {
    EncodeOneSeriesMetric(pack, blocks.headers[i], values + i, 1, timestamp);
  }
}

void MetricEncoder::DoPackSuffixToMultiField(MetricDataPack& pack, const SuffixBlocks& blocks,
                                             const double* values, long timestamp) {
  EncodeOneSeriesMetric(pack, blocks.headers.front(), values, blocks.numbers, timestamp);
}

// As a block that is opened, given one series record and closed, but at one go: nearly all of a
// flush is this.
void MetricEncoder::EncodeOneSeriesMetric(MetricDataPack& pack, const std::string& header,
                                          const double* values, size_t count, long timestamp) {
  constexpr size_t kBytesAheadOfTime = 13;  // length, number of series, type, hash
  constexpr size_t kValueRecordBytes = sizeof(uint32_t) + sizeof(double);
  const std::string_view tags = EncodeCurrentTagKV();
  const size_t bytes =
      header.size() + tags.size() + 2 * sizeof(uint32_t) + count * kValueRecordBytes;
  if (!MakeRoom(pack, bytes)) {
    return;
  }
  const auto start = static_cast<uint32_t>(pack.Used());
  AppendBytes(pack.cursor, header);
  pack.Patch(start, static_cast<uint32_t>(bytes));
  pack.Patch(start + sizeof(uint32_t), uint32_t{1});
  pack.Patch(start + kBytesAheadOfTime, static_cast<int64_t>(timestamp));
  AppendBytes(pack.cursor, tags);
  Append(pack.cursor, uint32_t{0});  // no column indexes
  Append(pack.cursor, static_cast<uint32_t>(count));
  for (size_t i = 0; i < count; ++i) {
    Append(pack.cursor, static_cast<uint32_t>(sizeof(double)));
    Append(pack.cursor, values[i]);
  }
  ++pack.series_count;
  ++pack.block_count;
}

void MetricEncoder::EncodePreviousInterval(double prev_value, const SuffixBlocks& blocks) {
  const std::array<double, kMetricDeltaCounterArrSize> row{prev_value};  // the others are 0
  if (prev_pack_.series_count == 0) {
    RePackFromRegistry(prev_pack_);
  }
  PackNumbers(prev_pack_, blocks, row.data(), sender_->last_flush_ts_ - interval_);
  CheckMsgLenAndSend(prev_pack_, false);
}

}  // namespace METRICS
