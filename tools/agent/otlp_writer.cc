#include "agent/otlp_writer.h"

#include <protozero/pbf_writer.hpp>
#include <protozero/varint.hpp>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

#include "agent/ends_with.h"
#include "agent/exposition.h"
#include "agent/point_mapping.h"
#include "agent/series_key.h"
#include "agent/sized_text.h"

namespace tidegate::agent {
namespace {

using protozero::pbf_writer;

constexpr int64_t kNanosPerSecond = 1000000000;
constexpr int64_t kLastSecond = std::numeric_limits<int64_t>::max() / kNanosPerSecond;

// Of a number's point beside its attributes, and of its metric beside the name.
constexpr size_t kNumberBytes = 64;
constexpr size_t kColumnBytes = 24;  // of histograms and summaries

// Where the owner says nothing, as OpenTelemetry wants it.
constexpr std::string_view kNoService = "unknown_service";
constexpr std::string_view kAgent = "tidegate-agent";

constexpr double kQuantiles[] = {0.5, 0.9, 0.95, 0.99, 0.999};
static_assert(std::size(kQuantiles) + kTimerFirstQuantile == std::size(kTimerColumns));

// Of a field that takes so many.
size_t FieldBytes(size_t size) {
  return 1 + static_cast<size_t>(protozero::length_of_varint(size)) + size;
}

void AppendName(std::string_view name, std::string* out) {
  if (name.empty()) {
    *out += "\\x";
  } else {
    AppendText(name, out);
  }
}

void AddText(pbf_writer* message, otlp::FieldNumber field, std::string_view text) {
  message->add_string(field, text.data(), text.size());
}

// A count that a packet claims, which can be any number.
uint64_t WholeCount(double count) {
  constexpr double kMost = 9007199254740992;  // up to which doubles count exactly
  return count > 0 ? static_cast<uint64_t>(std::min(count, kMost)) : 0;
}

}  // namespace

OtlpWriter::OtlpWriter(OtlpAttributes attributes, std::string_view host)
    : attributes_(std::move(attributes)) {
  AppendText(host, &host_);
  for (auto& [key, value] : attributes_) {
    AppendText(std::exchange(value, {}), &value);
  }
  pbf_writer scope_metrics(scope_);
  pbf_writer scope(scope_metrics, otlp::scope_metrics::kScope);
  AddText(&scope, otlp::scope::kName, kAgent);
  AddText(&scope, otlp::scope::kVersion, TIDEGATE_VERSION);
}

bool OtlpWriter::Append(const KeyedSeries& series, const Series& record, int64_t timestamp) {
  tried_bytes_ = 0;
  if (timestamp <= 0 || timestamp > kLastSecond) return false;
  StartPoint(series, timestamp);
  const SeriesLayout& layout = *series.second.layout;
  const std::string& name = layout.metric->name;
  const size_t values = record.values.size();
  // Each column of a row is a metric, with a name and all attributes.
  const size_t metrics = layout.metric->kind == Kind::kRow ? values : 2;
  tried_bytes_ = metrics * (tags_.size() + name.size() + kNumberBytes) + values * kColumnBytes;
  if (tried_bytes_ > kMaxPointBytes) return false;
  const Cell* const cells = series.second.cells();
  switch (layout.metric->kind) {
    case Kind::kGauge:
    case Kind::kRate:
      StartMetric(Form::kGauge, name);
      return AppendNumber(Form::kGauge, record.values[0]);
    case Kind::kCounter:
      StartMetric(Form::kTotal, name);
      return AppendNumber(Form::kTotal, record.values[0]);
    case Kind::kMeter: {
      const Form form = EndsWith(name, kMeterRatePart) ? Form::kGauge : Form::kTotal;
      StartMetric(form, name);
      return AppendNumber(form, record.values[0]);
    }
    case Kind::kTimerRow:
      StartMetric(Form::kSummary, name);
      AppendSummary(cells);
      return true;
    case Kind::kHistogram:
      StartMetric(Form::kHistogram, name);
      AppendHistogram(layout.bounds, cells);
      return true;
    case Kind::kRow:
      return AppendColumns(layout, record);
    case Kind::kDeltaCounter: {
      StartMetric(Form::kTotal, name);
      const bool total = AppendNumber(Form::kTotal, record.values[kDeltaCounterColumn]);
      StartMetric(Form::kGauge, name, kMeterRatePart);
      return AppendNumber(Form::kGauge, record.values[kDeltaRateColumn]) || total;
    }
  }
  return false;
}

void OtlpWriter::StartPoint(const KeyedSeries& series, int64_t timestamp) {
  const bool histogram = series.second.layout->metric->kind == Kind::kHistogram;
  const otlp::FieldNumber field =
      histogram ? otlp::point::kHistogramAttributes : otlp::point::kAttributes;
  const std::string_view all = series.first;
  size_t owner_bytes = 0;
  bool is_owner = true;
  tags_.clear();
  SeriesKey::ForEachTag(all, [&](std::string_view key, std::string_view value) {
    is_owner = is_owner && IsOwnerKey(key);
    if (is_owner) {
      owner_bytes += SizedBytes(key) + SizedBytes(value);
    } else {
      AppendAttribute(field, key, value, &tags_);
    }
    return true;
  });
  time_ns_ = timestamp * kNanosPerSecond;
  start_ns_ = std::max<int64_t>(series.second.start, 0) * kNanosPerSecond;
  const std::string_view owner = all.substr(0, owner_bytes);
  if (owner == owner_) return;
  EndResource();
  owner_ = owner;
}

void OtlpWriter::StartMetric(Form form, std::string_view name, std::string_view part) {
  const std::string_view current = name_;
  if (!points_.empty() && form == form_ && current.size() == name.size() + part.size() &&
      current.substr(0, name.size()) == name && current.substr(name.size()) == part) {
    return;
  }
  EndMetric();
  form_ = form;
  name_.assign(name).append(part);
}

void OtlpWriter::EndMetric() {
  if (points_.empty()) return;
  constexpr otlp::FieldNumber kFields[] = {otlp::metric::kGauge, otlp::metric::kSum,
                                           otlp::metric::kHistogram, otlp::metric::kSummary};
  shown_.clear();
  AppendName(name_, &shown_);
  std::string rest;  // short enough to need no memory of its own
  pbf_writer data(rest);
  if (form_ == Form::kTotal || form_ == Form::kHistogram) {
    data.add_enum(otlp::data::kTemporality, otlp::data::kCumulative);
  }
  if (form_ == Form::kTotal) data.add_bool(otlp::data::kIsMonotonic, true);
  pbf_writer metrics(metrics_);
  pbf_writer metric(metrics, otlp::scope_metrics::kMetrics);
  AddText(&metric, otlp::metric::kName, shown_);
  metric.add_bytes_vectored(kFields[static_cast<size_t>(form_)], points_, rest);
  points_.clear();
}

void OtlpWriter::EndResource() {
  EndMetric();
  if (metrics_.empty()) return;
  point_.clear();
  AppendOwner(&point_);
  pbf_writer request(out_);
  pbf_writer resource_metrics(request, otlp::request::kResourceMetrics);
  resource_metrics.add_message(otlp::resource_metrics::kResource, point_);
  resource_metrics.add_bytes_vectored(otlp::resource_metrics::kScopeMetrics, scope_, metrics_);
  metrics_.clear();
}

void OtlpWriter::AppendOwner(std::string* resource) {
  std::string_view service = is_agent_ ? kAgent : kNoService;
  for (std::string_view rest = owner_; !rest.empty();) {
    const std::string_view key = TakeSized(&rest);
    const std::string_view value = TakeSized(&rest);
    if (key == kTenantKey && !value.empty()) service = value;
    AppendAttribute(otlp::resource::kAttributes, key, value, resource);
  }
  const std::pair<std::string_view, std::string_view> defaults[] = {
      {"service.name", service}, {"service.instance.id", host_}, {"host.name", host_}};
  for (const auto& [key, value] : defaults) {
    const bool given = std::any_of(attributes_.begin(), attributes_.end(),
                                   [&, k = key](const auto& a) { return a.first == k; });
    if (!given) AppendAttribute(otlp::resource::kAttributes, key, value, resource);
  }
  for (const auto& [key, value] : attributes_) {
    AppendAttribute(otlp::resource::kAttributes, key, value, resource);
  }
}

void OtlpWriter::AppendAttribute(otlp::FieldNumber field, std::string_view key,
                                 std::string_view value, std::string* out) {
  shown_.clear();
  AppendName(key, &shown_);
  const size_t any_bytes = FieldBytes(value.size());
  pbf_writer message(*out);
  pbf_writer attribute(message, field, FieldBytes(shown_.size()) + FieldBytes(any_bytes));
  AddText(&attribute, otlp::key_value::kKey, shown_);
  pbf_writer any(attribute, otlp::key_value::kValue, any_bytes);
  AddText(&any, otlp::any_value::kString, value);
}

void OtlpWriter::AppendTimes(Form form) {
  point_.clear();
  pbf_writer point(point_);
  if (form != Form::kGauge) {
    point.add_fixed64(otlp::point::kStart, static_cast<uint64_t>(start_ns_));
  }
  point.add_fixed64(otlp::point::kTime, static_cast<uint64_t>(time_ns_));
}

void OtlpWriter::EndPoint() {
  pbf_writer(points_).add_bytes_vectored(otlp::data::kPoints, point_, tags_);
}

bool OtlpWriter::AppendNumber(Form form, double value) {
  if (!std::isfinite(value)) return false;
  AppendTimes(form);
  pbf_writer(point_).add_double(otlp::point::kDouble, value);
  EndPoint();
  return true;
}

bool OtlpWriter::AppendColumns(const SeriesLayout& layout, const Series& record) {
  bool any = false;
  for (size_t i = 0; i < record.values.size(); ++i) {
    if (!std::isfinite(record.values[i])) continue;
    const size_t column = record.indexes.empty() ? i : record.indexes[i];
    part_.assign(1, '.').append(layout.columns[column]);
    StartMetric(Form::kGauge, layout.metric->name, part_);
    any |= AppendNumber(Form::kGauge, record.values[i]);
  }
  return any;
}

void OtlpWriter::AppendSummary(const Cell* cells) {
  AppendTimes(Form::kSummary);
  pbf_writer point(point_);
  point.add_fixed64(otlp::point::kCount, WholeCount(cells[kTimerCount].value));
  point.add_double(otlp::point::kSum, cells[kTimerSum].value);
  const auto add = [&](double quantile, const Cell& cell) {
    if (!std::isfinite(cell.value)) return;
    pbf_writer value(point, otlp::point::kQuantiles);
    value.add_double(otlp::quantile::kQuantile, quantile);
    value.add_double(otlp::quantile::kValue, cell.value);
  };
  add(0, cells[kTimerMin]);
  for (size_t i = 0; i < std::size(kQuantiles); ++i) {
    add(kQuantiles[i], cells[kTimerFirstQuantile + i]);
  }
  add(1, cells[kTimerMax]);
  EndPoint();
}

void OtlpWriter::AppendHistogram(const std::vector<double>& bounds, const Cell* cells) {
  bounds_.clear();
  counts_.clear();
  uint64_t sum = 0;
  double merged = 0;
  for (size_t i = 0; i < bounds.size(); ++i) {
    const bool last = i + 1 == bounds.size();
    merged += cells[i].value;
    // Receivers take each bound once.
    if (!last && i + 2 < bounds.size() && bounds[i + 1] == bounds[i + 2]) continue;
    if (!last) bounds_.push_back(bounds[i + 1]);
    counts_.push_back(WholeCount(merged));
    sum += counts_.back();
    merged = 0;
  }
  AppendTimes(Form::kHistogram);
  pbf_writer point(point_);
  // A packet can claim any count, and receivers want that of all buckets.
  point.add_fixed64(otlp::point::kCount, sum);
  point.add_double(otlp::point::kSum, cells[bounds.size()].value);
  point.add_packed_fixed64(otlp::point::kBucketCounts, counts_.begin(), counts_.end());
  point.add_packed_double(otlp::point::kExplicitBounds, bounds_.begin(), bounds_.end());
  EndPoint();
}

void OtlpWriter::Take(std::string* out) {
  EndResource();
  owner_.clear();
  out->append(out_);
  Clear();
}

void OtlpWriter::Clear() {
  // One huge histogram must not be paid for until the end.
  for (std::string* kept : {&out_, &metrics_, &points_, &owner_, &tags_, &point_}) {
    constexpr size_t kMostKept = size_t{1} << 20;
    if (kept->capacity() > kMostKept) *kept = std::string();
    kept->clear();
  }
}

void OtlpWriter::AppendHealth(const Health& health, int64_t start_ns, int64_t now_ns,
                              std::string* out) {
  is_agent_ = true;
  start_ns_ = start_ns;
  time_ns_ = now_ns;
  health.ForEach([&](const Health::Sample& sample) {
    const Form form = sample.counter ? Form::kTotal : Form::kGauge;
    tags_.clear();
    if (!sample.label.empty()) {
      AppendAttribute(otlp::point::kAttributes, sample.label, sample.label_value, &tags_);
    }
    if (!sample.owner.empty()) {
      AppendAttribute(otlp::point::kAttributes, sample.owner, sample.owner_value, &tags_);
    }
    StartMetric(form, sample.name);
    AppendNumber(form, static_cast<double>(sample.value));
  });
  Take(out);
  is_agent_ = false;
}

}  // namespace tidegate::agent
