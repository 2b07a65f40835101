#include "agent/series_table.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;
using std::chrono::steady_clock;

constexpr size_t kTurn = 2000;  // series of a page between two looks at the decoder's wishes
constexpr std::chrono::seconds kMaxSweepPause(10);

// Of one series on the page, and of the names that its labels claim: what grows with the product of
// what a packet holds. Far above what the limits of the library allow a series that anyone means.
constexpr size_t kMaxProductBytes = 16 << 20;

// What the heap and the tables add to each piece of memory.
constexpr size_t kHeapOverhead = 16;

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

// The key of a series is its tags and then the number of its metric. Calls handle(key, value) with
// the tags, in order, until it answers false.
template <typename Handle>
void ForEachTag(std::string_view key, const Handle& handle) {
  key.remove_suffix(sizeof(uint32_t));
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

// What a series adds to the page, roughly.
size_t PageBytes(size_t columns, size_t key, size_t name) {
  constexpr size_t kRestOfLine = 40;
  return std::max<size_t>(columns, 1) * (key + name + kRestOfLine);
}

// What the names of its labels take, roughly: each holds the name of the metric.
size_t LabelBytes(size_t tags, size_t name) {
  constexpr size_t kRestOfClaim = 128;
  return tags * (name + kRestOfClaim);
}

std::string LabelClaim(const std::string& metric, std::string_view key) {
  return MetricNameOf(metric) + '{' + LabelNameOf(key) + '}';
}

void ClaimOwnNames(const Health& health, NameClaims* claims) {
  health.ForEach([&](const Health::Sample& sample) {
    claims->Claim(std::string(sample.name), "agent's own number");
  });
}

// Of the first `count` labels.
void ReleaseLabels(const std::string& metric, std::string_view key, size_t count,
                   NameClaims* claims) {
  ForEachTag(key, [&](std::string_view tag, std::string_view /*value*/) {
    if (count-- == 0) return false;
    claims->Release(LabelClaim(metric, tag));
    return true;
  });
}

// All or none.
bool ClaimLabels(const std::string& metric, std::string_view key, NameClaims* claims) {
  size_t claimed = 0;
  bool free = true;
  ForEachTag(key, [&](std::string_view tag, std::string_view /*value*/) {
    free = claims->Claim(LabelClaim(metric, tag), "tag " + std::string(tag));
    if (free) ++claimed;
    return free;
  });
  if (!free) ReleaseLabels(metric, key, claimed, claims);
  return free;
}

}  // namespace

SeriesTable::SeriesTable(const Options& options, Health* health, CollisionLog::Reporter report,
                         Clock clock)
    : options_(options),
      clock_(std::move(clock)),
      health_(health),
      claims_(std::move(report)),
      now_(clock_()),
      swept_(now_) {
  ClaimOwnNames(*health_, &claims_);
  own_claim_bytes_ = claims_.bytes();
}

SeriesTable::~SeriesTable() = default;

void SeriesTable::Handle(const Packet& packet, const ClientId& client) {
  ++waiting_;
  const WriteGuard lock(mutex_);
  --waiting_;
  now_ = clock_();
  for (const Block& block : packet.blocks) HandleBlock(packet, client, block);
  UpdateHealth();
}

void SeriesTable::HandleBlock(const Packet& packet, const ClientId& client, const Block& block) {
  if (block.series.empty()) return;
  const Kind kind = KindOf(block);
  Layout* layout = FindLayout(kind, block);
  for (const Series& record : block.series) {
    tags_.Assign(packet, client, options_.label_pid, kind, record);
    MakeKey();
    Node* node = layout == nullptr ? nullptr : FindSeries(*layout->metric);
    if (node == nullptr || node->second.layout != layout) {
      node = Place(kind, block, &layout);
      if (node == nullptr) continue;
    }
    if (!layout->shown_whole) ++health_->collided_points;
    Update(record, block.timestamp, &node->second);
  }
}

SeriesTable::Node* SeriesTable::Place(Kind kind, const Block& block, Layout** layout) {
  if (!HasRoom(block)) {
    ++health_->refused_points;
    return nullptr;
  }
  if (*layout == nullptr) *layout = AddLayout(kind, block);
  Node* node = FindSeries(*(*layout)->metric);
  if (node == nullptr) return AddSeries(*layout);
  Detach(node);
  Attach(node, *layout);
  return node;
}

SeriesTable::Layout* SeriesTable::FindLayout(Kind kind, const Block& block) {
  metric_key_.assign(1, static_cast<char>(kind)).append(block.name);
  const auto found = metrics_.find(metric_key_);
  if (found == metrics_.end()) return nullptr;
  for (const std::unique_ptr<Layout>& layout : found->second->layouts) {
    if (SameColumns(block, layout->columns)) return layout.get();
  }
  return nullptr;
}

