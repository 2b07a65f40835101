#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/point_format.h"
#include "agent/series_table.h"

namespace tidegate::agent {

// Prometheus remote write 1.0: protobuf, packed with snappy. A sample counts as a point. Receivers
// refuse a whole request for one sample, so a body that was refused can be split.
class RemoteWriteFormat : public PointFormat {
 public:
  // The options are those of the table of its series, which has a page.
  explicit RemoteWriteFormat(const SeriesTable::Options& options);

  std::unique_ptr<PointWriter> MakeWriter() const override;
  void AppendHealth(const Health& health, std::string_view host, int64_t now_ns,
                    std::string* out) const override;
  std::string Pack(std::string_view body) const override;
  std::vector<std::string> Headers() const override;
  std::string_view SpoolMagic() const override;
  Verdict Read(const HttpReply& reply, uint64_t points) const override;
  std::optional<std::pair<Body, Body>> Split(std::string_view packed,
                                             uint64_t points) const override;
  std::string Describe(std::string_view packed) const override;

 private:
  const SeriesTable::Options options_;
};

}  // namespace tidegate::agent
