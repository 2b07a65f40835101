#include "metrics/metric_packet.h"

#include "codec/tag_kv.h"

namespace METRICS {

void EPacket::EncodeString(const std::string& s) {
  Reserve(static_cast<int32_t>(sizeof(uint32_t) + s.size()));
  lattice_kit::codec::EncodeText(s, *this);
}

void EPacket::CopyTo(std::string& out, const char* start, unsigned int len) const {
  if (start < begin || start + len > cursor) {
    return;
  }
  out.assign(start, len);
}

void MetricDataPack::ZeroCounters() {
  header_offset = 0;
  block_series = 0;
  series_count = 0;
  block_count = 0;
}

}  // namespace METRICS
