#include "agent/series_table.h"

#include <algorithm>
#include <optional>
#include <thread>
#include <utility>

#include "agent/series_page.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kMaxSweepPause(10);

}  // namespace

// A page in the making. While there is one nothing is erased, so that a position stays good.
class SeriesTable::PageTurns {
 public:
  explicit PageTurns(SeriesTable* table) : table_(table) { Set(true); }
  ~PageTurns() { Set(false); }
  PageTurns(const PageTurns&) = delete;
  PageTurns& operator=(const PageTurns&) = delete;

 private:
  void Set(bool in_work) {
    const WriteGuard lock(table_->mutex_);
    table_->page_in_work_ = in_work;
  }

  SeriesTable* const table_;
};

SeriesTable::SeriesTable(const Options& options, Health* health, Report report, Clock clock)
    : options_(options),
      clock_(std::move(clock)),
      health_(health),
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
      aged_(now_.steady) {}

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

void SeriesTable::HandleBlock(const Packet& packet, const ClientId& client, const Block& block) {
  if (block.series.empty()) return;
  if (options_.page && block.timestamp > now_.seconds + max_ahead_.count()) {
    refusals_.CountPoints(Refusal::kAhead, block.series.size());
    return;
  }
  LayoutTable::Target target = layouts_.Find(block);
  const Reporter reporter(client);
  for (const Series& record : block.series) {
    if (budget_.IsTooMuchWork()) {
      refusals_.CountPoints(Refusal::kWork, 1);
      continue;
    }
    identity_.Assign(packet, client, options_.process_label, target.kind, record);
    budget_.AddWork(identity_.key_bytes());
    KeyedSeries* keyed =
        target.metric == nullptr ? nullptr : series_.Find(&identity_, *target.metric);
    if (keyed == nullptr || keyed->second.layout != target.layout) {
      keyed = AddOrMove(&target, keyed);
      if (keyed == nullptr) continue;
    }
    if (!target.layout->shown_whole) refusals_.CountPoints(Refusal::kCollision, 1);
    SeriesEntry& entry = keyed->second;
    entry.Update(RowOf(target.kind), record, block.timestamp, now_.steady);
    if (entry.reporters.See(reporter)) {
      shared_.Add(block, identity_.tags(), reporter, entry.reporters.other());
    }
  }
}

KeyedSeries* SeriesTable::AddOrMove(LayoutTable::Target* target, KeyedSeries* known) {
  if (!HasRoom(*target, known != nullptr)) {
    Refuse(Refusal::kLimit);
    return nullptr;
  }
  if (target->layout == nullptr) layouts_.Add(target, identity_.LabelBytes());
  SeriesLayout* const layout = target->layout;
  budget_.AddWork(layout->CellBytes());
  if (known != nullptr) {
    series_.Move(known, layout);
    if (!layout->shown_whole) CountSeriesOnce(Refusal::kCollision);
    return known;
  }
  KeyedSeries* const added = series_.Add(&identity_, layout);
  if (added == nullptr) {
    Refuse(Refusal::kCollision);
    return nullptr;
  }
  ++made_;
  if (!layout->shown_whole) refusals_.CountSeries(Refusal::kCollision);
  return added;
}

bool SeriesTable::HasRoom(const LayoutTable::Target& target, bool known) {
  // A series whose columns change takes no more room than before.
  if (!known && series_.size() >= budget_.max_series()) return false;
  return !budget_.IsFull() &&
         layouts_.MaxPageBytes(target, identity_.LabelBytes()) <= SeriesBudget::kMaxSeriesPageBytes;
}

void SeriesTable::Refuse(Refusal reason) {
  refusals_.CountPoints(reason, 1);
  CountSeriesOnce(reason);
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
