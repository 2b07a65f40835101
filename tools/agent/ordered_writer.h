#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "agent/health.h"
#include "agent/point_format.h"
#include "agent/record_order.h"
#include "agent/series_recorder.h"
#include "agent/series_table.h"

namespace tidegate::agent {

// Writes the points of each series in the order of their times, for receivers that need them so: a
// table of its own finds the series, a RecordOrder holds the records that an earlier one may still
// precede, and a class for each form writes them. Points for which the table has no room, or no
// name that is free, are dropped and counted, and so are those whose time no receiver takes.
//
// Threads: as PointWriter. Memory is bounded: the series as those of a SeriesTable, and what is
// held by its HoldLimits.
class OrderedWriter : public PointWriter, private SeriesRecorder {
 public:
  struct HoldLimits {
    std::chrono::seconds time;  // for the earlier points of a flush, which come after it
    size_t bytes;
  };

  // Records that HandOut hands on at a time once they have been held.
  static constexpr size_t kMaxHandedOut = 200000;

  // With a page in the options, series have families, and their names can collide as on the page.
  OrderedWriter(const SeriesTable::Options& options, const HoldLimits& limits,
                SeriesTable::Clock clock);

  void StartBlock(const Packet& packet, const ClientId& client, const Block& block) override;
  bool Write(const Series& record, PointOutput* out) override;
  size_t work() const override { return work_; }
  void HandOut(bool all, PointOutput* out) override;
  Held held() const override;

 protected:
  // The next record of a series, in order, maybe without its tags: writes it to out() or drops it
  // there, and counts it. Returns the bytes that it tried to write.
  virtual size_t HandOn(KeyedSeries* series, const KindRow& kind, const Series& record,
                        int64_t timestamp) = 0;

  // Puts a record that is not late into the cells of its series.
  void Keep(const KindRow& kind, const Series& record, int64_t timestamp, SeriesEntry* entry) const;

  PointOutput* out() const { return out_; }                           // of the call
  std::chrono::steady_clock::time_point now() const { return now_; }  // likewise

 private:
  void Take(KeyedSeries* series, const KindRow& kind, const Series& record, int64_t timestamp,
            std::chrono::steady_clock::time_point now) override;
  void Restart(KeyedSeries* series) override { order_.ReleaseAll(series); }

  const SeriesTable::Clock clock_;
  Health table_health_;  // of the table, which counts for itself alone
  RecordOrder order_;
  SeriesTable table_;
  PointOutput* out_ = nullptr;
  std::chrono::steady_clock::time_point now_;
  size_t work_ = 0;
  bool is_taken_ = false;  // the record of the call, by order_
};

}  // namespace tidegate::agent
