#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/health.h"
#include "agent/otlp_fields.h"
#include "agent/packet_reader.h"
#include "agent/series_layout.h"

namespace tidegate::agent {

// Attributes by their keys.
using OtlpAttributes = std::vector<std::pair<std::string, std::string>>;

// Writes points as OTLP's messages for metrics. What it appends to a text is whole ResourceMetrics
// of a request, so such texts can be joined.
//
// The owner of a series (tenant, account and project) is its resource, together with `attributes`;
// its other tags are attributes of the point. NaN and infinities are left out, and so is a point in
// which nothing else is. So is one whose time is not after the epoch, or not one in nanoseconds,
// and one that takes more than kMaxPointBytes. Texts are written as on the page of metrics, an
// empty name or key as \x.
//
// Not thread-safe. Keeps buffers. After an exception, Clear.
class OtlpWriter {
 public:
  static constexpr size_t kMaxPointBytes = size_t{16} << 20;

  // `attributes` are those of every resource, and replace what this would say by itself: the
  // tenant as service.name, the host as service.instance.id and host.name.
  OtlpWriter(OtlpAttributes attributes, std::string_view host);

  // A point of a series, with the record that it came in. The cells of the series have what adds
  // up, with the point, and the start says since when. False if there is nothing in the point that
  // can be carried.
  bool Append(const KeyedSeries& series, const Series& record, int64_t timestamp);

  // Bytes that the last point took, or would have taken.
  size_t tried_bytes() const { return tried_bytes_; }

  // Of what has been appended.
  size_t bytes() const { return out_.size() + metrics_.size() + points_.size(); }

  // Moves it to the end of `out`.
  void Take(std::string* out);
  void Clear();

  // Appends the agent's own numbers, as those of a service of its own, at `now_ns`. The counters
  // count since `start_ns`. REQUIRES: no point has been appended that was not taken.
  void AppendHealth(const Health& health, int64_t start_ns, int64_t now_ns, std::string* out);

 private:
  // How the points of a metric are wrapped.
  enum class Form { kGauge, kTotal, kHistogram, kSummary };

  void StartPoint(const KeyedSeries& series, int64_t timestamp);
  void StartMetric(Form form, std::string_view name, std::string_view part = {});
  void EndMetric();
  void EndResource();
  void AppendOwner(std::string* resource);
  bool AppendNumber(Form form, double value);
  bool AppendColumns(const SeriesLayout& layout, const Series& record);
  void AppendSummary(const Cell* cells);
  void AppendHistogram(const std::vector<double>& bounds, const Cell* cells);
  void AppendTimes(Form form);
  void EndPoint();
  void AppendAttribute(otlp::FieldNumber field, std::string_view key, std::string_view value,
                       std::string* out);

  OtlpAttributes attributes_;  // the values as they are shown, as below
  std::string host_;
  std::string scope_;  // as a field of its resource's metrics

  std::string out_;           // resources that are complete
  std::string metrics_;       // of the resource in work
  std::string points_;        // of the metric in work
  std::string owner_;         // of the resource in work, as in the keys of its series
  bool is_agent_ = false;     // the resource in work is the agent itself
  Form form_ = Form::kGauge;  // of the metric in work
  std::string name_;          // likewise, as it came

  // Of the point in work.
  int64_t start_ns_ = 0;
  int64_t time_ns_ = 0;
  std::string tags_;            // attributes
  std::string point_;           // the rest of it
  std::vector<double> bounds_;  // of a histogram, each once
  std::vector<uint64_t> counts_;
  std::string shown_;  // kept for its memory, as is the next
  std::string part_;
  size_t tried_bytes_ = 0;
};

}  // namespace tidegate::agent
