#include "agent/series_table.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;
using std::chrono::steady_clock;

// Of a page between two looks at the decoder's wishes.
constexpr size_t kTurnSeries = 2000;
constexpr size_t kTurnBytes = 1 << 20;

constexpr std::chrono::seconds kMaxSweepPause(10);

// What the heap and the tables add to each piece of memory.
constexpr size_t kHeapOverhead = 16;

constexpr size_t kMaxShownName = 200;  // in a line of the log

// Returns the end of what it put.
char* PutSized(std::string_view text, char* to) {
  const auto size = static_cast<uint32_t>(text.size());
  std::memcpy(to, &size, sizeof(size));
  std::memcpy(to + sizeof(size), text.data(), text.size());
  return to + sizeof(size) + text.size();
}

std::string_view TakeSized(std::string_view* key) {
  uint32_t size = 0;
  std::memcpy(&size, key->data(), sizeof(size));
  const std::string_view text = key->substr(sizeof(size), size);
  key->remove_prefix(sizeof(size) + size);
  return text;
}

// And without a NUL.
bool IsAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<signed char>(c) > 0; });
}

// The key of a series is its tags and then the number of its metric. Calls handle(key, value) with
// the tags, in order, until it answers false.
template <typename Handle>
void ForEachTag(std::string_view key, const Handle& handle) {
  key.remove_suffix(sizeof(uint64_t));
  while (!key.empty()) {
    const std::string_view tag = TakeSized(&key);
    if (!handle(tag, TakeSized(&key))) return;
  }
}

bool SameColumns(const Block& block, const std::vector<std::string>& columns) {
  return block.fields.empty() ||
         std::equal(block.fields.begin(), block.fields.end(), columns.begin(), columns.end(),
                    [](const Field& field, const std::string& name) { return field.name == name; });
}

void KeepNewest(double value, int64_t timestamp, Cell* cell) {
  if (timestamp >= cell->timestamp) *cell = {value, timestamp};
}

// A sum that met a NaN would be one for good, and a counter must not fall.
void AddUp(double value, int64_t timestamp, bool falls, Cell* cell) {
  if (std::isfinite(value) && (falls || value > 0)) cell->value += value;
  cell->timestamp = std::max(cell->timestamp, timestamp);
}

size_t HashOf(const Block& block) {
  constexpr size_t kMix = 0x9e3779b97f4a7c15;
  size_t hash = 0;
  for (const Field& field : block.fields) {
    hash = (hash ^ std::hash<std::string>{}(field.name)) * kMix;
  }
  return hash;
}

size_t HeapBytes(const std::string& text) {
  static const size_t within = std::string().capacity();
  return text.size() > within ? text.size() + kHeapOverhead : 0;
}

std::string Shown(std::string_view name) {
  std::string shown(name.substr(0, kMaxShownName));
  return name.size() > kMaxShownName ? shown.append("...") : shown;
}

