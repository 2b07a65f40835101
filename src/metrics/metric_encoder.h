#pragma once

#include <cassert>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "codec/tag_kv.h"
#include "metrics/cell_kinds.h"
#include "metrics/compatible_form.h"
#include "metrics/flush_job.h"
#include "metrics/flush_packets.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_packet.h"
#include "metrics/packet_sender.h"
#include "metrics/row_form.h"
#include "metrics/series_walk.h"
#include "metrics/suffixed_form.h"
#include "util/metric_common.h"

namespace METRICS {

class MetricParts;
class RegistryParts;

/// Keys of the two tags that say whose data a packet holds.
inline constexpr auto& ACCOUNT_ID_KEY = lattice_kit::codec::kCodecAccountID;
inline constexpr auto& PROJECT_ID_KEY = lattice_kit::codec::kCodecProjectID;
constexpr const char* kAccountIdKey = ACCOUNT_ID_KEY;
constexpr const char* kProjectIdKey = PROJECT_ID_KEY;

/// Turns the collectors of a flush into packets and hands them to its sender.
class MetricEncoderBase {
 public:
  MetricEncoderBase(PacketSender* sender, const std::string& name);
  virtual ~MetricEncoderBase();
  MetricEncoderBase(const MetricEncoderBase&) = delete;
  MetricEncoderBase& operator=(const MetricEncoderBase&) = delete;

  /// Called once: the identity that every packet carries. A `psm` that is not empty takes the
  /// place of `project`.
  virtual void Init(const std::string& account, const std::string& project,
                    const std::string& psm) = 0;
  /// A whole flush: drains the cells of `collectors` and sends what they report.
  virtual void PackCollector(
      const std::vector<std::shared_ptr<MetricCollectorBase>>& collectors) = 0;

  PacketSender* sender_;       ///< not owned
  const std::string name_;     ///< the tenant
  const bool pre_encode_tags;  ///< items hold their tags in packet form
};

/// The encoder of the packet format: goes through the collectors, keeps the metric and registry of
/// each alive while it is packed, and gives its series to the form of its kind.
///
/// Runs on its sender's thread alone, and after that has been joined on the thread that stops it.
/// A packet holds the metrics of one registry. What a cell has reported is gone from it, whether or
/// not the packet arrives. A flush that runs out of memory sends the records that it has and
/// throws; the cells that it had not come to keep theirs.
class MetricEncoder final : public MetricEncoderBase {
 public:
  MetricEncoder(PacketSender* sender, const std::string& name);
  ~MetricEncoder() override;

  void Init(const std::string& account, const std::string& project,
            const std::string& psm) override;
  void PackCollector(const std::vector<std::shared_ptr<MetricCollectorBase>>& collectors) override;

  // Other names of operations of packets.
  static std::string PrePack(const std::vector<lattice_kit::codec::FieldInfo>& fields) {
    return lattice_kit::codec::PackFields(fields);
  }
  static void EncodeMetricHeader(MetricDataPack& pack, MetricsType type, unsigned int hash,
                                 const std::string& name, const std::string& fields, long timestamp,
                                 bool save) {
    pack.OpenBlock({type, hash, name, fields, timestamp}, save);
  }
  static void RefillMetricHeader(MetricDataPack& pack) { pack.CloseBlock(); }
  static void CopyFromCurrentMetricHeader(MetricDataPack& pack) { pack.ReopenBlock(); }
  static void EncodeOneSeriesValue(MetricDataPack& pack, std::string_view tag_block,
                                   const std::vector<uint32_t>& field_indexes,
                                   const std::vector<double>& values) {
    pack.PutRecord(tag_block, field_indexes, values);
  }
  static void Reset(MetricDataPack& pack) { pack.Rewind(); }

  // Names of the numbers of cells that report several. REQUIRES: `idx` is below the array's size.
  static std::string& ConvertIdxToTimerSuffix(const unsigned long& idx) {
    return NameOf(MetricsType::kTimer, idx);
  }
  static std::string& ConvertIdxToMeterSuffix(const unsigned long& idx) {
    return NameOf(MetricsType::kMeter, idx);
  }
  static std::string& ConvertIdxToDeltaCounter(const unsigned long& idx) {
    return NameOf(MetricsType::kDeltaCounter, idx);
  }

 private:
  static std::string& NameOf(MetricsType type, unsigned long index) {
    assert(index < KindOf(type).numbers);
    return NamesOf(type)[index];
  }

  void PackAll(const std::vector<std::shared_ptr<MetricCollectorBase>>& collectors);
  void EndFlush();
  void PackMetric(MetricCollectorBase& collector);
  FlushJob Job() const;
  void PackSuffixedMetric() { suffixed_.Pack(series_, Job()); }
  void PackMultiFeildMetric() { row_.Pack(series_, Job()); }
  void PackCompatibleMetric() { compatible_.Pack(series_, Job()); }

  FlushPackets packets_;
  SeriesWalk series_;  ///< of the collector being packed
  SuffixedForm suffixed_{packets_};
  RowForm row_{packets_};
  CompatibleForm compatible_{packets_};
  std::vector<lattice_kit::codec::TagKV> tenant_tags_;
  int64_t boundary_ = 0;  ///< of the flush
  std::shared_ptr<RegistryParts>
      registry_;                         ///< whose metrics the packets hold; null between flushes
  std::shared_ptr<MetricParts> metric_;  ///< being packed; null otherwise
  int32_t interval_ = 30;                ///< seconds, of `registry_`
};

}  // namespace METRICS
