#include "metrics/cell_kinds.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "metrics/metric_data.h"
#include "metrics/metric_histogram.h"
#include "metrics/metric_summary.h"
#include "util/line_allocator.h"
#include "util/metric_log.h"
#include "util/metric_string_util.h"

namespace METRICS {

using lattice_kit::codec::FieldInfo;
using lattice_kit::codec::kCodecValueDouble;

namespace {

using CellPtr = std::shared_ptr<MetricBasicData>;

/// A cell whose fields share a cache line, and with no other cell's where they fit into one.
template <class Cell, class... Args>
CellPtr MakeCell(const Args&... args) {
  return std::allocate_shared<Cell>(LineAllocator<Cell>(), args...);
}

template <class Cell>
CellPtr Make(const CellSettings& /*settings*/) {
  return MakeCell<Cell>();
}

CellPtr MakeTimer(const CellSettings& settings) {
  return settings.use_ckms ? MakeCell<MetricSummaryCKMS>() : MakeCell<MetricSummaryVecV2>();
}

CellPtr MakeHistogram(const CellSettings& settings) {
  return MakeCell<MetricHistogram>(settings.bucket_count);
}

}  // namespace

constexpr CellKind kCellKinds[] = {
    {MetricsType::kGauge,
     "gauge",
     1,
     false,
     0,
     SuffixForm::kNumbers,
     true,
     {""},
     Make<MetricGauge>},
    {MetricsType::kRate, "rate", 1, false, 0, SuffixForm::kNumbers, true, {""}, Make<MetricRate>},
    {MetricsType::kCounter,
     "counter",
     1,
     false,
     1,
     SuffixForm::kNumbers,
     true,
     {""},
     Make<MetricCounter>},
    {MetricsType::kMeter,
     "meter",
     kMetricMeterArraySize,
     false,
     kMetricMeterArraySize,
     SuffixForm::kNumbers,
     true,
     {"", "rate"},
     Make<MetricMeter>},
    {MetricsType::kTimer,
     "timer",
     kMetricSummaryArraySize,
     false,
     0,
     SuffixForm::kRowIfAskedFor,
     true,
     {"min", "max", "avg", "sum", "counter", "pct50", "pct90", "pct95", "pct99", "pct999"},
     MakeTimer},
    {MetricsType::kHistogram, "histogram", 2, true, 0, SuffixForm::kRow, false, {}, MakeHistogram},
    {MetricsType::kMultiField,
     "customized multi field",
     1,
     false,
     0,
     SuffixForm::kNumbers,
     false,
     {},
     nullptr},
    {MetricsType::kDeltaCounter,
     "delta_counter",
     kMetricDeltaCounterArrSize,
     false,
     kMetricDeltaCounterArrSize,
     SuffixForm::kRow,
     false,
     {"counter", "rate", "delta"},
     Make<MetricDeltaCounter>},
};

namespace {

/// Whether each kind has the index of its type, names for its numbers, and an earlier point as wide
/// as they are.
constexpr bool WellFormed() {
  size_t number = static_cast<size_t>(MetricsType::kGauge);
  for (const CellKind& kind : kCellKinds) {
    if (static_cast<size_t>(kind.type) != number++ || kind.numbers > CellKind::kMostNames ||
        (kind.previous != 0 && kind.previous != kind.numbers)) {
      return false;
    }
  }
  return number == static_cast<size_t>(MetricsType::kTypeEnd);
}
static_assert(WellFormed());

using AllNames = std::array<NumberNames, std::size(kCellKinds)>;

AllNames& MakeAllNames() {
  auto& all = *new AllNames;
  for (size_t i = 0; i < all.size(); ++i) {
    const auto& names = kCellKinds[i].names;
    std::copy(std::begin(names), std::find(std::begin(names), std::end(names), nullptr),
              all[i].begin());
  }
  return all;
}

/// The columns of a kind whose numbers have names of their own.
void AppendNamedColumns(std::vector<FieldInfo>& columns, const std::string& field,
                        const CellKind& kind) {
  for (uint32_t i = 0; i < kind.numbers; ++i) {
    const std::string_view number = kind.names[i];
    std::string column = field;
    if (!field.empty() && !number.empty()) {
      column += '.';
    }
    column += number;
    columns.emplace_back(std::move(column), kCodecValueDouble);
  }
}

/// The columns of a histogram.
void AppendBoundColumns(std::vector<FieldInfo>& columns, const std::string& field,
                        const std::vector<double>& bounds) {
  const std::string prefix = field.empty() ? "hist:" : "hist:" + field + ":";
  for (const double bound : bounds) {
    columns.emplace_back(prefix + "b-" + FormatFixed(bound), kCodecValueDouble);
  }
  columns.emplace_back(prefix + "sum", kCodecValueDouble);
  columns.emplace_back(prefix + "count", kCodecValueDouble);
}

}  // namespace

NumberNames& NamesOf(MetricsType type) {
  static AllNames& all = MakeAllNames();
  assert(IsCellType(type));
  return all[static_cast<size_t>(type) - static_cast<size_t>(MetricsType::kGauge)];
}

void AppendColumns(std::vector<FieldInfo>& columns, MetricsType type, const std::string& name,
                   const std::vector<double>& bounds) {
  const CellKind* const kind = FindKind(type);
  if (kind == nullptr) {
    METRICS_LOG_ERROR("Internal Error for Unknown MetricType: %d\n", static_cast<int>(type));
  } else if (kind->per_bound) {
    AppendBoundColumns(columns, name, bounds);
  } else {
    AppendNamedColumns(columns, name, *kind);
  }
}

const char* CovMetricTypeToStr(const MetricsType& type) {
  const bool known = type != MetricsType::kUnknown && type < MetricsType::kTypeEnd;
  return known ? kCellKinds[static_cast<size_t>(type) - 1].text : "unknown";
}

}  // namespace METRICS