// As SourceOf takes it.
std::string_view ColumnOf(const FamilyPart& part, const std::vector<std::string>& columns) {
  const bool whole = part.type == FamilyType::kSummary || part.type == FamilyType::kHistogram;
  return whole ? std::string_view() : columns[part.column];
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

SeriesTable::SeriesTable(const Options& options, Health* health, CollisionLog::Reporter report,
                         Clock clock)
    : options_(options),
      clock_(std::move(clock)),
      health_(health),
      log_(std::move(report)),
      names_(&bytes_),
      now_(clock_()),
      swept_(now_.steady),
      aged_(now_.steady) {
  const WriteGuard lock(mutex_);
  ClaimOwnNames();
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
  if (options_.page && block.timestamp > now_.seconds + options_.max_ahead.count()) {
    CountPoints(Refusal::kAhead, block.series.size());
    return;
  }
  Target target = Find(block);
  for (const Series& record : block.series) {
    if (work_ > kMaxPacketWork) {
      CountPoints(Refusal::kWork, 1);
      continue;
    }
    tags_.Assign(packet, client, options_.label_pid, target.kind, record);
    MakeKey();
    work_ += key_.size();
    Node* node = target.metric == nullptr ? nullptr : FindSeries(*target.metric);
    if (node == nullptr || node->second.layout != target.layout) {
      node = Place(&target, node);
      if (node == nullptr) continue;
    }
    if (!target.layout->shown_whole) CountPoints(Refusal::kCollision, 1);
    Update(record, block.timestamp, &node->second);
  }
}

SeriesTable::Node* SeriesTable::Place(Target* target, Node* known) {
  if (!HasRoom(*target, known != nullptr)) {
    Refuse(Refusal::kLimit);
    return nullptr;
  }
  if (target->layout == nullptr) AddLayout(target);
  work_ += BytesOfCells(*target->layout);
  if (known != nullptr) {
    Move(known, target->layout);
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
  const auto& layouts = target.metric->layouts;
  auto [next, end] = layouts.size() == 1 ? std::make_pair(layouts.begin(), layouts.end())
                                         : layouts.equal_range(HashOf(block));
  while (next != end && !SameColumns(block, next->second->columns)) ++next;
  if (next != end) target.layout = next->second.get();
  return target;
}

void SeriesTable::AddLayout(Target* target) {
  work_ += ProductOf(*target);
  const Block& block = *target->block;
  auto layout = std::make_unique<Layout>();
  layout->columns.reserve(std::max<size_t>(block.fields.size(), 1));
  for (const Field& field : block.fields) layout->columns.push_back(field.name);
  if (layout->columns.empty()) layout->columns.emplace_back();
  if (target->kind == Kind::kHistogram) layout->bounds = *HistogramBounds(block);
  if (options_.page) layout->parts = FamiliesOf(target->kind, block.name, layout->columns);
  layout->sources.assign(layout->parts.size(), kHidden);
  Measure(target->kind, block.name, layout.get());
  if (target->metric == nullptr) {
    auto metric = std::make_unique<Metric>(
        Metric{target->kind, block.name, next_id_++, NameClaims<std::string>(&bytes_), {}});
    target->metric = metrics_.emplace(metric_key_, std::move(metric)).first->second.get();
    bytes_ += BytesOf(*target->metric);
  }
  layout->metric = target->metric;
  target->layout = target->metric->layouts.emplace(HashOf(block), std::move(layout))->second.get();
  bytes_ += target->layout->bytes;
  page_bytes_ += target->layout->head_bytes;
  ShowParts(target->layout);
}

void SeriesTable::Measure(Kind kind, const std::string& name, Layout* layout) {
  layout->bytes = sizeof(Layout) + 4 * kHeapOverhead + layout->bounds.capacity() * sizeof(double) +
                  layout->parts.capacity() * sizeof(FamilyPart);
  for (const std::string& column : layout->columns) {
    layout->bytes += sizeof(std::string) + HeapBytes(column);
  }
  for (const FamilyPart& part : layout->parts) {
    // The name stands in the table of families as well; claims count themselves.
    layout->bytes += 2 * HeapBytes(part.name) + sizeof(uint32_t) + sizeof(Families::value_type) +
                     2 * sizeof(Source) + 4 * kHeapOverhead;
    layout->head_bytes += HeadSize(part, SourceOf(kind, name, ColumnOf(part, layout->columns)));
    const LinesSize size = SeriesSize(part, layout->bounds);
    layout->series_size.lines += size.lines;
    layout->series_size.bytes += size.bytes;
  }
}

void SeriesTable::MakeKey() {
  tag_bytes_ = 0;
  bool ascii = true;
  for (const PointTags::Tag& tag : tags_) {
    tag_bytes_ += 2 * sizeof(uint32_t) + tag.key.size() + tag.value.size();
    ascii = ascii && IsAscii(tag.value);
  }
  if (!ascii) return MakeOddKey();
  key_.resize(tag_bytes_ + sizeof(uint64_t));
  char* end = key_.data();
  for (const PointTags::Tag& tag : tags_) end = PutSized(tag.value, PutSized(tag.key, end));
}

void SeriesTable::MakeOddKey() {
  tag_bytes_ = 0;
  for (const PointTags::Tag& tag : tags_) {
    shown_.clear();
    AppendText(tag.value, &shown_);
    const size_t size = 2 * sizeof(uint32_t) + tag.key.size() + shown_.size();
    key_.resize(tag_bytes_ + size);
    PutSized(shown_, PutSized(tag.key, key_.data() + tag_bytes_));
    tag_bytes_ += size;
  }
  key_.resize(tag_bytes_ + sizeof(uint64_t));
}

void SeriesTable::CompleteKey(const Metric& metric) {
  std::memcpy(key_.data() + tag_bytes_, &metric.id, sizeof(metric.id));
}

SeriesTable::Node* SeriesTable::FindSeries(const Metric& metric) {
  CompleteKey(metric);
  const auto found = series_.find(key_);
  return found == series_.end() ? nullptr : &*found;
}

SeriesTable::Node* SeriesTable::AddSeries(Layout* layout) {
  CompleteKey(*layout->metric);  // which can be a new one
  Node* node = nullptr;
  std::unique_ptr<Cell[]> row;
  size_t claimed = 0;
  try {
    row = Prepare(layout);
    if (!options_.page || ClaimLabels(layout->metric, &claimed)) {
      node = &*series_.try_emplace(key_).first;
    }
  } catch (...) {
    ReleaseLabels(key_, claimed, layout->metric);
    throw;
  }
  if (node == nullptr) {
    ReleaseLabels(key_, claimed, layout->metric);
    return nullptr;
  }
  node->second.label_bytes = static_cast<uint32_t>(label_bytes_);
  bytes_ += BytesOf(*node);
  Attach(node, layout, std::move(row));
  ++made_;
  return node;
}

void SeriesTable::Move(Node* node, Layout* layout) {
  std::unique_ptr<Cell[]> row = Prepare(layout);
  Detach(node);
  Attach(node, layout, std::move(row));
}

std::unique_ptr<Cell[]> SeriesTable::Prepare(Layout* layout) {
  std::vector<Node*>& series = layout->series;
  if (series.size() == series.capacity()) series.reserve(2 * series.size() + 1);
  const size_t columns = layout->columns.size();
  return columns > 1 ? std::make_unique<Cell[]>(columns) : nullptr;
}

void SeriesTable::Attach(Node* node, Layout* layout, std::unique_ptr<Cell[]> row) {
  Entry& entry = node->second;
  entry.layout = layout;
  entry.position = static_cast<uint32_t>(layout->series.size());
  entry.cell = Cell();
  entry.row = std::move(row);
  entry.newest = INT64_MIN;
  layout->series.push_back(node);
  bytes_ += BytesOfCells(*layout);
  page_bytes_ += PageBytesOf(entry);
}

void SeriesTable::Detach(Node* node) {
  Entry& entry = node->second;
  Layout& layout = *entry.layout;
  bytes_ -= BytesOfCells(layout);
  page_bytes_ -= PageBytesOf(entry);
  // If the columns of a series change while a page is written, that page may lack another series of
  // the layout, or this one; the next page is whole.
  layout.series.back()->second.position = entry.position;
  layout.series[entry.position] = layout.series.back();
  layout.series.pop_back();
}

void SeriesTable::Update(const Series& record, int64_t timestamp, Entry* entry) {
  Cell* const cells = entry->cells();
  const std::vector<double>& values = record.values;
  const Kind kind = entry->layout->metric->kind;
  switch (kind) {
    case Kind::kHistogram:
      for (size_t i = 0; i < values.size(); ++i) {
        AddUp(values[i], timestamp, i == entry->layout->bounds.size(), &cells[i]);
      }
      break;
    case Kind::kTimerRow:
      for (size_t i = 0; i < values.size(); ++i) {
        if (i == kTimerSum || i == kTimerCount) {
          AddUp(values[i], timestamp, i == kTimerSum, &cells[i]);
        } else {
          KeepNewest(values[i], timestamp, &cells[i]);
        }
      }
      break;
    default:
      if (timestamp < entry->newest) return;
      for (size_t i = 0; i < values.size(); ++i) {
        KeepNewest(values[i], timestamp, &cells[record.indexes.empty() ? i : record.indexes[i]]);
      }
  }
  // What keeps adding up behind a time that was wrong is no news: the series has to end for newer
  // quantiles to be shown.
  if (timestamp >= entry->newest) entry->news = now_.steady;
  entry->newest = std::max(entry->newest, timestamp);
}

bool SeriesTable::ClaimLabels(Metric* metric, size_t* claimed) {
  std::string* const label = &name_;
  const std::string* holder = nullptr;
  std::string tag;
  ForEachTag(key_, [&](std::string_view key, std::string_view /*value*/) {
    tag.assign(key);
    AssignLabelName(key, label);
    holder = metric->labels.Claim(*label, tag, HeapBytes(tag));
    if (holder == nullptr) ++*claimed;
    return holder == nullptr;
  });
  if (holder != nullptr) ReportLabel(metric->name, *holder, tag);
  return holder == nullptr;
}

// Without one of its labels a series would be another one.
void SeriesTable::ReportLabel(std::string_view metric, std::string_view holder,
                              std::string_view tag) {
  if (log_.IsFull()) return;
  log_.Report("\"" + MetricNameOf(Shown(metric)) + '{' + Shown(name_) + "}\" stands for the tag " +
              Shown(holder) + " in /metrics; series with the tag " + Shown(tag) +
              " are left out there, rename it");
}

void SeriesTable::ReleaseLabels(std::string_view key, size_t count, Metric* metric) {
  std::string* const label = &name_;
  ForEachTag(key, [&](std::string_view tag, std::string_view /*value*/) {
    if (count-- == 0) return false;
    AssignLabelName(tag, label);
    metric->labels.Release(*label);
    return true;
  });
}

void SeriesTable::ClaimOwnNames() {
  NameClaims<Holder>* const names = &names_;
  health_->ForEach([names](const Health::Sample& sample) {
    names->Claim(std::string(sample.name), {nullptr, {}}, 0);
  });
  bytes_ = 0;
}

void SeriesTable::ShowParts(Layout* layout) {
  layout->shown_whole = true;
  for (size_t i = 0; i < layout->parts.size(); ++i) {
    if (layout->sources[i] == kHidden && !ShowPart(layout, i)) layout->shown_whole = false;
  }
}

bool SeriesTable::ShowPart(Layout* layout, size_t i) {
  const FamilyPart& part = layout->parts[i];
  size_t claimed = 0;
  try {
    if (ClaimNames(*layout, part, &claimed)) {
      std::vector<Source>& sources = families_[part.name];
      sources.push_back({layout, i});
      layout->sources[i] = static_cast<uint32_t>(sources.size() - 1);
      return true;
    }
  } catch (...) {
    ReleaseNames(part, claimed);
    const auto family = families_.find(part.name);
    if (family != families_.end() && family->second.empty()) families_.erase(family);
    throw;
  }
  ReleaseNames(part, claimed);
  return false;
}

bool SeriesTable::ClaimNames(const Layout& layout, const FamilyPart& part, size_t* claimed) {
  const Holder own = {layout.metric, std::string(ColumnOf(part, layout.columns))};
  for (const std::string_view suffix : SuffixesOf(part.type)) {
    name_.assign(part.name).append(suffix);
    const Holder* const holder = names_.Claim(name_, own, HeapBytes(own.column));
    if (holder != nullptr) {
      ReportName(*holder, own);
      return false;
    }
    ++*claimed;
  }
  return true;
}

void SeriesTable::ReportName(const Holder& holder, const Holder& late) {
  if (log_.IsFull()) return;
  const auto text = [](const Holder& of) {
    if (of.metric == nullptr) return std::string("agent's own number");
    return SourceOf(of.metric->kind, Shown(of.metric->name), Shown(of.column));
  };
  log_.Report("\"" + Shown(name_) + "\" stands for the " + text(holder) + " in /metrics; the " +
              text(late) + " is left out there, rename it");
}

void SeriesTable::ReleaseNames(const FamilyPart& part, size_t count) {
  for (const std::string_view suffix : SuffixesOf(part.type)) {
    if (count-- == 0) return;
    name_.assign(part.name).append(suffix);
    names_.Release(name_);
  }
}

void SeriesTable::HideParts(Layout* layout) {
  for (size_t i = 0; i < layout->parts.size(); ++i) {
    const uint32_t position = layout->sources[i];
    if (position == kHidden) continue;
    ReleaseNames(layout->parts[i], SIZE_MAX);
    const auto family = families_.find(layout->parts[i].name);
    std::vector<Source>& sources = family->second;
    const Source last = sources.back();
    last.layout->sources[last.part] = position;
    sources[position] = last;
    sources.pop_back();
    if (sources.empty()) families_.erase(family);
  }
}

void SeriesTable::Sweep() {
  const WriteGuard lock(mutex_);
  if (!page_in_work_) SweepIfDue();
}

void SeriesTable::SweepIfDue() {
  now_ = clock_();
  if (now_.steady - aged_ >= options_.ttl) {
    aged_ = now_.steady;
    refused_.Age();
  }
  if (now_.steady - swept_ < std::min<steady_clock::duration>(options_.ttl, kMaxSweepPause)) {
    return;
  }
  swept_ = now_.steady;
  SweepSeries();
  SweepMetrics();
  UpdateHealth();
}

void SeriesTable::SweepSeries() {
  for (auto next = series_.begin(); next != series_.end();) {
    Node& node = *next;
    if (!IsOutdated(node.second)) {
      ++next;
      continue;
    }
    if (options_.page) {
      ReleaseLabels(node.first, SIZE_MAX, node.second.layout->metric);
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
        HideParts(layout->second.get());
        bytes_ -= layout->second->bytes;
        page_bytes_ -= layout->second->head_bytes;
        layout = layouts.erase(layout);
      } else {
        ++layout;
      }
    }
    if (layouts.empty()) {
      bytes_ -= BytesOf(*next->second);
      next = metrics_.erase(next);
    } else {
      ++next;
    }
  }
  // Names may have become free.
  for (const auto& [key, metric] : metrics_) {
    for (const auto& [hash, layout] : metric->layouts) {
      if (!layout->shown_whole) ShowParts(layout.get());
    }
  }
}

size_t SeriesTable::BytesOf(const Node& node) {
  // The node of the table, its key, a bucket and the layout's list of series.
  return sizeof(Node) + HeapBytes(node.first) + 4 * kHeapOverhead;
}

size_t SeriesTable::BytesOfCells(const Layout& layout) {
  const size_t columns = layout.columns.size();
  return columns > 1 ? columns * sizeof(Cell) + kHeapOverhead : 0;
}

size_t SeriesTable::BytesOf(const Metric& metric) {
  return sizeof(Metric) + 2 * HeapBytes(metric.name) + sizeof(std::string) + 6 * kHeapOverhead;
}

size_t SeriesTable::PageBytesOf(const Entry& entry) {
  const LinesSize& size = entry.layout->series_size;
  return size.bytes + size.lines * entry.label_bytes;
}

bool SeriesTable::HasRoom(const Target& target, bool known) {
  // A series whose columns change takes no more place than before.
  if (!known && series_.size() >= options_.max_series) return false;
  if (bytes_ >= options_.max_series * kBytesPerSeries) return false;
  if (page_bytes_ >= options_.max_series * kPageBytesPerSeries) return false;
  label_bytes_ = 0;
  for (const PointTags::Tag& tag : tags_) label_bytes_ += LabelSize(tag.key, tag.value);
  return ProductOf(target) <= kMaxSeriesPageBytes;
}

size_t SeriesTable::ProductOf(const Target& target) {
  const Block& block = *target.block;
  if (target.layout != nullptr) {
    const LinesSize& size = target.layout->series_size;
    return target.layout->head_bytes + size.bytes + size.lines * label_bytes_;
  }
  // Families have two lines before their samples, with both names three times.
  constexpr size_t kRestOfLines = 200;
  const size_t lines = std::max<size_t>(block.fields.size(), 2);
  const size_t name = 3 * block.name.size() + EscapedSize(block.name, false);
  size_t columns = 0;
  for (const Field& field : block.fields) {
    columns += 3 * field.name.size() + EscapedSize(field.name, false);
  }
  return lines * (label_bytes_ + name + kRestOfLines) + columns;
}

void SeriesTable::Refuse(Refusal reason) {
  CountPoints(reason, 1);
  if (!metric_hash_) metric_hash_ = std::hash<std::string>{}(metric_key_);
  const size_t tags = std::hash<std::string_view>{}({key_.data(), tag_bytes_});
  const size_t of_reason = static_cast<size_t>(reason);
  if (refused_.Add((*metric_hash_ * 31 + tags) * 31 + of_reason)) CountSeries(reason);
}

void SeriesTable::CountPoints(Refusal reason, size_t count) {
  health_->refused_points[static_cast<size_t>(reason)] += count;
}

void SeriesTable::CountSeries(Refusal reason) {
  ++health_->refused_series[static_cast<size_t>(reason)];
}

bool SeriesTable::IsOutdated(const Entry& entry) const {
  return now_.steady - entry.news > options_.ttl;
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
  SweepIfDue();  // pages that follow each other closely could put it off for good
}

void SeriesTable::AppendTurns(bool timestamps, std::string* page) {
  const PageTurns turns(this);
  SampleWriter writer(timestamps, page);
  PagePosition position;
  {
    const WriteGuard lock(mutex_);
    now_ = clock_();
    position.family = families_.begin();
    // Growing would take twice the memory of a page; what is not written of this takes none. The
    // rest is for what comes meanwhile.
    page->reserve(page->size() + page_bytes_ + page_bytes_ / 8);
  }
  for (bool more = true; more;) {
    // A mutex is not fair: the next turn would mostly begin before the decoder has woken up.
    while (waiting_ > 0) std::this_thread::yield();
    const WriteGuard lock(mutex_);
    more = AppendTurn(&position, &writer, page);
  }
}

bool SeriesTable::AppendTurn(PagePosition* position, SampleWriter* writer, std::string* page) {
  size_t left = kTurnSeries;
  const size_t end = page->size() + kTurnBytes;
  for (; position->family != families_.end(); ++position->family, position->source = 0) {
    const std::vector<Source>& sources = position->family->second;
    if (position->source == 0 && position->series == 0) position->head = false;
    for (; position->source < sources.size(); ++position->source, position->series = 0) {
      const Source& source = sources[position->source];
      const std::vector<Node*>& series = source.layout->series;
      for (; position->series < series.size(); ++position->series) {
        if (left-- == 0 || page->size() > end) return true;
        AppendSeries(source, *series[position->series], position, writer, page);
      }
    }
  }
  return false;
}

void SeriesTable::AppendSeries(const Source& source, const Node& node, PagePosition* position,
                               SampleWriter* writer, std::string* page) const {
  const Entry& entry = node.second;
  const Layout& layout = *source.layout;
  const FamilyPart& part = layout.parts[source.part];
  const Cell& cell = entry.cells()[part.column];
  const auto ttl = static_cast<uint64_t>(options_.ttl.count());
  // A column can be silent for long while others of its row go on.
  const bool silent =
      cell.timestamp == INT64_MIN ||
      static_cast<uint64_t>(entry.newest) - static_cast<uint64_t>(cell.timestamp) > ttl;
  if (IsOutdated(entry) || silent) return;
  if (!position->head) {
    const Metric& metric = *layout.metric;
    AppendFamilyHead(part, SourceOf(metric.kind, metric.name, ColumnOf(part, layout.columns)),
                     page);
  }
  position->head = true;
  writer->BeginLabels();
  ForEachTag(node.first, [&](std::string_view key, std::string_view value) {
    writer->AddLabel(key, value);
    return true;
  });
  switch (part.type) {
    case FamilyType::kSummary:
      writer->Summary(part.name, entry.cells());
      break;
    case FamilyType::kHistogram:
      writer->Histogram(part.name, layout.bounds, entry.cells());
      break;
    case FamilyType::kGauge:
    case FamilyType::kCounter:
    case FamilyType::kUntyped:
      writer->Single(part.name, cell);
      break;
  }
}

}  // namespace tidegate::agent
