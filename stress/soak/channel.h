#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "metrics/bound_series.h"
#include "metrics/metric.h"
#include "metrics/metric_registry.h"
#include "soak/account.h"
#include "soak/ledger.h"
#include "support/report.h"

namespace tidegate::stress {

using Random = std::mt19937_64;

// A whole number from `low` to `high`.
inline int Between(Random& random, int low, int high) {
  return std::uniform_int_distribution<int>(low, high)(random);
}

enum class Shape : uint8_t {
  kSuffixed,
  kSuffixedCkms,
  kSuffixedRowTimer,
  kRow,
  kRowCkms,
  kCompatibleRate,
  kCompatibleCounter,
  kCompatibleMeter,
  kCompatibleTimer,
  kCompatibleGauge,
};
constexpr int kShapes = 10;

bool IsCompatible(Shape shape);

// Makes a metric of the shape, with cells of every type that it can have; null, and a violation,
// when it is refused.
METRICS::Metric* MakeMetric(METRICS::MetricRegistry& registry, const std::string& name, Shape shape,
                            Report& report);

// The series of one generation of a metric, with the accounts of the emissions on them.
//
// Threads: `Emit` from any; the rest from one, while nobody emits.
class Channel {
 public:
  struct Plan {
    METRICS::Metric* metric;
    Shape shape;
    std::string generation;  // a tag, which sets these series apart from earlier ones
    size_t series;
    // Off: the tags do not reach the packets, so there is one series.
    bool tags_arrive = true;
    bool bound = false;  // emissions are made on bound series, too
  };

  Channel(Plan plan, Ledger& ledger, Report& report);
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // A random value on each cell of a random series.
  void Emit(Random& random) { EmitOn(random() % plan_.series, random); }
  // Many emissions on one series without a pause, so that flushes meet them in the middle.
  void Burst(Random& random);
  void EmitOnAll(Random& random);

  // Makes all series and holds on to them.
  void Prime();
  // Binds a handle to each cell, if the plan has them and they are not there.
  void Bind();
  // Lets go of the series, as is due before the metric is removed.
  // The last series first: held ones do not count in the quarter from which expiry erases, and
  // those that were aged are the first.
  void LetGo() {
    held_.clear();
    while (!handles_.empty()) {
      handles_.pop_back();
    }
  }

  using Item = std::shared_ptr<METRICS::MetricCollectorItem>;
  Item Find(size_t series) const;
  bool IsSettled() const;
  // Reports series that are not settled as violations.
  void Complain(const std::string& when) const;
  void CheckReceivedTotals() const;
  void CloseAccounts() const;

  const Plan& plan() const { return plan_; }
  int64_t emissions() const;

 private:
  void EmitOn(size_t series, Random& random);
  METRICS::ReturnCode EmitNumbers(METRICS::MetricCollectorItem& item,
                                  std::vector<METRICS::MetricFieldValue> values,
                                  Random& random) const;
  // Looked up and emitted in one call for each of the values.
  void EmitInOneCall(size_t series, const std::vector<METRICS::MetricFieldValue>& values,
                     Random& random) const;
  void EmitBound(size_t series, const std::vector<METRICS::MetricFieldValue>& values);
  int RandomValue(Random& random) const;
  // One for each cell.
  std::vector<METRICS::MetricFieldValue> ValuesOf(int value, Random& random) const;
  void Check(METRICS::ReturnCode code) const;
  Item FindSomehow(size_t series, Random& random) const;
  std::vector<tidegate::MetricTag> TagList(size_t series) const;
  std::vector<std::string> TagPairs(size_t series) const;

  const Plan plan_;
  Ledger& ledger_;
  Report& report_;
  std::vector<std::string> workers_;  // the tag that tells the series apart
  std::vector<std::shared_ptr<Account>> accounts_;
  std::vector<Item> held_;
  std::vector<METRICS::BoundSeries> handles_;  // series by series, a handle for each cell
};

}  // namespace tidegate::stress
