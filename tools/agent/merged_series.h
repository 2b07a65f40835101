#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agent/merge_rules.h"
#include "agent/merged_totals.h"
#include "agent/packet_reader.h"
#include "agent/packet_sink.h"
#include "agent/point_mapping.h"

namespace tidegate::agent {

using SteadyTime = std::chrono::steady_clock::time_point;

// The common part of all series of one name with the same columns.
struct MergedLayout {
  MergedLayout(const Block& block, Kind kind, std::vector<MergeRule> rules, GaugeMerge gauge);

  // Those of its columns that come in `record` are totals, if they may be.
  void MarkTotals(const Series& record);

  const Kind kind;
  GaugeMerge gauge;
  const std::vector<Field> fields;
  std::vector<MergeRule> rules;           // of each column
  std::vector<uint32_t> total_positions;  // of each column that may be a total, among those
  uint32_t totals = 0;                    // how many of those
};

// One series that several are merged into, of all processes or of one: the points that they have
// reported for times that are not handed on yet, and their counts so far.
//
// Not thread-safe. Its memory grows by MergedSeries::bytes(), which the owner watches.
class MergedSeries {
 public:
  // The fate of a point.
  enum class Added {
    kHeld,
    kLate,     // its time was handed on: what adds up goes with the next time, the rest is lost
    kNothing,  // likewise, and there was nothing in it
  };

  explicit MergedSeries(MergedLayout* layout) : layout_(layout), totals_(layout->totals) {}

  const MergedLayout* layout() const { return layout_; }

  // Whether the series can take points with this layout at this time. One with other columns than
  // before has to wait until a whole interval has passed without the old ones.
  bool Accepts(MergedLayout* layout, int64_t timestamp);

  // `before`: the packet can be one of earlier points. Points are late if their time was taken, or
  // is not after `begin`.
  Added Add(const SourceId& source, int64_t timestamp, const Series& record, bool before,
            int64_t begin, SteadyTime now);

  bool Holds(int64_t timestamp) const;
  // Whether a point of this time would be the first that is held for it.
  bool IsNew(int64_t timestamp, int64_t begin) const {
    return timestamp > std::max(handed_, begin) && !Holds(timestamp);
  }
  // No point is late for a time so far in the future: the clock was set back, or a client has a
  // wrong one.
  void ForgetTimesAfter(int64_t latest) {
    if (handed_ > latest) handed_ = INT64_MIN;
    if (late_ != nullptr && late_->timestamp > latest) late_->timestamp = INT64_MIN;
  }
  bool IsIdle() const { return held_.empty(); }

  // Takes the point that is held for `timestamp` out, into the indexes and values of `record`.
  // Returns how many percentiles were left out. REQUIRES: Holds(timestamp).
  size_t Take(int64_t timestamp, Series* record);

  // Forgets the counts of those processes of which `is_known` says false, and of series without
  // news since `oldest`.
  template <typename IsKnown>
  void ForgetSources(const IsKnown& is_known, SteadyTime oldest);

  size_t bytes() const;

 private:
  struct Cell {
    double value = 0;  // by the rule of the column
    double increase = 0;
    bool used = false;
  };
  struct Point {
    int64_t timestamp = 0;
    SourceId source;       // that reported first
    bool several = false;  // or more than one
    std::vector<Cell> cells;
  };
  struct Source {
    SteadyTime news;
    std::vector<ProcessTotal> totals;
  };

  Point* Find(int64_t timestamp);
  Point* FindOrMake(int64_t timestamp, const SourceId& source);
  Point* Late(int64_t timestamp);
  Source* SourceOf(const SourceId& id, SteadyTime now);
  bool AddValue(size_t column, double value, bool late, Point* point) const;
  bool AddTotal(Source* source, int64_t timestamp, size_t column, const Series& record,
                size_t position);
  // Whether it is for a time that was handed on.
  bool AddIncrease(const ProcessTotal::Increase& increase, size_t column);
  void AddWhatWasLate(Point* point);
  void FinishAverages(Point* point) const;

  MergedLayout* layout_;
  std::vector<Point> held_;      // by time
  std::unique_ptr<Point> late_;  // what adds up, for the next time after its own
  std::unordered_map<SourceId, Source> sources_;
  std::vector<double> totals_;      // of all processes, up to handed_
  int64_t handed_ = INT64_MIN;      // the newest time that was taken
  std::optional<int64_t> refused_;  // the newest time of other columns, since points of these
};

template <typename IsKnown>
void MergedSeries::ForgetSources(const IsKnown& is_known, SteadyTime oldest) {
  for (auto next = sources_.begin(); next != sources_.end();) {
    const bool keep = next->second.news >= oldest && is_known(next->first.process);
    next = keep ? std::next(next) : sources_.erase(next);
  }
}

}  // namespace tidegate::agent
