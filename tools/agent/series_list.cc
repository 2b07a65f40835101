#include "agent/series_list.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <limits>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "agent/json_writer.h"
#include "agent/metric_list.h"
#include "agent/series_key.h"
#include "agent/series_reading.h"
#include "agent/status_report.h"

namespace tidegate::agent {
namespace {

using Reading = SeriesTable::Reading;

// Values of all points of an answer, with their times: none of them has more than 25 bytes, so what
// the series are called has to be long for an answer to lack one.
constexpr size_t kMaxValues = 300000;

struct Found {
  const SeriesMetric* metric;
  const KeyedSeries* series;
};

using Wants = std::function<bool(const SeriesMetric&)>;
using Handle = std::function<void(const SeriesMetric&, const KeyedSeries&)>;

// All series of the metrics that `wants`, one after another.
void ForEachSeries(Reading* reading, const Wants& wants, const Handle& handle) {
  std::vector<Reading::Counted> layouts;
  std::vector<const KeyedSeries*> series;
  Reading::Position next_layout = 0;
  while (reading->Next(&next_layout, &layouts)) {
    for (const auto& [layout, count] : layouts) {
      if (count == 0 || !wants(*layout->metric)) continue;
      Reading::Position next = 0;
      while (reading->Next(*layout, &next, &series)) {
        for (const KeyedSeries* keyed : series) handle(*layout->metric, *keyed);
      }
    }
  }
}

// What a search looks at after the name.
void AppendTags(const KeyedSeries& series, std::string* text) {
  SeriesKey::ForEachTag(series.first, [text](std::string_view key, std::string_view value) {
    ((((*text += ' ') += key) += '=') += value);
    return true;
  });
}

std::vector<Found> Search(Reading* reading, const ApiQuery& query) {
  std::vector<Found> found;
  const SeriesMetric* metric = nullptr;
  std::string text;
  size_t name_size = 0;
  const auto wants = [&](const SeriesMetric& next) {
    metric = &next;
    text = ShownName(next.name);
    name_size = text.size();
    return query.metric.empty() || query.metric == text;
  };
  ForEachSeries(reading, wants, [&](const SeriesMetric&, const KeyedSeries& series) {
    if (!query.words.empty()) {
      text.resize(name_size);
      AppendTags(series, &text);
      if (!HasWords(text, query.words)) return;
    }
    found.push_back({metric, &series});
  });
  return found;
}

int64_t Milliseconds(int64_t seconds) {
  constexpr int64_t kMost = std::numeric_limits<int64_t>::max() / 1000;
  return std::clamp(seconds, -kMost, kMost) * 1000;
}

// What a series is, without its values.
void AppendHead(const SeriesMetric& metric, const KeyedSeries& series,
                const Reading::Values& values, JsonWriter* json) {
  json->Key("id").Text(TextOf({metric.id, values.id}));
  json->Key("name").Text(metric.name);
  json->Key("kind").Text(RowOf(metric.kind).wire_name);
  json->Key("labels").Open('{');
  SeriesKey::ForEachTag(series.first, [json](std::string_view key, std::string_view value) {
    json->Key(key).Shown(value);
    return true;
  });
  json->Close('}');
  json->Key("columns").Open('[');
  for (const std::string& column : values.layout->columns) {
    json->Text(column.empty() ? "value" : column);
  }
  json->Close(']');
}

double ValueOf(const Cell& cell) {
  return cell.timestamp == INT64_MIN ? std::numeric_limits<double>::quiet_NaN() : cell.value;
}

void AppendPoint(int64_t seconds, const double* values, size_t columns, JsonWriter* json) {
  json->Open('[');
  json->Integer(Milliseconds(seconds));
  for (size_t i = 0; i < columns; ++i) json->Number(values[i]);
  json->Close(']');
}

// Those of one series; takes what it has off `left`.
void AppendHistory(Reading* reading, const KeyedSeries& series, const Reading::Values& values,
                   int64_t since, size_t most, JsonWriter* json) {
  const size_t columns = values.layout->columns.size();
  Reading::Points points;
  reading->ReadPoints(series, since, most, &points);
  // Columns may have changed since the values were read.
  if (points.values.size() != points.times.size() * columns) points = {};
  json->Key("points").Open('[');
  for (size_t i = 0; i < points.times.size(); ++i) {
    AppendPoint(points.times[i], &points.values[i * columns], columns, json);
  }
  if (points.times.empty() && values.newest >= since && values.newest != INT64_MIN) {
    std::vector<double> newest;
    for (const Cell& cell : values.cells) newest.push_back(ValueOf(cell));
    AppendPoint(values.newest, newest.data(), columns, json);
  }
  json->Close(']');
}

// The series with these ids, in their order; null for one that is not there.
std::vector<Found> FindIds(Reading* reading, const std::vector<SeriesId>& ids) {
  std::vector<Found> found(ids.size(), Found{nullptr, nullptr});
  const auto wants = [&](const SeriesMetric& metric) {
    return std::any_of(ids.begin(), ids.end(),
                       [&](const SeriesId& id) { return id.metric == metric.id; });
  };
  ForEachSeries(reading, wants, [&](const SeriesMetric& metric, const KeyedSeries& series) {
    const auto id = std::find(ids.begin(), ids.end(), SeriesId{metric.id, series.second.id});
    if (id != ids.end()) found[static_cast<size_t>(id - ids.begin())] = {&metric, &series};
  });
  return found;
}

}  // namespace

void AppendSeries(SeriesTable* table, const ApiQuery& query, std::string* out) {
  JsonWriter json(out);
  table->Read([&](Reading* reading) {
    std::vector<Found> found = Search(reading, query);
    const size_t begin = std::min(query.offset, found.size());
    const size_t end = std::min(begin + query.limit, found.size());
    std::partial_sort(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(end), found.end(),
                      [](const Found& a, const Found& b) {
                        return std::tie(a.metric->name, a.metric->kind, a.series->first) <
                               std::tie(b.metric->name, b.metric->kind, b.series->first);
                      });
    json.Open('{');
    json.Key("total").Unsigned(found.size());
    json.Key("series").Open('[');
    Reading::Values values;
    for (size_t i = begin; i < end; ++i) {
      const SeriesMetric& metric = *found[i].metric;
      const KeyedSeries& series = *found[i].series;
      reading->Read(series, &values);
      const auto age = std::chrono::duration_cast<std::chrono::milliseconds>(
          std::chrono::steady_clock::now() - values.news);
      if (!json.Item(kMaxAnswerBytes, [&] {
            json.Open('{');
            AppendHead(metric, series, values, &json);
            json.Key("values").Open('[');
            for (const Cell& cell : values.cells) json.Number(ValueOf(cell));
            json.Close(']');
            json.Key("time_ms").Integer(Milliseconds(values.newest));
            json.Key("age_ms").Integer(std::max<int64_t>(age.count(), 0));
            json.Close('}');
          })) {
        break;
      }
    }
    json.Close(']');
    json.Close('}');
  });
}

void AppendPoints(SeriesTable* table, const ApiQuery& query, std::string* out) {
  JsonWriter json(out);
  // A time within a second is after it.
  const int64_t since = query.since_ms == INT64_MIN
                            ? INT64_MIN
                            : query.since_ms / 1000 + (query.since_ms % 1000 > 0 ? 1 : 0);
  table->Read([&](Reading* reading) {
    json.Open('{');
    json.Key("now_ms").Integer(NowMilliseconds());
    json.Key("series").Open('[');
    Reading::Values values;
    for (const Found& found : FindIds(reading, query.ids)) {
      if (found.series == nullptr) continue;
      const SeriesMetric& metric = *found.metric;
      const KeyedSeries& series = *found.series;
      reading->Read(series, &values);
      const size_t most = kMaxValues / query.ids.size() / (values.cells.size() + 1) + 1;
      if (!json.Item(kMaxAnswerBytes, [&] {
            json.Open('{');
            AppendHead(metric, series, values, &json);
            AppendHistory(reading, series, values, since, most, &json);
            json.Close('}');
          })) {
        break;
      }
    }
    json.Close(']');
    json.Close('}');
  });
}

}  // namespace tidegate::agent
