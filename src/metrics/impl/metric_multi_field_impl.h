#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "codec/tag_kv.h"
#include "metrics/impl/metric_impl.h"
#include "util/metric_common.h"

namespace METRICS {

/// The implementation of metrics with a row of declared fields.
///
/// Written once by `InitField`, before the metric is visible to other threads, and constant from
/// then on. A field may take several columns of the row, as its kind reports numbers. Fields of one
/// name share the cell of the last one: each reports it, or the last one alone where the columns
/// would not fit.
class MultiFieldMetricImpl final : public MetricImpl {
 public:
  using MetricImpl::MetricImpl;
  ~MultiFieldMetricImpl() override;

  void InitField(const std::vector<MetricFieldCfg>&& fields) override;
  MetricCoItemType Type() override { return MetricCoItemType::kCoItemField; }

  // `AppendColumns` of the kinds, each under a name of its own.
  using Columns = std::vector<lattice_kit::codec::FieldInfo>;
  static void GenerateSingleField(Columns& out, const std::string& name);
  static void GenerateMeterField(Columns& out, const std::string& name);
  static void GenerateSummaryField(Columns& out, const std::string& name);
  static void GenerateDeltaCounterField(Columns& out, const std::string& name);
  static void GenerateHistogramField(Columns& out, const std::string& name,
                                     const std::vector<double>& bounds);

  uint32_t codec_field_num_ = 0;  ///< number of columns

 private:
  /// The last field of each name, whose cell it is.
  using Owners = std::unordered_map<std::string, const MetricFieldInfo*>;

  void SettleSharedNames();
  /// Whether a row in which each field reports the cell of its name keeps to the columns, and
  /// names none of them twice.
  bool FitsColumns(const Owners& owners) const;
};

}  // namespace METRICS
