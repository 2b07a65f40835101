#include "agent/formats.h"

#include "agent/influx_format.h"
#include "agent/otlp_format.h"
#include "agent/remote_write_format.h"

namespace tidegate::agent {

std::unique_ptr<const PointFormat> MakeFormat(const ForwardOptions& options,
                                              const SeriesTable::Options& table) {
  switch (options.kind) {
    case DestinationKind::kRemoteWrite:
      return std::make_unique<RemoteWriteFormat>(table);
    case DestinationKind::kOtlp:
      return std::make_unique<OtlpFormat>(options.resource, options.host, table);
    case DestinationKind::kInflux:
      break;
  }
  return std::make_unique<InfluxFormat>(table.process_label);
}

}  // namespace tidegate::agent
