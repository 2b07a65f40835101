#include "agent/otlp_point_writer.h"

#include <algorithm>
#include <new>
#include <utility>

#include "agent/process_slots.h"
#include "agent/series_start.h"

namespace tidegate::agent {
namespace {

constexpr size_t kPieceBytes = size_t{64} << 10;

}  // namespace

OtlpPointWriter::OtlpPointWriter(const OtlpAttributes& attributes, std::string_view host,
                                 const SeriesTable::Options& options)
    : OrderedWriter(options, kHoldLimits, SeriesTable::Now),
      born_(SeriesTable::Now().seconds),
      writer_(attributes, host) {}

void OtlpPointWriter::EndPacket(PointOutput* out) {
  EndPoints(out);
  if (std::exchange(out_of_memory_, false)) throw std::bad_alloc();
}

PointWriter::Held OtlpPointWriter::held() const {
  Held held = OrderedWriter::held();
  held.points += points_;
  held.bytes += writer_.bytes();
  return held;
}

size_t OtlpPointWriter::HandOn(KeyedSeries* series, const KindRow& kind, const Series& record,
                               int64_t timestamp) {
  SeriesEntry& entry = series->second;
  if (IsLate(entry, kind, record, timestamp)) {
    if (kind.adds_up) entry.Keep(kind, record, timestamp);
    out()->Drop(ForwardDrop::kLate, 1);
    return 0;
  }
  entry.start = StartWith(entry, kind.kind, record, timestamp, IntervalBegin(entry, timestamp));
  Keep(kind, record, timestamp, &entry);
  try {
    if (writer_.bytes() >= kPieceBytes) EndPoints(out());
    if (writer_.Append(*series, record, timestamp)) {
      ++points_;
    } else {
      out()->Drop(ForwardDrop::kEmpty, 1);
    }
  } catch (const std::exception&) {
    Lose(out());
    out()->Drop(ForwardDrop::kMemory, 1);
    out_of_memory_ = true;
    return 0;
  }
  return writer_.tried_bytes();
}

// The columns of a row are series of their own: those with earlier points have them alone.
bool OtlpPointWriter::IsLate(const SeriesEntry& entry, const KindRow& kind, const Series& record,
                             int64_t timestamp) {
  if (kind.form != ColumnForm::kAny || record.indexes.empty()) return timestamp <= entry.newest;
  return std::all_of(record.indexes.begin(), record.indexes.end(),
                     [&](uint32_t column) { return timestamp <= entry.cells()[column].timestamp; });
}

// An agent before this one may have sent sums up to the time when this one began.
int64_t OtlpPointWriter::IntervalBegin(const SeriesEntry& entry, int64_t timestamp) const {
  const int64_t longest = timestamp - ProcessSlots::kMaxInterval;
  const int64_t begin = entry.step > 0 ? timestamp - entry.step : std::max(longest, born_);
  return std::min(begin, timestamp - 1);
}

void OtlpPointWriter::EndPoints(PointOutput* out) {
  if (points_ == 0) return;
  try {
    writer_.Take(out->bytes());
  } catch (...) {
    Lose(out);
    throw;
  }
  out->End(std::exchange(points_, 0));
}

void OtlpPointWriter::Lose(PointOutput* out) {
  writer_.Clear();
  out->Drop(ForwardDrop::kMemory, std::exchange(points_, 0));
}

}  // namespace tidegate::agent