SeriesTable::Layout* SeriesTable::AddLayout(Kind kind, const Block& block) {
  std::unique_ptr<Metric>& metric = metrics_[metric_key_];
  if (metric == nullptr) {
    metric = std::make_unique<Metric>(Metric{kind, block.name, next_id_++, {}});
    bytes_ += BytesOf(*metric);
  }
  auto layout = std::make_unique<Layout>();
  layout->metric = metric.get();
  layout->bytes = sizeof(Layout) + kHeapOverhead;
  for (const Field& field : block.fields) layout->columns.push_back(field.name);
  if (layout->columns.empty()) layout->columns.emplace_back();
  if (kind == Kind::kHistogram) layout->bounds = *HistogramBounds(block);
  if (options_.page) layout->parts = FamiliesOf(kind, block.name, layout->columns);
  layout->shown.resize(layout->parts.size());
  for (const std::string& column : layout->columns) {
    layout->bytes += column.capacity() + sizeof(std::string) + sizeof(double);
  }
  for (const FamilyPart& part : layout->parts) {
    // The name stands in the table of families as well; claims count themselves.
    layout->bytes += sizeof(part) + 2 * (part.name.size() + part.source.size() + kHeapOverhead);
  }
  bytes_ += layout->bytes;
  ShowParts(layout.get());
  return metric->layouts.emplace_back(std::move(layout)).get();
}

void SeriesTable::MakeKey() {
  tag_bytes_ = 0;
  tag_count_ = 0;
  for (const PointTags::Tag& tag : tags_) {
    tag_bytes_ += 2 * sizeof(uint32_t) + tag.key.size() + tag.value.size();
    ++tag_count_;
  }
  key_.resize(tag_bytes_ + sizeof(uint32_t));
  char* end = key_.data();
  for (const PointTags::Tag& tag : tags_) end = PutSized(tag.value, PutSized(tag.key, end));
}

SeriesTable::Node* SeriesTable::FindSeries(const Metric& metric) {
  std::memcpy(key_.data() + tag_bytes_, &metric.id, sizeof(metric.id));
  const auto found = series_.find(key_);
  return found == series_.end() ? nullptr : &*found;
}

SeriesTable::Node* SeriesTable::AddSeries(Layout* layout) {
  if (options_.page && !ClaimLabels(layout->metric->name, key_, &claims_)) {
    ++health_->collided_points;
    return nullptr;
  }
  Node* node = &*series_.try_emplace(key_).first;
  bytes_ += BytesOf(*node);
  Attach(node, layout);
  ++made_;
  return node;
}

void SeriesTable::Attach(Node* node, Layout* layout) {
  Entry& entry = node->second;
  const size_t columns = layout->columns.size();
  entry.layout = layout;
  entry.position = static_cast<uint32_t>(layout->series.size());
  entry.cell = Cell();
  entry.row = columns > 1 ? std::make_unique<Cell[]>(columns) : nullptr;
  entry.newest = INT64_MIN;
  layout->series.push_back(node);
  bytes_ += BytesOfCells(*layout);
  page_bytes_ += PageBytes(columns, node->first.size(), layout->metric->name.size());
}

void SeriesTable::Detach(Node* node) {
  Entry& entry = node->second;
  Layout& layout = *entry.layout;
  bytes_ -= BytesOfCells(layout);
  page_bytes_ -= PageBytes(layout.columns.size(), node->first.size(), layout.metric->name.size());
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
  if (timestamp >= entry->newest) entry->news = now_;
  entry->newest = std::max(entry->newest, timestamp);
}

void SeriesTable::ShowParts(Layout* layout) {
  layout->shown_whole = true;
  for (size_t i = 0; i < layout->parts.size(); ++i) {
    if (layout->shown[i]) continue;
    if (ClaimNames(layout->parts[i])) {
      layout->shown[i] = true;
      families_[layout->parts[i].name].push_back({layout, i});
    } else {
      layout->shown_whole = false;
    }
  }
}

bool SeriesTable::ClaimNames(const FamilyPart& part) {
  const std::vector<std::string> names = SampleNamesOf(part);
  for (size_t i = 0; i < names.size(); ++i) {
    if (claims_.Claim(names[i], part.source)) continue;
    while (i-- > 0) claims_.Release(names[i]);
    return false;
  }
  return true;
}

