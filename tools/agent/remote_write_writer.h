#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "agent/ordered_writer.h"
#include "agent/time_series_writer.h"

namespace tidegate::agent {

// Writes samples for Prometheus remote write: those that the page of metrics would show, under the
// same names and labels, but all of them, each with the time of its point. What the page adds up is
// added up here in the same way.
//
// A sample counts as a point. One that is not newer than the last one of its series is late: it is
// dropped and counted, but what adds up is in the next one.
//
// Threads: as PointWriter. What is held takes kHeldBytesPerSeries for each of `max_series`.
class RemoteWriteWriter : public OrderedWriter {
 public:
  static constexpr size_t kHeldBytesPerSeries = 384;
  static constexpr std::chrono::seconds kHold{5};

  // Between two messages that say what a family is.
  static constexpr std::chrono::minutes kMetadataPause{5};

  explicit RemoteWriteWriter(const SeriesTable::Options& options,
                             SeriesTable::Clock clock = SeriesTable::Now);

 private:
  // What a column of a record is, beside those that came before.
  enum class Column : char { kAbsent, kFresh, kLate };
  struct Counts {
    uint64_t written = 0;
    uint64_t late = 0;
  };

  size_t HandOn(KeyedSeries* series, const KindRow& kind, const Series& record,
                int64_t timestamp) override;
  void SortColumns(const SeriesEntry& entry, const KindRow& kind, const Series& record,
                   int64_t timestamp);
  // Appends the samples of the fresh columns, whose cells have their values.
  Counts Append(const KeyedSeries& series);
  void AddLabels(std::string_view key);
  void Describe(SeriesLayout* layout);

  TimeSeriesWriter samples_;
  std::vector<Column> columns_;  // of the record
};

}  // namespace tidegate::agent
