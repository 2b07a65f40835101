#include "agent/series_page.h"

#include <cstdint>
#include <string_view>
#include <vector>

#include "agent/help_text.h"
#include "agent/series_key.h"

namespace tidegate::agent {
namespace {

// Of a turn.
constexpr size_t kTurnSeries = 2000;
constexpr size_t kTurnBytes = 1 << 20;

}  // namespace

SeriesPage::SeriesPage(const Families* families, std::chrono::seconds ttl, bool timestamps,
                       std::string* page)
    : families_(families),
      ttl_(ttl),
      page_(page),
      writer_(timestamps, page),
      family_(families->begin()) {}

bool SeriesPage::AppendTurn(TimePoint now) {
  size_t left = kTurnSeries;
  const size_t end = page_->size() + kTurnBytes;
  for (; family_ != families_->end(); ++family_, source_ = 0) {
    const std::vector<FamilySource>& sources = family_->second;
    if (source_ == 0 && series_ == 0) head_ = false;
    for (; source_ < sources.size(); ++source_, series_ = 0) {
      const FamilySource& source = sources[source_];
      const std::vector<KeyedSeries*>& series = source.layout->series;
      for (; series_ < series.size(); ++series_) {
        if (left-- == 0 || page_->size() > end) return true;
        AppendSeries(source, *series[series_], now);
      }
    }
  }
  return false;
}

bool SeriesPage::IsSilent(const SeriesEntry& entry, const Cell& cell, TimePoint now) const {
  if (entry.IsOutdated(now, ttl_) || cell.timestamp == INT64_MIN) return true;
  const auto since = static_cast<uint64_t>(entry.newest) - static_cast<uint64_t>(cell.timestamp);
  return since > static_cast<uint64_t>(ttl_.count());
}

void SeriesPage::AppendSeries(const FamilySource& source, const KeyedSeries& keyed, TimePoint now) {
  const SeriesEntry& entry = keyed.second;
  const SeriesLayout& layout = *source.layout;
  const FamilyPart& part = layout.parts[source.part];
  const Cell& cell = entry.cells()[part.column];
  if (IsSilent(entry, cell, now)) return;
  if (!head_) {
    const SeriesMetric& metric = *layout.metric;
    AppendFamilyHead(part, HelpOf(metric.kind, metric.name, layout.ColumnOf(part)), page_);
  }
  head_ = true;
  writer_.BeginLabels();
  SeriesKey::ForEachTag(keyed.first, [this](std::string_view key, std::string_view value) {
    writer_.AddLabel(key, value);
    return true;
  });
  writer_.Samples(part, layout.bounds, entry.cells());
}

}  // namespace tidegate::agent
