#include "agent/time_series_writer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <protozero/pbf_writer.hpp>

#include "agent/fitted_names.h"
#include "agent/remote_write_fields.h"

namespace tidegate::agent {
namespace {

constexpr std::string_view kName = "__name__";

// Receivers take one of the NaNs for the end of a series.
constexpr uint64_t kPlainNan = 0x7ff8000000000001;

double WithPlainNan(double value) {
  if (!std::isnan(value)) return value;
  std::memcpy(&value, &kPlainNan, sizeof(value));
  return value;
}

void AppendLabel(std::string_view name, std::string_view value, std::string* series) {
  protozero::pbf_writer of_series(*series);
  protozero::pbf_writer label(of_series, remote_write::kLabel);
  label.add_string(remote_write::kLabelName, name.data(), name.size());
  label.add_string(remote_write::kLabelValue, value.data(), value.size());
}

// Those of MetricMetadata.
int32_t NumberOf(FamilyType type) {
  switch (type) {
    case FamilyType::kCounter:
      return 1;
    case FamilyType::kGauge:
      return 2;
    case FamilyType::kHistogram:
      return 3;
    case FamilyType::kSummary:
      return 5;
    case FamilyType::kUntyped:
      break;
  }
  return 0;
}

}  // namespace

void TimeSeriesWriter::BeginLabels() {
  count_ = 0;
  is_sorted_ = false;
}

void TimeSeriesWriter::AddLabel(std::string_view key, std::string_view value) {
  if (value.empty()) return;
  if (count_ == sorted_.size()) sorted_.emplace_back();
  Label& label = sorted_[count_];
  AssignLabelName(key, &label.name);
  label.value.assign(value);
  ++count_;
}

void TimeSeriesWriter::SortLabels() {
  const auto end = sorted_.begin() + static_cast<std::ptrdiff_t>(count_);
  const auto by_name = [](const Label& a, const Label& b) { return a.name < b.name; };
  if (!std::is_sorted(sorted_.begin(), end, by_name)) std::sort(sorted_.begin(), end, by_name);
  labels_.clear();
  for (auto label = sorted_.begin(); label != end; ++label) {
    AppendLabel(label->name, label->value, &labels_);
    label->end = labels_.size();
  }
  is_sorted_ = true;
}

size_t TimeSeriesWriter::EndOfLabelsBefore(std::string_view name) const {
  const auto end = sorted_.begin() + static_cast<std::ptrdiff_t>(count_);
  const auto first =
      std::lower_bound(sorted_.begin(), end, name,
                       [](const Label& label, std::string_view of) { return label.name < of; });
  return first == sorted_.begin() ? 0 : std::prev(first)->end;
}

void TimeSeriesWriter::Append(std::string_view family, const FamilySample& sample, int64_t time_ms,
                              std::string* out) {
  if (!is_sorted_) SortLabels();
  series_.clear();
  size_t from = 0;
  const auto insert = [&](std::string_view name, std::string_view value) {
    const size_t to = EndOfLabelsBefore(name);
    series_.append(labels_, from, to - from);
    AppendLabel(name, value, &series_);
    from = to;
  };
  name_.assign(family).append(sample.end);
  insert(kName, name_);
  if (!sample.label.empty()) insert(sample.label, sample.label_value);  // a name after the other
  series_.append(labels_, from);
  {
    protozero::pbf_writer of_series(series_);
    protozero::pbf_writer number(of_series, remote_write::kSample);
    number.add_double(remote_write::kValue, WithPlainNan(sample.value));
    number.add_int64(remote_write::kTimestamp, time_ms);
  }
  protozero::pbf_writer(*out).add_message(remote_write::kTimeSeries, series_);
}

void AppendFamilyMetadata(const FamilyPart& family, std::string_view help, std::string* out) {
  protozero::pbf_writer request(*out);
  protozero::pbf_writer metadata(request, remote_write::kMetadata);
  metadata.add_enum(remote_write::kMetadataType, NumberOf(family.type));
  metadata.add_string(remote_write::kMetadataName, family.name);
  metadata.add_string(remote_write::kMetadataHelp, help.data(), help.size());
}

}  // namespace tidegate::agent
