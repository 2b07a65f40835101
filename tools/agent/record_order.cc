#include "agent/record_order.h"

#include <algorithm>
#include <utility>

#include "agent/heap_bytes.h"

namespace tidegate::agent {
namespace {

constexpr uint32_t kMaxStep = (uint32_t{1} << 31) - 1;

// REQUIRES: `to` is not before `from`.
uint64_t Distance(int64_t from, int64_t to) {
  return static_cast<uint64_t>(to) - static_cast<uint64_t>(from);
}

void LearnStep(uint64_t distance, SeriesEntry* entry) {
  if (distance == 0 || distance > kMaxStep) return;
  if (entry->step == 0 || distance < entry->step) entry->step = distance & kMaxStep;
}

bool IsStep(const SeriesEntry& entry, int64_t from, int64_t to) {
  return to > from && Distance(from, to) <= entry.step;
}

// Whether each column of the record had a value one step before, or has a later one.
bool FollowsAll(const SeriesEntry& entry, const Series& record, int64_t timestamp) {
  const Cell* const cells = entry.cells();
  for (size_t i = 0; i < record.values.size(); ++i) {
    const int64_t last = cells[record.indexes.empty() ? i : record.indexes[i]].timestamp;
    if (last == INT64_MIN || (timestamp > last && !IsStep(entry, last, timestamp))) return false;
  }
  return true;
}

}  // namespace

RecordOrder::RecordOrder(std::chrono::steady_clock::duration hold, size_t max_bytes, HandOn hand_on)
    : hold_(hold), max_bytes_(max_bytes), hand_on_(std::move(hand_on)) {}

size_t RecordOrder::Held::Bytes() const {
  // A list has room for up to twice its records.
  return 2 * sizeof(Held) + values.capacity() * sizeof(double) +
         indexes.capacity() * sizeof(uint32_t) + 2 * kHeapOverhead;
}

void RecordOrder::Take(KeyedSeries* series, const KindRow& kind, const Series& record,
                       int64_t timestamp, TimePoint now) {
  SeriesEntry& entry = series->second;
  if (!entry.held) {
    const bool sure = !kind.has_earlier_point || FollowsAll(entry, record, timestamp);
    if (entry.newest != INT64_MIN && timestamp > entry.newest) {
      LearnStep(Distance(entry.newest, timestamp), &entry);
    }
    if (sure) return hand_on_(series, kind, record, timestamp);
  }
  const auto held = held_.try_emplace(series, HeldSeries{&kind, {}}).first;
  if (!entry.held) bytes_ += sizeof(HeldTable::value_type) + 4 * kHeapOverhead;
  entry.held = 1;
  entry.news = now;
  try {
    Insert(&held->second, series, record, timestamp, now);
  } catch (...) {
    if (held->second.records.empty()) Drop(held);
    throw;
  }
  if (held->second.records.size() > kMaxHeldOfSeries) ReleaseOldest(&held->second, series);
  for (size_t most = SIZE_MAX; bytes_ > max_bytes_ && !due_.empty();) ReleaseFirst(&most);
}

void RecordOrder::Insert(HeldSeries* held, KeyedSeries* series, const Series& record,
                         int64_t timestamp, TimePoint now) {
  std::vector<Held>& records = held->records;
  SeriesEntry& entry = series->second;
  const auto next =
      std::upper_bound(records.begin(), records.end(), timestamp,
                       [](int64_t time, const Held& other) { return time < other.timestamp; });
  const bool last = next == records.end();
  bool sure = false;
  if (next != records.begin()) {
    const Held& before = *std::prev(next);
    sure = last && IsStep(entry, before.timestamp, timestamp) && before.indexes == record.indexes;
    LearnStep(Distance(before.timestamp, timestamp), &entry);
  }
  if (!last) LearnStep(Distance(timestamp, next->timestamp), &entry);
  // One that comes before another is handed on together with that, if that waits itself.
  const bool waits = last ? !sure : next->sure;
  if (waits) {
    due_.push_back({now + hold_, series, timestamp});
    bytes_ += sizeof(Due);
  }
  try {
    const auto added = records.insert(next, {timestamp, sure, record.indexes, record.values});
    bytes_ += added->Bytes();
    ++held_count_;
  } catch (...) {
    if (waits) {
      due_.pop_back();
      bytes_ -= sizeof(Due);
    }
    throw;
  }
}

void RecordOrder::Release(TimePoint now, size_t most) {
  while (most > 0 && !due_.empty() && due_.front().at <= now) ReleaseFirst(&most);
}

void RecordOrder::ReleaseFirst(size_t* most) {
  // It stays until all is done: after an exception the rest comes with the next call.
  const Due due = due_.front();
  const auto held = held_.find(due.series);
  if (held != held_.end()) ReleaseUpTo(held, due.timestamp, most);
  due_.pop_front();
  bytes_ -= sizeof(Due);
}

void RecordOrder::ReleaseAll(KeyedSeries* series) {
  const auto held = held_.find(series);
  size_t most = SIZE_MAX;
  if (held != held_.end()) ReleaseUpTo(held, INT64_MAX, &most);
}

void RecordOrder::ReleaseUpTo(HeldTable::iterator held, int64_t timestamp, size_t* most) {
  std::vector<Held>& records = held->second.records;
  while (!records.empty() && (records.front().sure || records.front().timestamp <= timestamp)) {
    *most -= *most > 0 ? 1 : 0;
    ReleaseOldest(&held->second, held->first);
  }
  if (records.empty()) Drop(held);
}

void RecordOrder::ReleaseOldest(HeldSeries* held, KeyedSeries* series) {
  Held& oldest = held->records.front();
  const int64_t timestamp = oldest.timestamp;
  bytes_ -= oldest.Bytes();
  --held_count_;
  record_.indexes = std::move(oldest.indexes);
  record_.values = std::move(oldest.values);
  held->records.erase(held->records.begin());
  hand_on_(series, *held->kind, record_, timestamp);
}

void RecordOrder::Drop(HeldTable::iterator held) {
  held->first->second.held = 0;
  bytes_ -= sizeof(HeldTable::value_type) + 4 * kHeapOverhead;
  held_.erase(held);
}

}  // namespace tidegate::agent
