#pragma once

#include <protozero/types.hpp>

// The fields of OTLP's messages for metrics, by their numbers.

namespace tidegate::agent::otlp {

using FieldNumber = protozero::pbf_tag_type;

namespace request {
inline constexpr FieldNumber kResourceMetrics = 1;
}
namespace resource_metrics {
inline constexpr FieldNumber kResource = 1;
inline constexpr FieldNumber kScopeMetrics = 2;
}  // namespace resource_metrics
namespace resource {
inline constexpr FieldNumber kAttributes = 1;
}
namespace scope_metrics {
inline constexpr FieldNumber kScope = 1;
inline constexpr FieldNumber kMetrics = 2;
}  // namespace scope_metrics
namespace scope {
inline constexpr FieldNumber kName = 1;
inline constexpr FieldNumber kVersion = 2;
}  // namespace scope
namespace key_value {
inline constexpr FieldNumber kKey = 1;
inline constexpr FieldNumber kValue = 2;
}  // namespace key_value
namespace any_value {
inline constexpr FieldNumber kString = 1;
}

namespace metric {
inline constexpr FieldNumber kName = 1;
inline constexpr FieldNumber kGauge = 5;
inline constexpr FieldNumber kSum = 7;
inline constexpr FieldNumber kHistogram = 9;
inline constexpr FieldNumber kSummary = 11;
}  // namespace metric
// Of the messages of all four: gauges and summaries have the first alone, histograms no third.
namespace data {
inline constexpr FieldNumber kPoints = 1;
inline constexpr FieldNumber kTemporality = 2;
inline constexpr FieldNumber kIsMonotonic = 3;
inline constexpr int kCumulative = 2;
}  // namespace data
// Of points of all kinds.
namespace point {
inline constexpr FieldNumber kStart = 2;
inline constexpr FieldNumber kTime = 3;
inline constexpr FieldNumber kDouble = 4;  // of gauges and sums
inline constexpr FieldNumber kAttributes = 7;
inline constexpr FieldNumber kCount = 4;  // of histograms and summaries
inline constexpr FieldNumber kSum = 5;
inline constexpr FieldNumber kBucketCounts = 6;
inline constexpr FieldNumber kExplicitBounds = 7;
inline constexpr FieldNumber kHistogramAttributes = 9;
inline constexpr FieldNumber kQuantiles = 6;
}  // namespace point
namespace quantile {
inline constexpr FieldNumber kQuantile = 1;
inline constexpr FieldNumber kValue = 2;
}  // namespace quantile

namespace response {
inline constexpr FieldNumber kPartialSuccess = 1;
}
namespace partial_success {
inline constexpr FieldNumber kRejectedPoints = 1;
inline constexpr FieldNumber kMessage = 2;
}  // namespace partial_success
// Of the body that comes with an error.
namespace status {
inline constexpr FieldNumber kMessage = 2;
}

}  // namespace tidegate::agent::otlp
