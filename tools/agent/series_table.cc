#include "agent/series_table.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "agent/exposition.h"
#include "agent/quoted.h"
#include "agent/series_page.h"
#include "agent/shrink.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kMaxSweepPause(10);

constexpr size_t kMaxShownSeries = 300;  // in a line of the log

std::string Shown(pid_t pid) {
  return pid > 0 ? "process " + std::to_string(pid) : "a process of another PID namespace";
}

size_t BytesOf(const SeriesNode& node) {
  // The node of the table, its key, a bucket and the layout's list of series.
  return sizeof(node) + HeapBytes(node.first) + 4 * kHeapOverhead;
}

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
      names_(*health, report, &bytes_),
      shared_(std::move(report)),
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
  work_ = 0;
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
    CountPoints(Refusal::kAhead, block.series.size());
    return;
  }
  Target target = Find(block);
  const Reporter reporter(client);
  for (const Series& record : block.series) {
    if (work_ > kMaxPacketWork) {
      CountPoints(Refusal::kWork, 1);
      continue;
    }
    tags_.Assign(packet, client, options_.process_label, target.kind, record);
    key_.Assign(tags_);
    work_ += key_.text().size();
    Node* node = target.metric == nullptr ? nullptr : FindSeries(*target.metric);
    if (node == nullptr || node->second.layout != target.layout) {
      node = Place(&target, node);
      if (node == nullptr) continue;
    }
    if (!target.layout->shown_whole) CountPoints(Refusal::kCollision, 1);
    SeriesEntry& entry = node->second;
    entry.Update(record, block.timestamp, now_.steady);
    if (entry.reporters.See(reporter)) ReportShared(block, reporter, entry.reporters.other());
  }
}

void SeriesTable::ReportShared(const Block& block, const Reporter& reporter, pid_t other) {
  ++health_->shared_series;
  if (shared_.IsFull()) return;
  std::string series = block.name.substr(0, kMaxShownSeries) + '{';
  for (const PointTags::Tag& tag : tags_) {
    if (series.size() > kMaxShownSeries) break;
    if (series.back() != '{') series += ',';
    series.append(tag.key.substr(0, kMaxShownSeries)) += '=';
    series.append(tag.value.substr(0, kMaxShownSeries));
  }
  std::string line;
  AppendQuoted(series + '}', &line);
  line += " comes from " + Shown(other) + " and " + Shown(reporter.pid) +
          " at one time, which mixes their values; ";
  if (options_.process_label != ProcessLabel::kSlot) line += "use --process-label slot, or ";
  shared_.Add(line + "give each of them a tag of its own");
}

SeriesTable::Node* SeriesTable::Place(Target* target, Node* known) {
  if (!HasRoom(*target, known != nullptr)) {
    Refuse(Refusal::kLimit);
    return nullptr;
  }
  if (target->layout == nullptr) AddLayout(target);
  work_ += target->layout->CellBytes();
  if (known != nullptr) {
    Move(known, target->layout);
    if (!target->layout->shown_whole) CountSeriesOnce(Refusal::kCollision);
    return known;
  }
  Node* const node = AddSeries(target->layout);
  if (node == nullptr) {
    Refuse(Refusal::kCollision);
  } else if (!target->layout->shown_whole) {
    CountSeries(Refusal::kCollision);
  }
  return node;
}

SeriesTable::Target SeriesTable::Find(const Block& block) {
  Target target = {KindOf(block), &block, nullptr, nullptr};
  metric_key_.assign(1, static_cast<char>(target.kind)).append(block.name);
  metric_hash_.reset();
  const auto found = metrics_.find(metric_key_);
  if (found == metrics_.end()) return target;
  target.metric = found->second.get();
  target.layout = target.metric->Find(block);
  return target;
}

void SeriesTable::AddLayout(Target* target) {
  work_ += ProductOf(*target);
  const Block& block = *target->block;
  auto layout = std::make_unique<SeriesLayout>(target->kind, block, options_.page);
  if (target->metric == nullptr) {
    auto metric = std::make_unique<SeriesMetric>(
        SeriesMetric{target->kind, block.name, next_id_++, NameClaims<std::string>(&bytes_), {}});
    target->metric = metrics_.emplace(metric_key_, std::move(metric)).first->second.get();
    bytes_ += target->metric->Bytes();
  }
  layout->metric = target->metric;
  target->layout =
      target->metric->layouts.emplace(HashOfColumns(block), std::move(layout))->second.get();
  bytes_ += target->layout->bytes;
  page_bytes_ += target->layout->head_bytes;
  names_.Show(target->layout);
}

SeriesTable::Node* SeriesTable::FindSeries(const SeriesMetric& metric) {
  key_.Complete(metric.id);
  const auto found = series_.find(key_.text());
  return found == series_.end() ? nullptr : &*found;
}

SeriesTable::Node* SeriesTable::AddSeries(SeriesLayout* layout) {
  key_.Complete(layout->metric->id);  // which can be a new one
  Node* node = nullptr;
  std::unique_ptr<Cell[]> row;
  size_t claimed = 0;
  try {
    row = layout->Prepare();
    if (!options_.page || names_.ClaimLabels(key_.text(), layout->metric, &claimed)) {
      node = &*series_.try_emplace(key_.text()).first;
    }
  } catch (...) {
    names_.ReleaseLabels(key_.text(), claimed, layout->metric);
    throw;
  }
  if (node == nullptr) {
    names_.ReleaseLabels(key_.text(), claimed, layout->metric);
    return nullptr;
  }
  node->second.label_bytes = static_cast<uint32_t>(label_bytes_);
  bytes_ += BytesOf(*node);
  Attach(node, layout, std::move(row));
  ++made_;
  return node;
}

