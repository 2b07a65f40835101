#include "agent/metric_list.h"

#include <algorithm>
#include <functional>
#include <string_view>
#include <tuple>

#include "agent/exposition.h"
#include "agent/series_key.h"
#include "agent/series_reading.h"

namespace tidegate::agent {
namespace {

using Reading = SeriesTable::Reading;

struct Counted {
  const SeriesMetric* metric;
  const SeriesLayout* layout;  // one of its layouts
  size_t series;
};

// Each metric that `wants`, once.
std::vector<Counted> MetricsOf(Reading* reading,
                               const std::function<bool(const SeriesMetric&)>& wants) {
  std::vector<Counted> found;
  std::vector<Reading::Counted> layouts;
  Reading::Position position = 0;
  while (reading->Next(&position, &layouts)) {
    for (const auto& [layout, series] : layouts) {
      if (series > 0 && wants(*layout->metric)) found.push_back({layout->metric, layout, series});
    }
  }
  std::sort(found.begin(), found.end(),
            [](const Counted& a, const Counted& b) { return std::less<>()(a.metric, b.metric); });
  size_t size = 0;
  for (const Counted& counted : found) {
    if (size > 0 && found[size - 1].metric == counted.metric) {
      found[size - 1].series += counted.series;
    } else {
      found[size++] = counted;
    }
  }
  found.resize(size);
  return found;
}

std::string_view TenantOf(const KeyedSeries& series) {
  std::string_view tenant;
  SeriesKey::ForEachTag(series.first, [&](std::string_view /*key*/, std::string_view value) {
    tenant = value;  // always the first one
    return false;
  });
  return tenant;
}

MetricList::Row RowOf(Reading* reading, const Counted& counted) {
  MetricList::Row row{ShownName(counted.metric->name), RowOf(counted.metric->kind).wire_name, "",
                      counted.series};
  std::vector<const KeyedSeries*> series;
  Reading::Position position = 0;
  if (!reading->Next(*counted.layout, &position, &series)) return row;
  const std::string_view tenant = TenantOf(*series.front());
  const bool same = std::all_of(series.begin(), series.end(), [&](const KeyedSeries* other) {
    return TenantOf(*other) == tenant;
  });
  if (same) row.tenant = tenant;
  return row;
}

// Some of them, if their names are very long.
std::vector<MetricList::Row> RowsOf(Reading* reading, const std::vector<Counted>& metrics) {
  constexpr size_t kMostBytes = 4 << 20;
  std::vector<MetricList::Row> rows;
  size_t bytes = 0;
  for (const Counted& counted : metrics) {
    rows.push_back(RowOf(reading, counted));
    bytes += rows.back().name.size() + rows.back().tenant.size();
    if (bytes > kMostBytes) break;
  }
  return rows;
}

}  // namespace

MetricList FindMetrics(SeriesTable* table, const ApiQuery& query) {
  MetricList list;
  table->Read([&](Reading* reading) {
    std::vector<Counted> found = MetricsOf(reading, [&](const SeriesMetric& metric) {
      return HasWords(ShownName(metric.name), query.words);
    });
    list.total = found.size();
    const size_t begin = std::min(query.offset, found.size());
    const size_t end = std::min(begin + query.limit, found.size());
    std::partial_sort(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(end), found.end(),
                      [](const Counted& a, const Counted& b) {
                        return std::tie(a.metric->name, a.metric->kind) <
                               std::tie(b.metric->name, b.metric->kind);
                      });
    found.erase(found.begin() + static_cast<std::ptrdiff_t>(end), found.end());
    found.erase(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(begin));
    list.rows = RowsOf(reading, found);
  });
  return list;
}

std::vector<MetricList::Row> TopMetrics(SeriesTable* table, size_t most) {
  std::vector<MetricList::Row> rows;
  table->Read([&](Reading* reading) {
    std::vector<Counted> found =
        MetricsOf(reading, [](const SeriesMetric& /*metric*/) { return true; });
    most = std::min(most, found.size());
    std::partial_sort(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(most), found.end(),
                      [](const Counted& a, const Counted& b) {
                        return std::tie(b.series, a.metric->name) <
                               std::tie(a.series, b.metric->name);
                      });
    found.resize(most);
    rows = RowsOf(reading, found);
  });
  return rows;
}

void AppendMetric(const MetricList::Row& row, JsonWriter* json) {
  json->Open('{');
  json->Key("name").Shown(row.name);
  json->Key("kind").Text(row.kind);
  json->Key("series").Unsigned(row.series);
  json->Key("tenant").Shown(row.tenant);
  json->Close('}');
}

std::string ShownName(const std::string& name) {
  std::string shown;
  AppendText(name, &shown);
  return shown;
}

bool HasWords(std::string_view text, const std::vector<std::string>& words) {
  return std::all_of(words.begin(), words.end(), [&](const std::string& word) {
    return std::search(text.begin(), text.end(), word.begin(), word.end(),
                       [](char a, char b) { return LowerCase(a) == b; }) != text.end();
  });
}

}  // namespace tidegate::agent
