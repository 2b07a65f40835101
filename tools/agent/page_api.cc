#include "agent/page_api.h"

#include <cstdint>
#include <string_view>

#include "agent/api_query.h"
#include "agent/json_writer.h"
#include "agent/metric_list.h"
#include "agent/series_list.h"

namespace tidegate::agent {
namespace {

constexpr const char* kJsonType = "application/json";

// Two answers that differ have the same one in one of 2^64 cases; nobody gains from making them so.
std::string EtagOf(std::string_view text) {
  return '"' + TextOf(SeriesId{text.size(), std::hash<std::string_view>{}(text)}) + '"';
}

void AppendMetrics(SeriesTable* table, const ApiQuery& query, std::string* out) {
  const MetricList list = FindMetrics(table, query);
  JsonWriter json(out);
  json.Open('{');
  json.Key("total").Unsigned(list.total);
  json.Key("metrics").Open('[');
  for (const MetricList::Row& row : list.rows) {
    if (!json.Item(kMaxAnswerBytes, [&] { AppendMetric(row, &json); })) break;
  }
  json.Close(']');
  json.Close('}');
}

void AppendError(const std::string& error, std::string* out) {
  JsonWriter json(out);
  json.Open('{');
  json.Key("error").Shown(error);
  json.Close('}');
}

}  // namespace

void PageApi::Answer(const HttpRequest& request, HttpAnswer* answer) const {
  answer->type = kJsonType;
  ApiQuery query;
  std::string error;
  if (!ParseApiQuery(request, &query, &error)) {
    answer->status = 400;
    AppendError(error, &answer->text);
    return;
  }
  if (request.path == "/api/status") {
    status_->Append(&answer->text);
  } else if (request.path == "/api/metrics") {
    AppendMetrics(table_, query, &answer->text);
  } else if (request.path == "/api/series") {
    AppendSeries(table_, query, &answer->text);
  } else {
    AppendPoints(table_, query, &answer->text);
  }
  answer->text += '\n';
  answer->etag = EtagOf(answer->text);
}

}  // namespace tidegate::agent