void SeriesTable::Move(Node* node, SeriesLayout* layout) {
  std::unique_ptr<Cell[]> row = layout->Prepare();
  Detach(node);
  Attach(node, layout, std::move(row));
}

void SeriesTable::Attach(Node* node, SeriesLayout* layout, std::unique_ptr<Cell[]> row) {
  layout->Add(node, std::move(row));
  bytes_ += layout->CellBytes();
  page_bytes_ += node->second.PageBytes();
}

void SeriesTable::Detach(Node* node) {
  SeriesEntry& entry = node->second;
  bytes_ -= entry.layout->CellBytes();
  page_bytes_ -= entry.PageBytes();
  entry.layout->Remove(node);
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
    refused_.Age();
  }
  if (now_.steady - swept_ < std::min<steady_clock::duration>(ttl_, kMaxSweepPause)) {
    return;
  }
  swept_ = now_.steady;
  SweepSeries();
  SweepMetrics();
  UpdateHealth();
  Shrink();
}

void SeriesTable::Shrink() {
  ShrinkBuckets(&series_);
  ShrinkBuckets(&metrics_);
  names_.Shrink();
}

void SeriesTable::SweepSeries() {
  for (auto next = series_.begin(); next != series_.end();) {
    Node& node = *next;
    if (!node.second.IsOutdated(now_.steady, ttl_)) {
      ++next;
      continue;
    }
    if (options_.page) {
      names_.ReleaseLabels(node.first, SIZE_MAX, node.second.layout->metric);
    }
    Detach(&node);
    bytes_ -= BytesOf(node);
    next = series_.erase(next);
  }
}

void SeriesTable::SweepMetrics() {
  for (auto next = metrics_.begin(); next != metrics_.end();) {
    auto& layouts = next->second->layouts;
    for (auto layout = layouts.begin(); layout != layouts.end();) {
      if (layout->second->series.empty()) {
        names_.Hide(layout->second.get());
        bytes_ -= layout->second->bytes;
        page_bytes_ -= layout->second->head_bytes;
        layout = layouts.erase(layout);
      } else {
        layout->second->Shrink();
        ++layout;
      }
    }
    if (layouts.empty()) {
      bytes_ -= next->second->Bytes();
      next = metrics_.erase(next);
    } else {
      ++next;
    }
  }
  // Names may have become free.
  for (const auto& [key, metric] : metrics_) {
    for (const auto& [hash, layout] : metric->layouts) {
      if (!layout->shown_whole) names_.Show(layout.get());
    }
  }
}

bool SeriesTable::HasRoom(const Target& target, bool known) {
  // A series whose columns change takes no more room than before.
  if (!known && series_.size() >= options_.max_series) return false;
  if (bytes_ >= options_.max_series * kBytesPerSeries) return false;
  if (page_bytes_ >= options_.max_series * kPageBytesPerSeries) return false;
  size_t labels = 0;
  SeriesKey::ForEachTag(key_.text(), [&labels](std::string_view key, std::string_view value) {
    labels += LabelSize(key, value);
    return true;
  });
  label_bytes_ = labels;
  return ProductOf(target) <= kMaxSeriesPageBytes;
}

size_t SeriesTable::ProductOf(const Target& target) {
  const Block& block = *target.block;
  if (target.layout != nullptr) {
    const LinesSize& size = target.layout->series_size;
    return target.layout->head_bytes + size.bytes + size.lines * label_bytes_;
  }
  // Families have two lines before their samples, with both names three times, and a timer's once
  // more.
  constexpr size_t kRestOfLines = 400;
  const size_t lines = std::max<size_t>(block.fields.size(), 2);
  const size_t name = 3 * block.name.size() + 2 * EscapedSize(block.name, false);
  size_t columns = 0;
  for (const Field& field : block.fields) {
    columns += 3 * field.name.size() + EscapedSize(field.name, false);
  }
  // Until there is room for the layout, every record of the block comes here.
  work_ += name + columns;
  return lines * (label_bytes_ + name + kRestOfLines) + columns;
}

void SeriesTable::Refuse(Refusal reason) {
  CountPoints(reason, 1);
  CountSeriesOnce(reason);
}

void SeriesTable::CountSeriesOnce(Refusal reason) {
  if (!metric_hash_) metric_hash_ = std::hash<std::string>{}(metric_key_);
  const size_t tags = std::hash<std::string_view>{}(key_.tags());
  const size_t of_reason = static_cast<size_t>(reason);
  if (refused_.Add((*metric_hash_ * 31 + tags) * 31 + of_reason)) CountSeries(reason);
}

void SeriesTable::CountPoints(Refusal reason, size_t count) {
  health_->refused_points[static_cast<size_t>(reason)] += count;
}

void SeriesTable::CountSeries(Refusal reason) {
  ++health_->refused_series[static_cast<size_t>(reason)];
}

size_t SeriesTable::PageBytes() {
  const WriteGuard lock(mutex_);
  return page_bytes_;
}

void SeriesTable::UpdateHealth() {
  health_->series = series_.size();
  health_->series_bytes = bytes_;
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
    page->reserve(page->size() + page_bytes_ + page_bytes_ / 8);
  }
  for (bool more = true; more;) {
    // A mutex is not fair: the next turn would mostly begin before the decoder has woken up.
    while (waiting_ > 0) std::this_thread::yield();
    const WriteGuard lock(mutex_);
    more = lines->AppendTurn(now_.steady);
  }
}

}  // namespace tidegate::agent
