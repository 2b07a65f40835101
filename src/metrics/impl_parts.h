#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "codec/tag_kv.h"
#include "util/metric_common.h"

namespace METRICS {

class MetricParts;

/// One declared field, as its metric keeps it.
struct MetricFieldInfo {
  std::string name;
  MetricsType type = MetricsType::kUnknown;
  std::vector<double> bounds;  ///< of a histogram field; empty otherwise
  /// False for a field that stays quiet: a later one of its name reports their cell.
  bool reports = true;
};

/// The part of a metric's implementation that collectors, items and the flush need: all of
/// `MetricImpl` but its way to the collector.
class ImplParts {
 public:
  ImplParts(const std::string& tenant, const std::string& name, MetricParts* metric,
            const std::vector<std::string>& tag_names);
  ImplParts(const ImplParts&) = delete;
  ImplParts& operator=(const ImplParts&) = delete;

  /// Appends the tags of a series in their packet form: hash, number of texts, texts. Computes
  /// `tag_hash` if it is 0. `Values` is a vector of strings or `PackedValues`; where there are not
  /// as many as declared tags, these are empty.
  template <class Values>
  void EncodeTagBlock(const Values& tag_values, int32_t& tag_hash,
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
  /// What of a tag block is before each declared value, and after the last, without the hash.
  std::vector<std::string> tag_block_parts_;
  std::vector<MetricFieldInfo> field_infos_;  ///< in the order of their declaration
  std::string codec_field_info_;              ///< their columns in packet form
  std::vector<double> bounds_;                ///< to be read by `Bounds`
  std::atomic<bool> bounds_ready_{false};     ///< they will not change any more

 protected:
  ~ImplParts() = default;
  /// Makes `tag_block_parts_` once `send_tags_` and `tag_index_` are there.
  void PrepareTagBlock();

 private:
  template <class Values>
  int32_t HashOfTags(const Values& tag_values) const;
};

}  // namespace METRICS
