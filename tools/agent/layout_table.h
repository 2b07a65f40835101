#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/packet_reader.h"
#include "agent/page_names.h"
#include "agent/series_budget.h"
#include "agent/series_layout.h"

namespace tidegate::agent {

// The metrics that series belong to, by kind and name, each with its layouts. A layout that has
// just been made is shown under its names, as far as they are free.
//
// Not thread-safe. Borrows both.
class LayoutTable {
 public:
  // The metric and the layout of a block; null: there is none yet.
  struct Target {
    Kind kind;
    const Block* block;
    SeriesMetric* metric;
    SeriesLayout* layout;
  };

  // Without a page, layouts have no families.
  LayoutTable(bool page, PageNames* names, SeriesBudget* budget)
      : page_(page), names_(names), budget_(budget) {}

  Target Find(const Block& block);
  // Of the metric that was looked for last.
  size_t KeyHash();

  // The bytes that the target would take on the page at most, with one series of that many bytes of
  // labels. Each call for a layout that is missing is work.
  size_t MaxPageBytes(const Target& target, size_t label_bytes);

  // Makes the layout, and the metric if that is missing too.
  // REQUIRES: the target is that of the last Find, without a layout.
  void Add(Target* target, size_t label_bytes);

  // Lets go of layouts and metrics that no series has, and shows those whose names became free.
  void Sweep();
  // As ShrinkBuckets does.
  void Shrink();

  // Of all metrics. The index of one stays as long as no other one is let go.
  const std::vector<SeriesLayout*>& all() const { return all_; }

 private:
  void SweepLayouts(SeriesMetric* metric);

  const bool page_;
  PageNames* const names_;
  SeriesBudget* const budget_;
  std::unordered_map<std::string, std::unique_ptr<SeriesMetric>> metrics_;
  std::vector<SeriesLayout*> all_;
  uint64_t next_id_ = 0;
  std::string key_;                 // that was looked for last
  std::optional<size_t> key_hash_;  // if it was needed
};

}  // namespace tidegate::agent
