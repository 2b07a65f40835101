#pragma once

#include <chrono>
#include <cstdint>

#include "agent/kinds.h"
#include "agent/packet_reader.h"
#include "agent/series_entry.h"

namespace tidegate::agent {

// Takes the records of a table of series, in place of the table, which only finds their series.
//
// Threads: that of the table's Handle, in it.
class SeriesRecorder {
 public:
  SeriesRecorder() = default;
  virtual ~SeriesRecorder() = default;
  SeriesRecorder(const SeriesRecorder&) = delete;
  SeriesRecorder& operator=(const SeriesRecorder&) = delete;

  // A record of a block of that kind and time.
  virtual void Take(KeyedSeries* series, const KindRow& kind, const Series& record,
                    int64_t timestamp, std::chrono::steady_clock::time_point now) = 0;

  // The columns of the series are about to change: it starts again.
  virtual void Restart(KeyedSeries* series) = 0;
};

}  // namespace tidegate::agent
