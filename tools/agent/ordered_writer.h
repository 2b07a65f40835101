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

// Writes the points of each series in the order of their times, for receivers that need them so,
// and knows what of a series is cumulative. A point that is not later than one that was written is
// late: it is dropped and counted, but what adds up of it is in the next point's sums.
//
// Not thread-safe. Memory is bounded: as that of a SeriesTable, which refuses points of new series
// beyond its limits; and kMaxHeldBytes for points that are held.
class OrderedWriter : public PointWriter, private SeriesRecorder {
 public:
  // For the earlier points of a flush, which come after it.
  static constexpr std::chrono::seconds kHold{2};
  static constexpr size_t kMaxHeldBytes = size_t{64} << 20;
  // Of a second.
  static constexpr size_t kMaxHandedOut = 200000;

  // With a page in the options, series have families, and their names can collide as on the page.
  explicit OrderedWriter(const SeriesTable::Options& options,
                         SeriesTable::Clock clock = SeriesTable::Now);

  void StartBlock(const Packet& packet, const ClientId& client, const Block& block) override;
  bool Write(const Series& record, PointOutput* out) override;
  size_t work() const override { return work_; }
  void EndPacket(PointOutput* out) override;
  void HandOut(bool all, PointOutput* out) override;
  Held held() const override;

 protected:
  // A point of a series. Its cells and its start are those with the point. Counts it by out->End or
  // out->Drop, at once or in EndPoints. Returns the bytes that it tried to write. If it throws, the
  // point is neither written nor counted.
  virtual size_t WritePoint(const KeyedSeries& series, const Series& record, int64_t timestamp,
                            PointOutput* out) = 0;

  // No more points come for now.
  virtual void EndPoints(PointOutput* /*out*/) {}

 private:
  void Take(KeyedSeries* series, const KindRow& kind, const Series& record, int64_t timestamp,
            std::chrono::steady_clock::time_point now) override;
  void Restart(KeyedSeries* series) override;
  void HandOn(KeyedSeries* series, const KindRow& kind, const Series& record, int64_t timestamp);
  static bool IsLate(const SeriesEntry& entry, const KindRow& kind, const Series& record,
                     int64_t timestamp);
  int64_t IntervalBegin(const SeriesEntry& entry, int64_t timestamp) const;

  const SeriesTable::Clock clock_;
  const int64_t born_;  // seconds since the epoch
  Health health_;       // of the table, apart from that of the agent's own table
  RecordOrder order_;
  SeriesTable table_;
  PointOutput* out_ = nullptr;  // of the call
  std::chrono::steady_clock::time_point now_;
  size_t work_ = 0;
  bool is_taken_ = false;       // the record of the call, by order_
  bool out_of_memory_ = false;  // something was lost and counted, and nothing thrown yet
};

}  // namespace tidegate::agent
