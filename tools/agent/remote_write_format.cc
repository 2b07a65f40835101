#include "agent/remote_write_format.h"

#include <algorithm>

#include "agent/family_samples.h"
#include "agent/remote_write_body.h"
#include "agent/remote_write_writer.h"
#include "agent/time_series_writer.h"

namespace tidegate::agent {
namespace {

SeriesTable::Options WithPage(SeriesTable::Options options) {
  options.page = true;
  return options;
}

}  // namespace

RemoteWriteFormat::RemoteWriteFormat(const SeriesTable::Options& options)
    : options_(WithPage(options)) {}

std::unique_ptr<PointWriter> RemoteWriteFormat::MakeWriter() const {
  return std::make_unique<RemoteWriteWriter>(options_);
}

void RemoteWriteFormat::AppendHealth(const Health& health, std::string_view host, int64_t now_ns,
                                     std::string* out) const {
  constexpr int64_t kNanosPerMilli = 1000000;
  TimeSeriesWriter series;
  health.ForEach([&](const Health::Sample& sample) {
    series.BeginLabels();
    series.AddLabel("host", host);
    series.AddLabel(sample.owner, sample.owner_value);
    series.AddLabel(sample.label, sample.label_value);
    series.Append(sample.name, {{}, {}, {}, static_cast<double>(sample.value), 0},
                  now_ns / kNanosPerMilli, out);
  });
}

std::string RemoteWriteFormat::Pack(std::string_view body) const { return PackRemoteWrite(body); }

std::vector<std::string> RemoteWriteFormat::Headers() const {
  return {"Content-Type: application/x-protobuf", "Content-Encoding: snappy",
          "X-Prometheus-Remote-Write-Version: 0.1.0"};
}

std::string_view RemoteWriteFormat::SpoolMagic() const { return "TGSPOOLR"; }

// Other refusals are of the request as such.
Verdict RemoteWriteFormat::Read(const HttpReply& reply, uint64_t points) const {
  Verdict verdict = PointFormat::Read(reply, points);
  verdict.divisible = reply.status == 400 || reply.status == 413 || reply.status == 422;
  return verdict;
}

std::optional<std::pair<PointFormat::Body, PointFormat::Body>> RemoteWriteFormat::Split(
    std::string_view packed, uint64_t points) const {
  auto parts = SplitRemoteWrite(packed);
  if (!parts) return std::nullopt;
  const uint64_t first = std::min(parts->first.points, points);
  return {{{std::move(parts->first.body), first}, {std::move(parts->second.body), points - first}}};
}

std::string RemoteWriteFormat::Describe(std::string_view packed) const {
  return OnlySeriesOf(packed);
}

}  // namespace tidegate::agent
