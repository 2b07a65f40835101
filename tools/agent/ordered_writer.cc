#include "agent/ordered_writer.h"

#include <algorithm>
#include <new>
#include <string>
#include <utility>

#include "agent/family_samples.h"

namespace tidegate::agent {

OrderedWriter::OrderedWriter(const SeriesTable::Options& options, const HoldLimits& limits,
                             SeriesTable::Clock clock)
    : clock_(std::move(clock)),
      order_(limits.time, limits.bytes,
             [this](KeyedSeries* series, const KindRow& kind, const Series& record,
                    int64_t timestamp) { work_ += HandOn(series, kind, record, timestamp); }),
      // The table of the page reports the same.
      table_(
          options, &table_health_, [](const std::string& /*line*/) {}, clock_, this) {}

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
    // What failed after it is about a line that nobody reads.
    if (!is_taken_) throw;
  }
  return true;
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
  return {order_.held(), order_.bytes() + table_health_.series_bytes};
}

void OrderedWriter::Keep(const KindRow& kind, const Series& record, int64_t timestamp,
                         SeriesEntry* entry) const {
  entry->Keep(kind, record, timestamp);
  if (timestamp > entry->newest) entry->news = now_;
  entry->newest = std::max(entry->newest, timestamp);
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

}  // namespace tidegate::agent
