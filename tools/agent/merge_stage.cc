#include "agent/merge_stage.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "agent/point_printer.h"
#include "agent/quoted.h"

namespace tidegate::agent {
namespace {

constexpr std::chrono::seconds kSweepPause(30);

// As long as the library keeps a series that is idle: after that its totals start again from 0.
constexpr std::chrono::hours kForgetSeries(2);

// Whether it can be in a packet of earlier points.
bool CanBeEarlierPoint(const Block& block) {
  return block.series.empty() || RowOf(KindOf(block)).has_earlier_point;
}

// Counts how a series grows or shrinks, also where memory runs out.
class Growth {
 public:
  Growth(const MergedSeries& series, size_t* bytes)
      : series_(series), before_(series.bytes()), bytes_(bytes) {}
  ~Growth() { *bytes_ += series_.bytes() - before_; }
  Growth(const Growth&) = delete;
  Growth& operator=(const Growth&) = delete;

 private:
  const MergedSeries& series_;
  const size_t before_;
  size_t* const bytes_;
};

// As the point that begins a total.
bool IsZero(const Series& record) {
  return std::all_of(record.values.begin(), record.values.end(),
                     [](double value) { return value == 0; });
}

}  // namespace

MergeStage::MergeStage(const Options& options, std::vector<PacketSink*> sinks, Health* health,
                       Report report, IsLive is_live, SeriesTable::Clock clock)
    : options_(options),
      max_bytes_(options.max_series * SeriesTable::kBytesPerSeries),
      health_(health),
      report_(std::move(report)),
      is_live_(std::move(is_live)),
      clock_(std::move(clock)),
      packets_(std::move(sinks), health),
      now_(clock_()),
      start_(now_.seconds),
      swept_(now_.steady) {}

void MergeStage::HandleChanged(const Packet& packet, const ClientId& client,
                               const std::vector<BlockChange>& changes) {
  now_ = clock_();
  work_ = 0;
  MergeIdentity* const identity = IdentityOf(packet, client);
  if (identity == nullptr) {
    Refuse(MergeRefusal::kLimit, packet.series_count);
    return;
  }
  const bool before = std::all_of(packet.blocks.begin(), packet.blocks.end(), CanBeEarlierPoint);
  HoldAll(packet, changes, {identity, nullptr, nullptr, 0, {client.process(), 0}, before, nullptr});
  if (due_) HandOn(kMaxHandedOn);
  UpdateHealth();
}

MergeIdentity* MergeStage::IdentityOf(const Packet& packet, const ClientId& client) {
  const bool apart = options_.apart != ProcessLabel::kNone;
  key_.clear();
  PutTags({{packet.tenant, {}}}, &key_);
  PutTags(packet.tenant_tags, &key_);
  if (apart) key_ += ValueOf(options_.apart, client);
  const auto found = identities_.find(key_);
  if (found != identities_.end()) return found->second.get();
  if (identities_.size() >= (apart ? kMaxApart : kMaxIdentities) || IsFull()) return nullptr;
  auto identity = std::make_unique<MergeIdentity>(packet, SenderOf(client));
  MergeIdentity* const made = identities_.emplace(key_, std::move(identity)).first->second.get();
  ++made_;
  bytes_ += made->bytes();
  return made;
}

// Its numbers are never used twice.
ClientId MergeStage::SenderOf(const ClientId& client) const {
  ClientId sender;
  sender.connection = made_ + 1;
  sender.start = made_ + 1;
  if (options_.apart == ProcessLabel::kPid) sender.pid = client.pid;
  if (options_.apart == ProcessLabel::kSlot) sender.slot = client.slot;
  return sender;
}

GaugeMerge MergeStage::GaugeOf(const Target& target) const {
  return target.change == nullptr ? options_.gauge : target.change->gauge.value_or(options_.gauge);
}

void MergeStage::HoldAll(const Packet& packet, const std::vector<BlockChange>& changes,
                         Target target) {
  const std::vector<Block>& blocks = packet.blocks;
  int64_t newest = INT64_MIN;
  for (size_t i = 0; i < blocks.size();) {
    const Block& block = blocks[i];
    newest = std::max(newest, block.timestamp);
    target.timestamp = block.timestamp;
    if (!changes.empty()) target.change = &changes[i];
    if (const size_t timer = TimerBlocks(packet, i); timer != 0) {
      HoldTimer(packet, i, target);
      i += timer;
      continue;
    }
    const bool rate = KindOf(block) == Kind::kMeter && IsMeterRate(blocks, i);
    HoldBlock(block, rate ? MergedName::Form::kMeterRate : MergedName::Form::kPlain, target);
    ++i;
  }
  target.identity->HasReported(target.source.process, newest, IsFull(), &bytes_);
}

void MergeStage::HoldBlock(const Block& block, MergedName::Form form, Target target) {
  if (block.series.empty()) return;
  if (IsFull()) return Refuse(MergeRefusal::kLimit, block.series.size());
  target.metric = target.identity->MetricOf(form, block, block.name, &bytes_);
  target.layout = target.metric->LayoutOf(block, GaugeOf(target), &bytes_);
  const bool sources = target.change != nullptr && !target.change->sources.empty();
  for (size_t i = 0; i < block.series.size(); ++i) {
    if (sources) target.source.series = target.change->sources[i];
    Hold(target, block.series[i], 1);
  }
  target.identity->Unsettle(target.timestamp, now_.steady, Ahead(target.timestamp));
}

// As one series of ten columns.
void MergeStage::HoldTimer(const Packet& packet, size_t first, Target target) {
  if (IsFull()) return Refuse(MergeRefusal::kLimit, std::size(kTimerColumns));
  const Block& block = packet.blocks[first];
  const size_t base = block.name.size() - kTimerColumns[0].name.size() - 1;
  target.metric = target.identity->MetricOf(MergedName::Form::kTimerBlocks, block,
                                            std::string_view(block.name).substr(0, base), &bytes_);
  target.layout = target.metric->LayoutOf(block, GaugeOf(target), &bytes_);
  if (target.change != nullptr && !target.change->sources.empty()) {
    target.source.series = target.change->sources.front();
  }
  Series record;
  record.tags = block.series.front().tags;
  for (size_t i = 0; i < std::size(kTimerColumns); ++i) {
    record.values.push_back(packet.blocks[first + i].series.front().values.front());
  }
  Hold(target, record, std::size(kTimerColumns));
  target.identity->Unsettle(target.timestamp, now_.steady, Ahead(target.timestamp));
}

void MergeStage::Hold(const Target& target, const Series& record, size_t points) {
  if (work_ > kMaxPacketWork) return Refuse(MergeRefusal::kWork, points);
  const size_t bytes = bytes_;
  const bool room = !IsFull() && target.identity->HasRoomFor(target.timestamp);
  KeyedMergedSeries* const keyed = room ? SeriesOf(target, record) : nullptr;
  if (keyed == nullptr) return Refuse(MergeRefusal::kLimit, points);
  Add(target, record, keyed, points);
  work_ += key_.size() + record.values.size() * sizeof(double);
  if (bytes_ > bytes) work_ += bytes_ - bytes;
}

void MergeStage::Add(const Target& target, const Series& record, KeyedMergedSeries* keyed,
                     size_t points) {
  MergedSeries& series = keyed->second.series;
  const Growth growth(series, &bytes_);
  series.ForgetTimesAfter(now_.seconds + kLongestInterval);
  if (!series.Accepts(target.layout, target.timestamp)) {
    Refuse(MergeRefusal::kColumns, points);
    ReportOnce(&columns_reported_, "points with other columns, as bounds, than before are refused",
               target.metric->name.name);
    return;
  }
  keyed->second.news = now_.steady;
  const bool before_start =
      target.timestamp <= start_ && target.timestamp > start_ - kLongestInterval;
  const int64_t begin = before_start && !(target.before && IsZero(record)) ? start_ : INT64_MIN;
  const bool is_new = series.IsNew(target.timestamp, begin);
  if (is_new) {
    target.identity->Hold(target.timestamp, target.metric, keyed, now_.steady,
                          Ahead(target.timestamp), options_.delay);
    ++held_;
  }
  // What rules drop of one of several series that become one is there by the others.
  const uint32_t dropped = target.change == nullptr ? 0 : target.change->dropped;
  keyed->second.dropped = is_new ? dropped : keyed->second.dropped & dropped;
  try {
    const MergedSeries::Added added =
        series.Add(target.source, target.timestamp, record, target.before, begin, now_.steady);
    if (added == MergedSeries::Added::kLate) health_->merge_late_points += points;
  } catch (const std::bad_alloc&) {
    if (is_new && !series.Holds(target.timestamp)) {
      target.identity->TakeBack(target.timestamp, *target.metric);
      --held_;
    }
    throw;
  }
}

std::chrono::seconds MergeStage::Ahead(int64_t timestamp) const {
  if (timestamp <= now_.seconds) return std::chrono::seconds(0);
  return std::chrono::seconds(std::min(timestamp - now_.seconds, kLongestInterval));
}

KeyedMergedSeries* MergeStage::SeriesOf(const Target& target, const Series& record) {
  key_.clear();
  PutTags(record.tags, &key_);
  auto& series = target.metric->series;
  const auto found = series.find(key_);
  if (found != series.end()) return &*found;
  if (series_ >= options_.max_series) return nullptr;
  KeyedMergedSeries* const keyed = &*series.try_emplace(key_, target.layout).first;
  ++series_;
  bytes_ += MergeIdentity::BytesOfSeries(*keyed);
  return keyed;
}

void MergeStage::Tick() {
  now_ = clock_();
  for (const auto& [key, identity] : identities_) identity->FindDue(now_.steady, is_live_);
  HandOn(kMaxHandedOnTick);
  SweepIfDue();
  UpdateHealth();
}

void MergeStage::Flush() {
  for (const auto& [key, identity] : identities_) identity->AllAreDue();
  HandOn(SIZE_MAX);
  UpdateHealth();
}

void MergeStage::HandOn(size_t most) {
  for (const auto& [key, identity] : identities_) HandOn(identity.get(), &most);
  due_ = most == 0;
}

void MergeStage::HandOn(MergeIdentity* identity, size_t* most) {
  int64_t timestamp = 0;
  while (MergeTime* const time = *most > 0 ? identity->NextDue(&timestamp) : nullptr) {
    packets_.Begin(identity->header(), identity->client(), timestamp);
    while (!time->parts.empty() && *most > 0) {
      MergeTime::Part& part = time->parts.begin()->second;
      for (; !part.series.empty() && *most > 0; --*most) {
        HandOn(*part.metric, part.series.back(), timestamp);
        part.series.pop_back();
        --held_;
      }
      if (part.series.empty()) time->parts.erase(time->parts.begin());
    }
    packets_.End();
    if (time->parts.empty()) identity->EndTime(timestamp);
  }
}

void MergeStage::HandOn(const MergedMetric& metric, KeyedMergedSeries* keyed, int64_t timestamp) {
  MergedSeries& series = keyed->second.series;
  if (!series.Holds(timestamp)) return;  // memory ran out in between
  const Growth growth(series, &bytes_);
  const size_t left_out =
      packets_.Append(metric.name, keyed->first, keyed->second.dropped, &series);
  if (left_out == 0) return;
  health_->merge_left_out_percentiles += left_out;
  ReportOnce(&left_out_reported_, "percentiles of several series do not add up and are left out",
             metric.name.name);
}

void MergeStage::SweepIfDue() {
  if (now_.steady - swept_ < kSweepPause) return;
  swept_ = now_.steady;
  const bool full = bytes_ > max_bytes_ / 4 * 3 || series_ > options_.max_series / 4 * 3;
  const SteadyTime oldest =
      now_.steady - (full ? options_.ttl : std::chrono::seconds(kForgetSeries));
  for (auto next = identities_.begin(); next != identities_.end();) {
    MergeIdentity* const identity = next->second.get();
    // What was kept for one process is of no use to another one.
    const bool over = options_.apart != ProcessLabel::kNone && identity->IsDeserted();
    identity->Sweep(now_.steady, over ? now_.steady : oldest, is_live_, &bytes_, &series_);
    if (!identity->IsEmpty()) {
      ++next;
      continue;
    }
    bytes_ -= identity->bytes();
    next = identities_.erase(next);
  }
}

void MergeStage::Refuse(MergeRefusal reason, size_t points) {
  health_->merge_refused_points[static_cast<size_t>(reason)] += points;
}

void MergeStage::UpdateHealth() {
  health_->merge_series = series_;
  health_->merge_held_points = held_;
  health_->merge_bytes = bytes_;
}

void MergeStage::ReportOnce(bool* reported, const std::string& text, const std::string& name) {
  if (std::exchange(*reported, true)) return;
  std::string line = "merging: " + text + ", first those of ";
  AppendQuoted(name, &line);
  report_(line);
}

}  // namespace tidegate::agent
