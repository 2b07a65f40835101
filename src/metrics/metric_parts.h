#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "codec/tag_kv.h"
#include "tidegate/metric_tag.h"
#include "util/event_counter.h"
#include "util/metric_common.h"
#include "util/metric_export.h"

namespace METRICS {

class HistoUtilBase;
class MetricParts;
class RegistryParts;

/// One declared field of a metric that carries a row of fields.
struct MetricFieldCfg {
  std::string name;
  MetricsType type = MetricsType::kUnknown;
  HistoUtilBase* histo = nullptr;  ///< bounds of a histogram field; only read by the call
};

/// The same as the metric keeps it.
struct MetricFieldInfo {
  std::string name;
  MetricsType type = MetricsType::kUnknown;
  std::vector<double> bounds;  ///< of a histogram field; empty otherwise
  /// False for a field that stays quiet: a later one of its name reports their cell.
  bool reports = true;
};

/// What collectors, items and the flush need of a metric's implementation: what `MetricImpl` is
/// made of, but for its way to the collector.
class METRICS_API ImplParts {
 public:
  ImplParts(const std::string& tenant, const std::string& name, MetricParts* metric,
            const std::vector<std::string>& tag_names);
  ImplParts(const ImplParts&) = delete;
  ImplParts& operator=(const ImplParts&) = delete;

  /// Appends the tags of a series in their packet form: hash, number of texts, texts. Computes
  /// `tag_hash` if it is 0.
  void EncodeTagBlock(const std::vector<std::string>& tag_values, int32_t& tag_hash,
                      lattice_kit::codec::Pack& out) const;
  /// The histogram bounds of a suffixed metric: none, or the whole list once it is set.
  const std::vector<double>& Bounds() const;

  std::atomic<MetricState> state_{MetricState::INIT};  ///< also stored by the registry
  const uint16_t tag_count_;
  std::vector<std::string> tag_names_;  ///< sorted; the order of all vectors of tag values
  const std::string tenant_;
  const std::string name_;
  MetricParts* const metric_;
  // Constant once the metric is in service.
  std::vector<uint16_t> tag_index_;  ///< from the index of a name to its index in `send_tags_`
  std::vector<lattice_kit::codec::TagKV> send_tags_;  ///< sorted; declared tags without values
  size_t send_tag_bytes_ = 0;                         ///< of their keys and values
  std::vector<MetricFieldInfo> field_infos_;          ///< in the order of their declaration
  std::string codec_field_info_;                      ///< their columns in packet form
  std::vector<double> bounds_;                        ///< to be read by `Bounds`
  std::atomic<bool> bounds_ready_{false};             ///< they will not change any more

 protected:
  ~ImplParts() = default;
};

/// What collectors, items and the flush need of a metric: what `Metric` is made of, but for the
/// implementation that it owns.
class METRICS_API MetricParts : public std::enable_shared_from_this<MetricParts> {
 public:
  /// REQUIRES: a shared pointer owns `registry`.
  MetricParts(const std::string& name, RegistryParts* registry, MetricCoItemType kind);
  MetricParts(const MetricParts&) = delete;
  MetricParts& operator=(const MetricParts&) = delete;

  /// The bounds, or an empty list; a list that was seen once stays as it is.
  const std::vector<double>& GetHistogram() const;
  /// The declared fields of a metric with a row of fields, or an empty list.
  const std::vector<MetricFieldInfo>& GetFieldInfo() const;
  /// The columns of that row in their packet form, or an empty string.
  const std::string& GetCodecFieldInfo() const;
  /// The registry, kept alive by the result; null when it is being destroyed.
  std::shared_ptr<RegistryParts> PinRegistry() const { return registry_ref_.lock(); }

  // Empty, never destroyed.
  static const std::vector<double>& NoopHistogram();
  static const std::vector<MetricFieldInfo>& NoopFieldInfo();
  static const std::string& NoopStr();

  const std::string name_;           ///< the full name
  const uint32_t name_hash_;         ///< of the full name; seed of the hashes of its suffixes
  ImplParts* impl_parts_ = nullptr;  ///< of the implementation, set with it
  const MetricCoItemType kind_;
  // Set after creation by the application; read by the emission path and the flush.
  std::atomic<MetricsType> compatible_type_{MetricsType::kUnknown};
  std::vector<tidegate::MetricTag> tags_;  ///< the metric's own; constant after `Init`
  std::atomic<bool> multi_field_summary_{false};
  std::atomic<bool> use_ckms_{false};
  // Statistics, changed from any thread.
  EventCounter emit_success_;                   ///< values (rows: emissions) since `EmitStat`
  std::atomic<unsigned long> emit_fail_{0};     ///< failed emissions since the last `EmitStat`
  std::atomic<unsigned long> cache_mem_{0};     ///< bytes that the series occupy, an estimate
  std::atomic<unsigned long> cache_series_{0};  ///< cells made; a row counts as one
  /// Of the registry, not owned; to be pinned by whoever is no creator of the metric.
  RegistryParts* const registry_parts_;

 protected:
  ~MetricParts() = default;

 private:
  const std::weak_ptr<RegistryParts> registry_ref_;
};

}  // namespace METRICS
