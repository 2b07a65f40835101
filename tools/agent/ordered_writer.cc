#include "agent/ordered_writer.h"

#include <algorithm>
#include <new>
#include <utility>

#include "agent/family_samples.h"
#include "agent/process_slots.h"
#include "agent/series_start.h"

namespace tidegate::agent {
OrderedWriter::OrderedWriter(const SeriesTable::Options& options, SeriesTable::Clock clock)
    : clock_(std::move(clock)),
      born_(clock_().seconds),
      order_(kHold, kMaxHeldBytes,
             [this](KeyedSeries* series, const KindRow& kind, const Series& record,
                    int64_t timestamp) { HandOn(series, kind, record, timestamp); }),
      // The table of the page reports the same.
      table_(
          options, &health_, [](const std::string& /*line*/) {}, clock_, this) {}

void OrderedWriter::StartBlock(const Packet& packet, const ClientId& client, const Block& block) {
  table_.StartBlock(packet, client, block);
}

bool OrderedWriter::Write(const Series& record, PointOutput* out) {
  out_ = out;
  work_ = 0;
  is_taken_ = false;
  try {
    if (table_.Take(record)) out->Drop(ForwardDrop::kSeries, 1);
  } catch (const std::bad_alloc&) {
    if (!is_taken_) throw;
    out_of_memory_ = true;
  }
  return true;
}

void OrderedWriter::EndPacket(PointOutput* out) {
  out_ = out;
  EndPoints(out);
  if (std::exchange(out_of_memory_, false)) throw std::bad_alloc();
}

void OrderedWriter::HandOut(bool all, PointOutput* out) {
  out_ = out;
  now_ = clock_().steady;
  if (all) {
    order_.Release(std::chrono::steady_clock::time_point::max(), SIZE_MAX);
  } else {
    order_.Release(now_, kMaxHandedOut);
  }
  table_.Sweep();
  EndPacket(out);
}

PointWriter::Held OrderedWriter::held() const {
  return {order_.held(), order_.bytes() + health_.series_bytes};
}

void OrderedWriter::Take(KeyedSeries* series, const KindRow& kind, const Series& record,
                         int64_t timestamp, std::chrono::steady_clock::time_point now) {
  now_ = now;
  if (timestamp < -kMaxSampleSeconds) {
    out_->Drop(ForwardDrop::kEmpty, 1);
  } else {
    order_.Take(series, kind, record, timestamp, now);
  }
  is_taken_ = true;
}

void OrderedWriter::Restart(KeyedSeries* series) { order_.ReleaseAll(series); }

void OrderedWriter::HandOn(KeyedSeries* series, const KindRow& kind, const Series& record,
                           int64_t timestamp) {
  SeriesEntry& entry = series->second;
  if (IsLate(entry, kind, record, timestamp)) {
    if (kind.adds_up) entry.Keep(kind, record, timestamp);
    out_->Drop(ForwardDrop::kLate, 1);
    return;
  }
  entry.start = StartWith(entry, kind.kind, record, timestamp, IntervalBegin(entry, timestamp));
  entry.Keep(kind, record, timestamp);
  if (timestamp > entry.newest) entry.news = now_;
  entry.newest = std::max(entry.newest, timestamp);
  try {
    work_ += WritePoint(*series, record, timestamp, out_);
  } catch (const std::bad_alloc&) {
    out_->Drop(ForwardDrop::kMemory, 1);
    out_of_memory_ = true;
  }
}

// The columns of a row are series of their own: those with earlier points have them alone.
bool OrderedWriter::IsLate(const SeriesEntry& entry, const KindRow& kind, const Series& record,
                           int64_t timestamp) {
  if (kind.form != ColumnForm::kAny || record.indexes.empty()) return timestamp <= entry.newest;
  return std::all_of(record.indexes.begin(), record.indexes.end(),
                     [&](uint32_t column) { return timestamp <= entry.cells()[column].timestamp; });
}

// An agent before this one may have sent sums up to the time when this one began.
int64_t OrderedWriter::IntervalBegin(const SeriesEntry& entry, int64_t timestamp) const {
  const int64_t longest = timestamp - ProcessSlots::kMaxInterval;
  const int64_t begin = entry.step > 0 ? timestamp - entry.step : std::max(longest, born_);
  return std::min(begin, timestamp - 1);
}

}  // namespace tidegate::agent
