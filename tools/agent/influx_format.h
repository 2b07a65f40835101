#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/point_format.h"
#include "agent/point_mapping.h"

namespace tidegate::agent {

// Lines of the InfluxDB line protocol, packed with gzip. If InfluxDB says how many lines it has
// dropped, as many points are. A point can be more than one line.
class InfluxFormat : public PointFormat {
 public:
  explicit InfluxFormat(ProcessLabel label) : label_(label) {}

  std::unique_ptr<PointWriter> MakeWriter() const override;
  void AppendHealth(const Health& health, std::string_view host, int64_t now_ns,
                    std::string* out) const override;
  std::string Pack(std::string_view body) const override;
  std::vector<std::string> Headers() const override;
  std::string_view SpoolMagic() const override;
  Verdict Read(const HttpReply& reply, uint64_t points) const override;

 private:
  const ProcessLabel label_;
};

}  // namespace tidegate::agent
