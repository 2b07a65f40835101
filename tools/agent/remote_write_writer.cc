#include "agent/remote_write_writer.h"

#include <string>
#include <utility>

#include "agent/help_text.h"
#include "agent/series_key.h"

namespace tidegate::agent {

RemoteWriteWriter::RemoteWriteWriter(const SeriesTable::Options& options, SeriesTable::Clock clock)
    : OrderedWriter(options, {kHold, options.max_series * kHeldBytesPerSeries}, std::move(clock)) {}

// A record for which there is no memory is lost, but none that comes with it.
size_t RemoteWriteWriter::HandOn(KeyedSeries* series, const KindRow& kind, const Series& record,
                                 int64_t timestamp) {
  SeriesEntry& entry = series->second;
  const size_t before = out()->bytes()->size();
  Counts counts;
  try {
    SortColumns(entry, kind, record, timestamp);
    Keep(kind, record, timestamp, &entry);
    counts = Append(*series);
  } catch (const std::exception&) {
    out()->bytes()->resize(before);
    out()->Drop(ForwardDrop::kMemory, 1);
    return 0;
  }
  const size_t written = out()->bytes()->size() - before;
  if (counts.late > 0) out()->Drop(ForwardDrop::kLate, counts.late);
  if (counts.late + counts.written == 0) out()->Drop(ForwardDrop::kSeries, 1);
  if (counts.written > 0) out()->End(counts.written);
  return written;
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
  if (now() >= layout->describe_at) Describe(layout);
  Counts counts;
  bool has_labels = false;
  for (size_t i = 0; i < layout->parts.size(); ++i) {
    const FamilyPart& part = layout->parts[i];
    const Column column = columns_[part.column];
    if (layout->sources[i] == SeriesLayout::kHidden || column == Column::kAbsent) continue;
    if (column == Column::kFresh && !std::exchange(has_labels, true)) AddLabels(series.first);
    ForEachSample(part, layout->bounds, entry.cells(), [&](const FamilySample& sample) {
      if (column == Column::kFresh) samples_.AppendSample(part.name, sample, out()->bytes());
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
  layout->describe_at = now() + kMetadataPause;
  const SeriesMetric& metric = *layout->metric;
  for (size_t i = 0; i < layout->parts.size(); ++i) {
    if (layout->sources[i] == SeriesLayout::kHidden) continue;
    const FamilyPart& part = layout->parts[i];
    AppendFamilyMetadata(part, HelpOf(metric.kind, metric.name, layout->ColumnOf(part)),
                         out()->bytes());
  }
}

}  // namespace tidegate::agent
