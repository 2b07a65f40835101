#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "agent/ordered_writer.h"
#include "agent/otlp_writer.h"

namespace tidegate::agent {

// Writes the points of packets as OTLP, and knows what of a series is cumulative. A point that is
// not later than one that was written is late: it is dropped and counted, but what adds up of it is
// in the next point's sums. The points of a packet share their resources.
//
// Threads: as PointWriter.
class OtlpPointWriter : public OrderedWriter {
 public:
  static constexpr HoldLimits kHoldLimits{std::chrono::seconds(2), size_t{64} << 20};

  // The attributes and the host are as OtlpWriter takes them, the options are for the series.
  OtlpPointWriter(const OtlpAttributes& attributes, std::string_view host,
                  const SeriesTable::Options& options);

  void EndPacket(PointOutput* out) override;
  Held held() const override;

 private:
  size_t HandOn(KeyedSeries* series, const KindRow& kind, const Series& record,
                int64_t timestamp) override;
  static bool IsLate(const SeriesEntry& entry, const KindRow& kind, const Series& record,
                     int64_t timestamp);
  int64_t IntervalBegin(const SeriesEntry& entry, int64_t timestamp) const;
  void EndPoints(PointOutput* out);
  void Lose(PointOutput* out);

  const int64_t born_;  // seconds since the epoch
  OtlpWriter writer_;
  uint64_t points_ = 0;         // in writer_
  bool out_of_memory_ = false;  // points were lost and counted, and nothing thrown yet
};

}  // namespace tidegate::agent
