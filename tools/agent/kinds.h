#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// All that the agent knows of each kind of number: one row for each wire_type, as
// docs/wire_format.md describes it. A new type is a row here, a value of Kind, and a test.

namespace tidegate::agent {

// An array of constants, whatever its length.
template <typename T>
class ConstList {
 public:
  constexpr ConstList() = default;
  template <size_t size>
  // NOLINTNEXTLINE(google-explicit-constructor): a row names its arrays
  constexpr ConstList(const T (&array)[size]) : first_(array), size_(size) {}

  constexpr const T* begin() const { return first_; }
  constexpr const T* end() const { return first_ + size_; }
  constexpr size_t size() const { return size_; }
  constexpr const T& operator[](size_t i) const { return first_[i]; }

 private:
  const T* first_ = nullptr;
  size_t size_ = 0;
};

// The kind of a block's numbers. The values are those of wire_type. A block whose columns do not
// fit its type counts as a row, or as a gauge if it has no columns (see KindOf).
enum class Kind : uint8_t {
  kGauge = 1,
  kRate,
  kCounter,
  kMeter,      // a total or a rate, the block does not tell which
  kTimerRow,   // a timer in one block; one in ten blocks is ten gauges
  kHistogram,  // of one interval
  kRow,        // any columns, each a number with a name of its own
  kDeltaCounter,
};

// The columns of a kind.
enum class ColumnForm : uint8_t {
  kOne,     // one number without a name
  kFixed,   // those of the row, in their order
  kBounds,  // any number of the first of the row, each with a bound after its name, then the others
  kAny,     // any names
};

// How the numbers are merged that several processes report for one series at one time.
enum class MergeRule : uint8_t {
  kSum,          // happened in the interval: a rate, an increase, a sum, a count, a bucket
  kTotal,        // cumulative; merged as the increases of all processes
  kDeltaTotal,   // likewise; two columns further is what it increased by in the interval
  kGauge,        // by GaugeMerge
  kGaugeOrRate,  // a column of a row that is one of these or a total, which only an
                 // earlier point can tell; merged as a gauge until then
  kMin,
  kMax,
  kAverage,   // the sum and the count follow it
  kQuantile,  // of one process alone
};

// How the page of metrics combines the points of one series.
enum class PageRule : uint8_t {
  kNewest,
  kAddUp,   // each is of one interval; the sum can fall
  kCountUp  // likewise, and it must not fall
};

// The meaning of a family's numbers, for HELP.
enum class Meaning : uint8_t {
  kStored,
  kRate,
  kTotal,
  kTotalOrRate,  // by the end of its name
  kPercentiles,
  kTimerColumn,
  kBuckets,
  kField,
};

// The types of families on the page of metrics.
enum class FamilyType { kGauge, kCounter, kUntyped, kSummary, kHistogram };

struct ColumnRow {
  std::string_view name;  // on the wire; of kBounds without the bound
  MergeRule merge;
  PageRule page = PageRule::kNewest;
  std::string_view meaning = {};   // of a timer's
  std::string_view quantile = {};  // the label of its sample in a summary
};

// A family of the page that shows a kind, or a part of it.
struct FamilyRow {
  FamilyType type;
  std::string_view suffix;  // of its name. A counter whose name has it already gets no other
  size_t column;            // that the value is from; of summaries and histograms 0
  std::string_view source;  // before the kind's noun
  Meaning meaning;
};

struct KindRow {
  Kind kind;
  const char* wire_name;  // where points are printed
  std::string_view noun;  // in HELP and in the log
  ColumnForm form;
  ConstList<ColumnRow> columns;   // of kAny one, that stands for each
  ConstList<FamilyRow> families;  // of kAny one, that stands for that of each column
  std::string_view own_label;     // that the page adds to its lines
  bool has_earlier_point;         // in packets of their own
  bool adds_up;                   // some columns do, on the page
};

inline constexpr std::string_view kMeterRatePart = ".rate";  // ends the name of a meter's rate
inline constexpr std::string_view kHistogramMark = "hist:";  // begins each column of histograms

inline constexpr ColumnRow kTimerColumns[] = {
    {"min", MergeRule::kMin, PageRule::kNewest, "least sample"},
    {"max", MergeRule::kMax, PageRule::kNewest, "largest sample"},
    {"avg", MergeRule::kAverage, PageRule::kNewest, "average"},
    {"sum", MergeRule::kSum, PageRule::kAddUp, "sum"},
    {"counter", MergeRule::kSum, PageRule::kCountUp, "number of samples"},
    {"pct50", MergeRule::kQuantile, PageRule::kNewest, "percentile 50", "0.5"},
    {"pct90", MergeRule::kQuantile, PageRule::kNewest, "percentile 90", "0.9"},
    {"pct95", MergeRule::kQuantile, PageRule::kNewest, "percentile 95", "0.95"},
    {"pct99", MergeRule::kQuantile, PageRule::kNewest, "percentile 99", "0.99"},
    {"pct999", MergeRule::kQuantile, PageRule::kNewest, "percentile 99.9", "0.999"},
};
inline constexpr ColumnRow kDeltaColumns[] = {
    {"counter", MergeRule::kDeltaTotal},
    {"rate", MergeRule::kSum},
    {"delta", MergeRule::kSum},
};
inline constexpr ColumnRow kHistogramColumns[] = {
    {"hist:b-", MergeRule::kSum, PageRule::kCountUp},
    {"hist:sum", MergeRule::kSum, PageRule::kAddUp},
    {"hist:count", MergeRule::kSum, PageRule::kCountUp},
};

// Indexes in kTimerColumns, kDeltaColumns and kHistogramColumns.
enum TimerColumn : size_t {
  kTimerMin,
  kTimerMax,
  kTimerAvg,
  kTimerSum,
  kTimerCount,
  kTimerFirstQuantile
};
enum DeltaColumn : size_t { kDeltaCounterColumn, kDeltaRateColumn, kDeltaDeltaColumn };
enum HistogramColumn : size_t { kHistogramBucket, kHistogramSum, kHistogramCount };

namespace rows {

inline constexpr ColumnRow kStored[] = {{"", MergeRule::kGauge}};
inline constexpr ColumnRow kRate[] = {{"", MergeRule::kSum}};
inline constexpr ColumnRow kTotal[] = {{"", MergeRule::kTotal}};
inline constexpr ColumnRow kField[] = {{"", MergeRule::kGaugeOrRate}};

inline constexpr FamilyRow kGaugeFamilies[] = {{FamilyType::kGauge, "", 0, "", Meaning::kStored}};
inline constexpr FamilyRow kRateFamilies[] = {{FamilyType::kGauge, "", 0, "", Meaning::kRate}};
inline constexpr FamilyRow kCounterFamilies[] = {
    {FamilyType::kCounter, "_total", 0, "", Meaning::kTotal}};
inline constexpr FamilyRow kMeterFamilies[] = {
    {FamilyType::kUntyped, "", 0, "", Meaning::kTotalOrRate}};
inline constexpr FamilyRow kTimerFamilies[] = {
    {FamilyType::kSummary, "", 0, "", Meaning::kPercentiles},
    {FamilyType::kGauge, "_min", kTimerMin, "column min of ", Meaning::kTimerColumn},
    {FamilyType::kGauge, "_max", kTimerMax, "column max of ", Meaning::kTimerColumn},
    {FamilyType::kGauge, "_avg", kTimerAvg, "column avg of ", Meaning::kTimerColumn}};
inline constexpr FamilyRow kHistogramFamilies[] = {
    {FamilyType::kHistogram, "", 0, "", Meaning::kBuckets}};
inline constexpr FamilyRow kFieldFamilies[] = {{FamilyType::kGauge, "_", 0, "", Meaning::kField}};
inline constexpr FamilyRow kDeltaFamilies[] = {
    {FamilyType::kCounter, "_total", kDeltaCounterColumn, "", Meaning::kTotal},
    {FamilyType::kGauge, "_rate", kDeltaRateColumn, "rate of the ", Meaning::kRate}};

}  // namespace rows

inline constexpr KindRow kKinds[] = {
    {Kind::kGauge, "gauge", "gauge", ColumnForm::kOne, rows::kStored, rows::kGaugeFamilies, "",
     false, false},
    {Kind::kRate, "rate", "rate", ColumnForm::kOne, rows::kRate, rows::kRateFamilies, "", false,
     false},
    {Kind::kCounter, "counter", "counter", ColumnForm::kOne, rows::kTotal, rows::kCounterFamilies,
     "", true, false},
    {Kind::kMeter, "meter", "meter", ColumnForm::kOne, rows::kTotal, rows::kMeterFamilies, "", true,
     false},
    {Kind::kTimerRow, "timer", "timer", ColumnForm::kFixed, kTimerColumns, rows::kTimerFamilies,
     "quantile", false, true},
    {Kind::kHistogram, "histogram", "histogram", ColumnForm::kBounds, kHistogramColumns,
     rows::kHistogramFamilies, "le", false, true},
    {Kind::kRow, "multi_field", "row", ColumnForm::kAny, rows::kField, rows::kFieldFamilies, "",
     true, false},
    {Kind::kDeltaCounter, "delta_counter", "delta counter", ColumnForm::kFixed, kDeltaColumns,
     rows::kDeltaFamilies, "", true, false},
};

// Null for what is no wire_type.
constexpr const KindRow* FindKind(uint8_t wire_type) {
  const ConstList<KindRow> all = kKinds;
  return wire_type >= 1 && wire_type <= all.size() ? &kKinds[wire_type - 1] : nullptr;
}

constexpr const KindRow& RowOf(Kind kind) { return *FindKind(static_cast<uint8_t>(kind)); }

// Of column `i` of `count` in a block of that kind. More columns than the row has are more of the
// first.
constexpr const ColumnRow& ColumnAt(const KindRow& row, size_t i, size_t count) {
  const size_t more = count - row.columns.size();
  return row.columns[i < more ? 0 : i - more];
}

constexpr bool RowsAreInOrder() {
  uint8_t wire_type = 1;
  for (const KindRow& row : kKinds) {
    if (static_cast<uint8_t>(row.kind) != wire_type++) return false;
  }
  return true;
}
static_assert(RowsAreInOrder());
static_assert(kTimerColumns[kTimerCount].name == "counter");

}  // namespace tidegate::agent
