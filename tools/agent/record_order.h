#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <unordered_map>
#include <vector>

#include "agent/kinds.h"
#include "agent/packet_reader.h"
#include "agent/series_entry.h"

namespace tidegate::agent {

// Hands on the records of each series in the order of their times, for receivers that refuse what
// comes out of order. Only an earlier point does: it mostly comes after the point that it precedes,
// some milliseconds later. So a record is handed on at once if none can come before it: its kind
// has no earlier points, or the series had a point one step before it, in the same columns. A step
// is the smallest distance of two points that the series has had. Other records, the first ones of
// a series and those after a silence, are held for `hold`, and with them those that come meanwhile.
//
// Not thread-safe. What is held takes `max_bytes`, and of one series kMaxHeldOfSeries records;
// beyond that the oldest are handed on before their time. An exception of Take leaves the record
// out; one of `hand_on` ends any call, and that record is not handed on again.
class RecordOrder {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  // The record may lack its tags.
  using HandOn = std::function<void(KeyedSeries*, const KindRow&, const Series&, int64_t)>;

  static constexpr size_t kMaxHeldOfSeries = 64;

  RecordOrder(std::chrono::steady_clock::duration hold, size_t max_bytes, HandOn hand_on);

  // A record of a series with this time.
  void Take(KeyedSeries* series, const KindRow& kind, const Series& record, int64_t timestamp,
            TimePoint now);

  // Hands on what has been held for long enough, some `most` records of it.
  void Release(TimePoint now, size_t most);

  // Hands on all that is held of the series.
  void ReleaseAll(KeyedSeries* series);

  size_t held() const { return held_count_; }  // records
  size_t bytes() const { return bytes_; }

 private:
  struct Held {
    int64_t timestamp;
    bool sure;  // that none comes between it and the one before
    std::vector<uint32_t> indexes;
    std::vector<double> values;

    size_t Bytes() const;
  };
  struct HeldSeries {
    const KindRow* kind;
    std::vector<Held> records;  // by time
  };
  using HeldTable = std::unordered_map<KeyedSeries*, HeldSeries>;
  // At that time all records of the series up to `timestamp` are handed on.
  struct Due {
    TimePoint at;
    KeyedSeries* series;
    int64_t timestamp;
  };

  void Insert(HeldSeries* held, KeyedSeries* series, const Series& record, int64_t timestamp,
              TimePoint now);
  void ReleaseFirst(size_t* most);
  void ReleaseUpTo(HeldTable::iterator held, int64_t timestamp, size_t* most);
  void ReleaseOldest(HeldSeries* held, KeyedSeries* series);
  void Drop(HeldTable::iterator held);

  const std::chrono::steady_clock::duration hold_;
  const size_t max_bytes_;
  const HandOn hand_on_;
  HeldTable held_;
  std::deque<Due> due_;
  Series record_;  // that is handed on
  size_t held_count_ = 0;
  size_t bytes_ = 0;
};

}  // namespace tidegate::agent
