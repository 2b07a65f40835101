#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "agent/health.h"
#include "agent/point_format.h"
#include "agent/record_order.h"
#include "agent/series_recorder.h"
#include "agent/series_table.h"
#include "agent/time_series_writer.h"

namespace tidegate::agent {

// Writes samples for Prometheus remote write: those that the page of metrics would show, under the
// same names and labels, but all of them, each with the time of its point, and those of each series
// in the order of their times. What the page adds up is added up here in the same way.
//
// A sample counts as a point. One that is not newer than the last one of its series is late: it is
// dropped and counted, but what adds up is in the next one. Points for which the table has no room,
// or no name that is free, are dropped and counted.
//
// Threads: as PointWriter. A table of its own holds the series, bounded as that of the page, and
// what RecordOrder holds takes kHeldBytesPerSeries for each of `max_series`.
class RemoteWriteWriter : public PointWriter, private SeriesRecorder {
 public:
  static constexpr size_t kHeldBytesPerSeries = 384;
  static constexpr std::chrono::seconds kHold{5};

  // Records that are handed on at a time once they have been held, and pauses between two messages
  // that say what a family is.
  static constexpr size_t kMaxHandedOut = 200000;
  static constexpr std::chrono::minutes kMetadataPause{5};

  explicit RemoteWriteWriter(const SeriesTable::Options& options,
                             SeriesTable::Clock clock = SeriesTable::Now);

  void StartBlock(const Packet& packet, const ClientId& client, const Block& block) override;
  bool Write(const Series& record, PointOutput* out) override;
  size_t work() const override { return work_; }
  void HandOut(bool all, PointOutput* out) override;
  Held held() const override;

 private:
  void Take(KeyedSeries* series, const KindRow& kind, const Series& record, int64_t timestamp,
            std::chrono::steady_clock::time_point now) override;
  void Restart(KeyedSeries* series) override { order_.ReleaseAll(series); }

  // What a column of a record is, beside those that came before.
  enum class Column : char { kAbsent, kFresh, kLate };
  struct Counts {
    uint64_t written = 0;
    uint64_t late = 0;
  };

  // The next record of a series, in order.
  void HandOn(KeyedSeries* series, const KindRow& kind, const Series& record, int64_t timestamp);
  void SortColumns(const SeriesEntry& entry, const KindRow& kind, const Series& record,
                   int64_t timestamp);
  // Appends the samples of the fresh columns, whose cells have their values.
  Counts Append(const KeyedSeries& series);
  void AddLabels(std::string_view key);
  void Describe(SeriesLayout* layout);

  const SeriesTable::Clock clock_;
  Health table_health_;  // of the table, which counts for itself alone
  RecordOrder order_;
  SeriesTable table_;
  TimeSeriesWriter samples_;
  PointOutput* out_ = nullptr;  // of the call
  std::chrono::steady_clock::time_point now_;
  std::vector<Column> columns_;  // of the record
  size_t work_ = 0;
  bool is_taken_ = false;  // the record of the call
};

}  // namespace tidegate::agent