void SeriesTable::HideParts(Layout* layout) {
  for (size_t i = 0; i < layout->parts.size(); ++i) {
    if (!layout->shown[i]) continue;
    for (const std::string& name : SampleNamesOf(layout->parts[i])) claims_.Release(name);
    const auto family = families_.find(layout->parts[i].name);
    std::vector<Source>& sources = family->second;
    sources.erase(std::remove_if(sources.begin(), sources.end(),
                                 [&](const Source& source) { return source.layout == layout; }),
                  sources.end());
    if (sources.empty()) families_.erase(family);
  }
}

void SeriesTable::Sweep() {
  const WriteGuard lock(mutex_);
  if (!page_in_work_) SweepIfDue();
}

void SeriesTable::SweepIfDue() {
  now_ = clock_();
  if (now_ - swept_ < std::min<steady_clock::duration>(options_.ttl, kMaxSweepPause)) {
    return;
  }
  swept_ = now_;
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
      ReleaseLabels(node.second.layout->metric->name, node.first, SIZE_MAX, &claims_);
    }
    Detach(&node);
    bytes_ -= BytesOf(node);
    next = series_.erase(next);
  }
}

void SeriesTable::SweepMetrics() {
  for (auto next = metrics_.begin(); next != metrics_.end();) {
    std::vector<std::unique_ptr<Layout>>& layouts = next->second->layouts;
    for (std::unique_ptr<Layout>& layout : layouts) {
      if (!layout->series.empty()) continue;
      HideParts(layout.get());
      bytes_ -= layout->bytes;
      layout.reset();
    }
    layouts.erase(std::remove(layouts.begin(), layouts.end(), nullptr), layouts.end());
    if (layouts.empty()) {
      bytes_ -= BytesOf(*next->second);
      next = metrics_.erase(next);
    } else {
      ++next;
    }
  }
  // Names may have become free.
  for (const auto& [key, metric] : metrics_) {
    for (const std::unique_ptr<Layout>& layout : metric->layouts) ShowParts(layout.get());
  }
}

size_t SeriesTable::BytesOf(const Node& node) {
  return sizeof(Node) + node.first.size() + 3 * kHeapOverhead;
}

size_t SeriesTable::BytesOfCells(const Layout& layout) {
  const size_t columns = layout.columns.size();
  return columns > 1 ? columns * sizeof(Cell) + kHeapOverhead : 0;
}

size_t SeriesTable::BytesOf(const Metric& metric) {
  return sizeof(Metric) + 2 * (metric.name.size() + sizeof(std::string) + kHeapOverhead);
}

bool SeriesTable::HasRoom(const Block& block) {
  const size_t product = std::max(PageBytes(block.fields.size(), key_.size(), block.name.size()),
                                  LabelBytes(tag_count_, block.name.size()));
  return product <= kMaxProductBytes && Bytes() < options_.max_series * kBytesPerSeries &&
         page_bytes_ < options_.max_series * kPageBytesPerSeries &&
         (series_.size() < options_.max_series || IsKnown());
}

// A series whose columns change takes no more place than before.
bool SeriesTable::IsKnown() {
  const auto metric = metrics_.find(metric_key_);
  return metric != metrics_.end() && FindSeries(*metric->second) != nullptr;
}

size_t SeriesTable::Bytes() const { return bytes_ + claims_.bytes() - own_claim_bytes_; }

bool SeriesTable::IsOutdated(const Entry& entry) const { return now_ - entry.news > options_.ttl; }

void SeriesTable::UpdateHealth() {
  health_->series = series_.size();
  health_->series_bytes = Bytes();
}

void SeriesTable::AppendPage(bool timestamps, std::string* page) {
  const WriteGuard whole(page_mutex_);
  SampleWriter writer(timestamps, page);
  PagePosition position;
  {
    const WriteGuard lock(mutex_);
    page_in_work_ = true;
    now_ = clock_();
    position.family = families_.begin();
  }
  for (bool more = true; more;) {
    // A mutex is not fair: the next turn would mostly begin before the decoder has woken up.
    while (waiting_ > 0) std::this_thread::yield();
    const WriteGuard lock(mutex_);
    more = AppendTurn(&position, &writer, page);
  }
  const WriteGuard lock(mutex_);
  page_in_work_ = false;
  SweepIfDue();  // pages that follow each other closely could put it off for good
}

bool SeriesTable::AppendTurn(PagePosition* position, SampleWriter* writer, std::string* page) {
  size_t left = kTurn;
  for (; position->family != families_.end(); ++position->family, position->source = 0) {
    const std::vector<Source>& sources = position->family->second;
    if (position->source == 0 && position->series == 0) position->head = false;
    for (; position->source < sources.size(); ++position->source, position->series = 0) {
      const Source& source = sources[position->source];
      const std::vector<Node*>& series = source.layout->series;
      for (; position->series < series.size(); ++position->series) {
        if (left-- == 0) return true;
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
  if (!position->head) AppendFamilyHead(part, page);
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
