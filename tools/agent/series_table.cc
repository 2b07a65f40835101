#include "agent/series_table.h"

#include <algorithm>
#include <optional>
#include <thread>
#include <utility>

#include "agent/series_page.h"
#include "agent/series_reading.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kMaxSweepPause(10);

}  // namespace

SeriesTable::SeriesTable(const Options& options, Health* health, Report report, Clock clock,
                         SeriesRecorder* recorder)
    : options_(options),
      clock_(std::move(clock)),
      health_(health),
      recorder_(recorder),
      ttl_(options.ttl),
      max_ahead_(options.max_ahead),
      budget_(options.max_series),
      names_(*health, report, budget_.counted_bytes()),
      layouts_(options.page, &names_, &budget_),
      series_(options.page ? &names_ : nullptr, &budget_),
      refusals_(health),
      shared_(options.process_label, health, std::move(report)),
      now_(clock_()),
      swept_(now_.steady),
      aged_(now_.steady) {
  if (options.history.count() > 0) {
    history_.emplace(options.history, options.history_bytes, now_.seconds, health);
  }
}

SeriesTable::~SeriesTable() = default;

SeriesTable::Time SeriesTable::Now() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return {steady_clock::now(),
          std::chrono::duration_cast<std::chrono::seconds>(since_epoch).count()};
}

void SeriesTable::Handle(const Packet& packet, const ClientId& client) {
  ++waiting_;
  const WriteGuard lock(mutex_);
  --waiting_;
  now_ = clock_();
  budget_.BeginPacket();
  try {
    for (const Block& block : packet.blocks) HandleBlock(packet, client, block);
  } catch (...) {
    UpdateHealth();
    throw;
  }
  UpdateHealth();
}

void SeriesTable::StartBlock(const Packet& packet, const ClientId& client, const Block& block) {
  const WriteGuard lock(mutex_);
  if (&block == packet.blocks.data()) {
    now_ = clock_();
    budget_.BeginPacket();
    UpdateHealth();  // of the packets before
  }
  work_ = WorkFor(packet, client, block);
}

std::optional<Refusal> SeriesTable::Take(const Series& record) {
  const WriteGuard lock(mutex_);
  return Take(record, &work_);
}

void SeriesTable::HandleBlock(const Packet& packet, const ClientId& client, const Block& block) {
  if (block.series.empty()) return;
  Work work = WorkFor(packet, client, block);
  for (const Series& record : block.series) Take(record, &work);
}

SeriesTable::Work SeriesTable::WorkFor(const Packet& packet, const ClientId& client,
                                       const Block& block) {
  const bool ahead = (options_.page || recorder_ != nullptr) &&
                     block.timestamp > now_.seconds + max_ahead_.count();
  return {&packet, &client, &block, ahead ? LayoutTable::Target() : layouts_.Find(block), ahead};
}

std::optional<Refusal> SeriesTable::Take(const Series& record, Work* work) {
  if (work->ahead || budget_.IsTooMuchWork()) {
    const Refusal reason = work->ahead ? Refusal::kAhead : Refusal::kWork;
    refusals_.CountPoints(reason, 1);
    return reason;
  }
  LayoutTable::Target& target = work->target;
  identity_.Assign(*work->packet, *work->client, options_.process_label, target.kind, record);
  budget_.AddWork(identity_.key_bytes());
  KeyedSeries* keyed =
      target.metric == nullptr ? nullptr : series_.Find(&identity_, *target.metric);
  if (keyed == nullptr || keyed->second.layout != target.layout) {
    if (const auto refusal = AddOrMove(&target, &keyed)) return refusal;
  }
  if (!target.layout->shown_whole) refusals_.CountPoints(Refusal::kCollision, 1);
  Record(keyed, target.kind, record, work->block->timestamp);
  SeriesEntry& entry = keyed->second;
  const Reporter reporter(*work->client);
  if (entry.reporters.See(reporter)) {
    shared_.Add(*work->block, identity_.tags(), reporter, entry.reporters.other());
  }
  return std::nullopt;
}

void SeriesTable::Record(KeyedSeries* keyed, Kind kind, const Series& record, int64_t timestamp) {
  if (recorder_ != nullptr) {
    recorder_->Take(keyed, RowOf(kind), record, timestamp, now_.steady);
  } else {
    SeriesEntry& entry = keyed->second;
    entry.Update(RowOf(kind), record, timestamp, now_.steady);
    if (history_ && entry.newest == timestamp) {
      entry.last_point = history_->Add(entry.last_point, timestamp, entry.cells(),
                                       entry.layout->columns.size(), now_.steady);
    }
  }
}

