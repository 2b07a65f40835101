#include "util/metric_producer_packet.h"

#include <cstring>

#include "util/metric_data_util.h"

namespace METRICS {
namespace {

constexpr size_t kHeadBytes = 24;
constexpr uint32_t kKind = 1;
constexpr int kCompressionLevel = 9;

std::string MakeHead(size_t body_length, size_t packet_length) {
  const uint32_t words[] = {kKind, static_cast<uint32_t>(body_length),
                            static_cast<uint32_t>(packet_length)};
  std::string head(kHeadBytes, '\0');
  std::memcpy(head.data(), words, sizeof(words));
  return head;
}

}  // namespace

MetricProducerPacket MetricProducerPacket::Create(const std::string& data) {
  const std::string compressed = compress_string(data, kCompressionLevel);
  return {MakeHead(compressed.size(), data.size()), compressed};
}

MetricProducerPacket MetricProducerPacket::CreateWithoutCompress(const std::string& data) {
  return {MakeHead(data.size(), data.size()), data};
}

}  // namespace METRICS
