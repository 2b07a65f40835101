#pragma once

namespace METRICS {

/// The version that each packet and the library's own metric "version" report. It belongs to the
/// wire format, not to the release.
constexpr char kSdkVersion[] = "1.0.4";

}  // namespace METRICS
