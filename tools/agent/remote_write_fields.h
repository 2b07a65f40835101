#pragma once

#include <protozero/types.hpp>

// The numbers of the fields of Prometheus remote write 1.0, for those who write it and those who
// take it apart.

namespace tidegate::agent::remote_write {

using FieldNumber = protozero::pbf_tag_type;

// Of WriteRequest.
inline constexpr FieldNumber kTimeSeries = 1;
inline constexpr FieldNumber kMetadata = 3;
// Of TimeSeries.
inline constexpr FieldNumber kLabel = 1;
inline constexpr FieldNumber kSample = 2;
// Of Label.
inline constexpr FieldNumber kLabelName = 1;
inline constexpr FieldNumber kLabelValue = 2;
// Of Sample.
inline constexpr FieldNumber kValue = 1;
inline constexpr FieldNumber kTimestamp = 2;
// Of MetricMetadata.
inline constexpr FieldNumber kMetadataType = 1;
inline constexpr FieldNumber kMetadataName = 2;
inline constexpr FieldNumber kMetadataHelp = 4;

}  // namespace tidegate::agent::remote_write
