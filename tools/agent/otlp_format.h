#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/otlp_writer.h"
#include "agent/point_format.h"
#include "agent/series_table.h"

namespace tidegate::agent {

// OTLP over HTTP: requests of protobuf, packed with gzip. Totals, histograms and summaries are
// cumulative. Of a request that a receiver took in part it says how many points it rejected, where
// each column of a row counts as one; that is taken for the number of points, all at most.
class OtlpFormat : public PointFormat {
 public:
  // The attributes and the host are as OtlpWriter takes them, `table` is for the series.
  OtlpFormat(OtlpAttributes attributes, std::string host, const SeriesTable::Options& table);

  std::unique_ptr<PointWriter> MakeWriter() const override;
  void AppendHealth(const Health& health, std::string_view host, int64_t now_ns,
                    std::string* out) const override;
  std::string Pack(std::string_view body) const override;
  std::vector<std::string> Headers() const override;
  std::string_view SpoolMagic() const override;
  Verdict Read(const HttpReply& reply, uint64_t points) const override;

 private:
  const OtlpAttributes attributes_;
  const std::string host_;
  const SeriesTable::Options table_;
  const int64_t start_ns_;  // since the epoch
};

}  // namespace tidegate::agent
