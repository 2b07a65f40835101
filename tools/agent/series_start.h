#pragma once

#include <cstdint>

#include "agent/packet_reader.h"
#include "agent/series_entry.h"

namespace tidegate::agent {

// Since when the totals and sums of a series count, with a point that is about to go into its
// cells. The points are given in the order of their times.
//
// A total that is seen for the first time may have counted before: it counts since its first point,
// whose value is what it began with. A total that falls has begun again: at its own point if it is
// 0 there, else at the point before. A sum counts since `interval_begin`, where the interval of its
// first point began. Kinds that have neither stay at what they are.
int64_t StartWith(const SeriesEntry& entry, Kind kind, const Series& record, int64_t timestamp,
                  int64_t interval_begin);

}  // namespace tidegate::agent