std::optional<Refusal> SeriesTable::AddOrMove(LayoutTable::Target* target, KeyedSeries** series) {
  const bool known = *series != nullptr;
  if (!HasRoom(*target, known)) return Refuse(Refusal::kLimit);
  if (target->layout == nullptr) layouts_.Add(target, identity_.LabelBytes());
  SeriesLayout* const layout = target->layout;
  budget_.AddWork(layout->CellBytes());
  if (known) {
    if (recorder_ != nullptr) recorder_->Restart(*series);
    const int64_t newest = (*series)->second.newest;
    series_.Move(*series, layout);
    if (recorder_ != nullptr) (*series)->second.StartAfter(newest);
    if (!layout->shown_whole) CountSeriesOnce(Refusal::kCollision);
    return std::nullopt;
  }
  *series = series_.Add(&identity_, layout);
  if (*series == nullptr) return Refuse(Refusal::kCollision);
  ++made_;
  if (!layout->shown_whole) refusals_.CountSeries(Refusal::kCollision);
  return std::nullopt;
}

bool SeriesTable::HasRoom(const LayoutTable::Target& target, bool known) {
  // A series whose columns change takes no more room than before.
  if (!known && series_.size() >= budget_.max_series()) return false;
  return !budget_.IsFull() &&
         layouts_.MaxPageBytes(target, identity_.LabelBytes()) <= SeriesBudget::kMaxSeriesPageBytes;
}

Refusal SeriesTable::Refuse(Refusal reason) {
  refusals_.CountPoints(reason, 1);
  CountSeriesOnce(reason);
  return reason;
}

void SeriesTable::CountSeriesOnce(Refusal reason) {
  refusals_.CountSeriesOnce(reason, layouts_.KeyHash() * 31 + identity_.Hash());
}

void SeriesTable::SetTimes(std::chrono::seconds ttl, std::chrono::seconds max_ahead) {
  const WriteGuard lock(mutex_);
  ttl_ = ttl;
  max_ahead_ = max_ahead;
}

void SeriesTable::Sweep() {
  const WriteGuard lock(mutex_);
  if (!page_in_work_) SweepIfDue();
}

void SeriesTable::SweepIfDue() {
  now_ = clock_();
  if (now_.steady - aged_ >= ttl_) {
    aged_ = now_.steady;
    refusals_.Age();
  }
  if (now_.steady - swept_ < std::min<steady_clock::duration>(ttl_, kMaxSweepPause)) {
    return;
  }
  swept_ = now_.steady;
  series_.Sweep(now_.steady, ttl_);
  layouts_.Sweep();
  UpdateHealth();
  if (history_) history_->Sweep(now_.steady);
  series_.Shrink();
  layouts_.Shrink();
  names_.Shrink();
}

size_t SeriesTable::PageBytes() {
  const WriteGuard lock(mutex_);
  return budget_.page_bytes();
}

void SeriesTable::UpdateHealth() {
  health_->series = series_.size();
  health_->series_bytes = budget_.bytes();
}

void SeriesTable::AppendPage(bool timestamps, std::string* page) {
  const WriteGuard whole(page_mutex_);
  AppendTurns(timestamps, page);
  const WriteGuard lock(mutex_);
  SweepIfDue();  // pages that follow each other closely could put it off for ever
}

void SeriesTable::Read(const std::function<void(Reading*)>& read) {
  const WriteGuard whole(page_mutex_);
  {
    const PageTurns turns(this);
    Reading reading(this);
    read(&reading);
  }
  const WriteGuard lock(mutex_);
  SweepIfDue();
}

void SeriesTable::AppendTurns(bool timestamps, std::string* page) {
  const PageTurns turns(this);
  std::optional<SeriesPage> lines;
  {
    const WriteGuard lock(mutex_);
    now_ = clock_();
    lines.emplace(&names_.families(), ttl_, timestamps, page);
    // Growing would take twice the memory of a page; what is not written of this takes none. The
    // rest is for what comes meanwhile.
    page->reserve(page->size() + budget_.page_bytes() + budget_.page_bytes() / 8);
  }
  for (bool more = true; more;) {
    // A mutex is not fair: the next turn would mostly begin before the decoder has woken up.
    while (waiting_ > 0) std::this_thread::yield();
    const WriteGuard lock(mutex_);
    more = lines->AppendTurn(now_.steady);
  }
}

}  // namespace tidegate::agent
