#include "agent/remote_write_writer.h"

#include <algorithm>
#include <new>
#include <string>
#include <utility>

#include "agent/help_text.h"
#include "agent/series_key.h"

namespace tidegate::agent {

RemoteWriteWriter::RemoteWriteWriter(const SeriesTable::Options& options, SeriesTable::Clock clock)
    : clock_(std::move(clock)),
      order_(kHold, options.max_series * kHeldBytesPerSeries,
             [this](KeyedSeries* series, const KindRow& kind, const Series& record,
                    int64_t timestamp) { HandOn(series, kind, record, timestamp); }),
      // The table of the page reports the same collisions.
      table_(
          options, &table_health_, [](const std::string& /*collision*/) {}, clock_, this) {}

void RemoteWriteWriter::StartBlock(const Packet& packet, const ClientId& client,
                                   const Block& block) {
  table_.StartBlock(packet, client, block);
}

bool RemoteWriteWriter::Write(const Series& record, PointOutput* out) {
  out_ = out;
  work_ = 0;
  is_taken_ = false;
  try {
    if (table_.Take(record)) out->Drop(ForwardDrop::kSeries, 1);
  } catch (const std::bad_alloc&) {
    // What failed after it tells of the series, in the log.
    if (!is_taken_) throw;
  }
  return true;
}

void RemoteWriteWriter::HandOut(bool all, PointOutput* out) {
  out_ = out;
  now_ = clock_().steady;
  if (all) {
    order_.Release(std::chrono::steady_clock::time_point::max(), SIZE_MAX);
  } else {
    order_.Release(now_, kMaxHandedOut);
  }
  table_.Sweep();
}

PointWriter::Held RemoteWriteWriter::held() const {
  return {order_.held(), order_.bytes() + table_health_.series_bytes};
}

void RemoteWriteWriter::Take(KeyedSeries* series, const KindRow& kind, const Series& record,
                             int64_t timestamp, std::chrono::steady_clock::time_point now) {
  now_ = now;
  if (timestamp < -kMaxSampleSeconds) {
    out_->Drop(ForwardDrop::kEmpty, 1);
  } else {
    order_.Take(series, kind, record, timestamp, now);
  }
  is_taken_ = true;
}

// A record for which there is no memory is lost, but none that comes with it.
void RemoteWriteWriter::HandOn(KeyedSeries* series, const KindRow& kind, const Series& record,
                               int64_t timestamp) {
  SeriesEntry& entry = series->second;
  const size_t before = out_->bytes()->size();
  Counts counts;
  try {
    SortColumns(entry, kind, record, timestamp);
    entry.Keep(kind, record, timestamp);
    if (timestamp > entry.newest) entry.news = now_;
    entry.newest = std::max(entry.newest, timestamp);
    counts = Append(*series);
  } catch (const std::exception&) {
    out_->bytes()->resize(before);
    return out_->Drop(ForwardDrop::kMemory, 1);
  }
  work_ += out_->bytes()->size() - before;
  if (counts.late > 0) out_->Drop(ForwardDrop::kLate, counts.late);
  if (counts.late + counts.written == 0) out_->Drop(ForwardDrop::kSeries, 1);
  if (counts.written > 0) out_->End(counts.written);
}

void RemoteWriteWriter::SortColumns(const SeriesEntry& entry, const KindRow& kind,
                                    const Series& record, int64_t timestamp) {
  const std::vector<std::string>& columns = entry.layout->columns;
  const auto of = [timestamp](int64_t last) {
    return timestamp > last ? Column::kFresh : Column::kLate;
  };
  if (record.indexes.empty() && kind.adds_up) {
    columns_.assign(columns.size(), of(entry.newest));
    return;
  }
  columns_.assign(columns.size(), Column::kAbsent);
  for (size_t i = 0; i < record.values.size(); ++i) {
    const size_t column = record.indexes.empty() ? i : record.indexes[i];
    columns_[column] = of(entry.cells()[column].timestamp);
  }
}

RemoteWriteWriter::Counts RemoteWriteWriter::Append(const KeyedSeries& series) {
  const SeriesEntry& entry = series.second;
  SeriesLayout* const layout = entry.layout;
  if (now_ >= layout->describe_at) Describe(layout);
  Counts counts;
  bool has_labels = false;
  for (size_t i = 0; i < layout->parts.size(); ++i) {
    const FamilyPart& part = layout->parts[i];
    const Column column = columns_[part.column];
    if (layout->sources[i] == SeriesLayout::kHidden || column == Column::kAbsent) continue;
    if (column == Column::kFresh && !std::exchange(has_labels, true)) AddLabels(series.first);
    ForEachSample(part, layout->bounds, entry.cells(), [&](const FamilySample& sample) {
      if (column == Column::kFresh) samples_.AppendSample(part.name, sample, out_->bytes());
      ++(column == Column::kFresh ? counts.written : counts.late);
    });
  }
  return counts;
}

void RemoteWriteWriter::AddLabels(std::string_view key) {
  samples_.BeginLabels();
  SeriesKey::ForEachTag(key, [this](std::string_view tag, std::string_view value) {
    samples_.AddLabel(tag, value);
    return true;
  });
}

void RemoteWriteWriter::Describe(SeriesLayout* layout) {
  layout->describe_at = now_ + kMetadataPause;
  const SeriesMetric& metric = *layout->metric;
  for (size_t i = 0; i < layout->parts.size(); ++i) {
    if (layout->sources[i] == SeriesLayout::kHidden) continue;
    const FamilyPart& part = layout->parts[i];
    AppendFamilyMetadata(part, HelpOf(metric.kind, metric.name, layout->ColumnOf(part)),
                         out_->bytes());
  }
}

}  // namespace tidegate::agent
