#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "metrics/flush_packets.h"
#include "metrics/metric_packet.h"
#include "util/metric_common.h"
#include "util/name_index.h"

namespace METRICS {

class MetricParts;

/// Whether a cell reported what its type asks for: false when `values` is empty, and, with a Warn
/// line, when its size is not `expected`.
bool CheckSendRes(MetricsType type, const std::vector<double>& values, unsigned long expected);

/// Whether a cell of type `type` goes out as one row of numbers, and not number by number.
bool IsRow(const MetricParts& metric, MetricsType type);

/// The blocks of one suffix and type: the same for all series of a metric but for the tags, the
/// time and the numbers.
struct SuffixBlocks {
  SuffixBlocks(const MetricParts& metric, std::string_view suffix_name, MetricsType cell_type,
               bool as_row);

  std::string suffix;
  MetricsType type;
  bool row;                          ///< one block of several columns, not one per number
  size_t numbers;                    ///< that a cell has to report
  std::vector<std::string> headers;  ///< results of `PackHeader`

  // Write the blocks of one cell. REQUIRES: there are `numbers` values.
  void Pack(MetricDataPack& pack, int64_t timestamp, std::string_view tags,
            const double* values) const;
  /// A total of the interval before, and zeros. REQUIRES: the kind of the cell has such a point.
  void PackPrevious(FlushPackets& packets, int64_t timestamp, std::string_view tags,
                    double prev_value) const;

 private:
  void DoPackSuffixMetric(MetricDataPack& pack, int64_t timestamp, std::string_view tags,
                          const double* values) const;
  void DoPackSuffixToMultiField(MetricDataPack& pack, int64_t timestamp, std::string_view tags,
                                const double* values) const;
};

/// The blocks of the suffixes of one metric, made when they are first asked for.
class SuffixBlockTable {
 public:
  /// Forgets all: another metric follows.
  void Clear();
  /// `index` is where to look first. The result is good until the next call.
  const SuffixBlocks& BlocksOf(const MetricParts& metric, std::string_view suffix, MetricsType type,
                               bool row, size_t index = 0);

 private:
  std::vector<SuffixBlocks> blocks_;
  NameIndex suffixes_;  ///< of `blocks_`
};

}  // namespace METRICS
