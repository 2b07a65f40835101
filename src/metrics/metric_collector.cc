#include "metrics/metric_collector.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "codec/pack.h"
#include "metrics/client_parts.h"
#include "metrics/impl_parts.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_parts.h"
#include "metrics/packed_values.h"
#include "metrics/series_items.h"
#include "util/event_counter_add.h"
#include "util/line_allocator.h"
#include "util/metric_clock_util.h"
#include "util/metric_log.h"
#include "util/metric_size_limits.h"
#include "util/metric_string_util.h"
#include "util/wall_clock.h"

namespace METRICS {
namespace {

// What a series is accounted for in `cache_mem_` beside its strings, when it is made and when it
// is erased.
constexpr unsigned long kCreatedSeriesBytes = 112;
constexpr unsigned long kErasedSeriesBytes = 56;

constexpr uint32_t kHourMillis = 3'600'000;

/// Allocates an object with room for more bytes after it. As a cell begins with two lines and takes
/// one, the next item begins with a line too, unless other memory comes between.
template <class T>
struct TailAllocator {
  using value_type = T;

  explicit TailAllocator(size_t tail) : tail_bytes(tail) {}
  template <class U>
  explicit TailAllocator(const TailAllocator<U>& other) : tail_bytes(other.tail_bytes) {}

  T* allocate(size_t count) {
    constexpr size_t kHeapWord = sizeof(size_t);
    constexpr size_t kTwoLines = 2 * kCacheLineBytes;
    const size_t bytes = count * sizeof(T) + tail_bytes + kHeapWord;
    const size_t pairs = (bytes + kCacheLineBytes - 1) / kTwoLines;  // and a line
    return static_cast<T*>(::operator new(pairs* kTwoLines + kCacheLineBytes - kHeapWord));
  }
  void deallocate(T* memory, size_t /*count*/) { ::operator delete(memory); }

  friend bool operator==(const TailAllocator&, const TailAllocator&) { return true; }
  friend bool operator!=(const TailAllocator&, const TailAllocator&) { return false; }

  size_t tail_bytes;
};

// Before an item are the counts of its owners and the allocator. An emission on its first suffix
// reads the vector of virtual functions in the first line and all of the second one; the pointer to
// further cells and the values come after these.
constexpr size_t kBeforeItem = 2 * sizeof(void*) + sizeof(TailAllocator<MetricSuffixArray>);
static_assert(kBeforeItem + sizeof(MetricSuffixArray) == 2 * kCacheLineBytes + sizeof(void*));

/// Whether a cell of type `type` has a lock.
bool HasLock(MetricsType type) {
  return type == MetricsType::kTimer || type == MetricsType::kHistogram;
}

struct DropItem {
  void operator()(MetricCollectorItem& item) const { item.Drop(); }
};

}  // namespace

MetricCollectorBase::MetricCollectorBase(CollectorFactoryParts* factory, MetricParts* metric)
    : factory_(factory),
      metric_(metric),
      co_type_(metric->kind_),
      name_(metric->name_),
      pre_encode_tags_(factory->client_->configer_->pre_encode_tags_),
      max_series_(metric->max_series_),
      metric_ref_(metric->weak_from_this()) {}

MetricCollectorBase::~MetricCollectorBase() { metric_ = nullptr; }

ReturnCode MetricCollectorBase::Init() { return ReturnCode::kOk; }
std::vector<Series> MetricCollectorBase::GetAll() { return {}; }
unsigned long MetricCollectorBase::SeriesSize() { return 0; }
unsigned long MetricCollectorBase::DPSize() { return 0; }
ReturnCode MetricCollectorBase::Clear() { return ReturnCode::kOk; }
void MetricCollectorBase::Erase(const std::vector<std::string>& /*tag_values*/) {}
std::shared_ptr<MetricCollectorItem> MetricCollectorBase::GetOrCreate(
    const std::vector<std::string>& /*tag_values*/) {
  return nullptr;
}
uint32_t MetricCollectorBase::Id() { return 0; }
std::shared_ptr<MetricCollectorItem> MetricCollectorBase::Find(const TagValueRefs& /*values*/) {
  return nullptr;
}

std::shared_ptr<MetricCollectorItem> MetricCollectorBase::FindOverflow(
    const TagValueRefs& /*values*/) {
  return nullptr;
}

bool MetricCollectorBase::EraseIdle(MetricCollectorItem& /*item*/, long /*now*/) { return true; }

std::shared_ptr<MetricCollectorItem> MetricCollectorBase::GetOrCreateOf(
    const std::vector<std::string>& tag_values, const TagValueRefs& /*refs*/) {
  return GetOrCreate(tag_values);
}

TakenEntries MetricCollectorBase::TakeAll() {
  Clear();
  return NoEntries();
}

bool MetricCollectorBase::NextPiece(ListCursor& /*cursor*/, SeriesItems& items) {
  items.clear();
  return false;
}

bool MetricCollectorBase::EmitToKnown(const TagValueRefs& /*tag_values*/,
                                      const MetricFieldValue* /*values*/, size_t /*count*/) {
  return false;
}

unsigned long MetricCollectorBase::CountCells() {
  unsigned long cells = 0;
  ListCursor cursor;
  for (SeriesItems items; NextPiece(cursor, items);) {
    for (const std::shared_ptr<MetricCollectorItem>& item : items) {
      cells += item->Size();
    }
  }
  return cells;
}

bool MetricCollectorBase::AtSeriesQuota() const {
  const unsigned long count = factory_->total_series_.load();
  if (count < factory_->max_series_) {
    return false;
  }
  // The line names the default quota, whatever the configured one is.
  METRICS_LOG_WARN("TotalSeriesCount reach maximum, count: %lu quota: %d\n", count, 10000000);
  return true;
}

void MetricCollectorBase::CountOverflow() {
  metric_->emit_overflow_.Add(1);
  uint32_t told = overflow_told_.load(std::memory_order_relaxed);
  const uint32_t now = CoarseMillis() | 1U;  // read after it: never before it
  if ((told == 0 || now - told >= kHourMillis) &&
      overflow_told_.compare_exchange_strong(told, now, std::memory_order_relaxed)) {
    METRICS_LOG_WARN("Metric tenant[%s] %s has its limit of %zu series: new ones go to \"%.*s\"\n",
                     metric_->impl_parts_->tenant_.c_str(), name_.c_str(), max_series_,
                     static_cast<int>(kOverflowValue.size()), kOverflowValue.data());
  }
}

bool MetricCollectorBase::HasTooLongTags(const std::vector<std::string>& tag_values) const {
  const unsigned long bytes = metric_->impl_parts_->send_tag_bytes_ + GetSize(tag_values);
  if (bytes <= kMaxSeriesTagBytes) {
    return false;
  }
  METRICS_LOG_ERROR("Tags of a series in metric[%s] too long, bytes: %lu, limit: %lu\n",
                    name_.c_str(), bytes, kMaxSeriesTagBytes);
  return true;
}

template <class Item>
std::shared_ptr<MetricCollectorItem> MetricCollectorBase::MakeItemOf(
    const std::vector<std::string>& tag_values, int32_t tag_hash,
    const std::string& encoded_tags) const {
  static_assert(sizeof(Item) % alignof(PackedValues) == 0 && sizeof(Item) <= UINT16_MAX);
  const TailAllocator<Item> allocator(PackedValues::Bytes(tag_values));
  auto item = std::allocate_shared<Item>(allocator, metric_, tag_hash, encoded_tags);
  PackedValues::Make(item.get() + 1, tag_values);
  item->values_at_ = sizeof(Item);
  return item;
}

std::shared_ptr<MetricCollectorItem> MetricCollectorBase::MakeItem(
    const std::vector<std::string>& tag_values, bool encode_tags) const {
  int32_t tag_hash = 0;
  std::string encoded_tags;
  if (encode_tags) {
    lattice_kit::codec::Pack scratch(kTagScratchBytes);
    metric_->impl_parts_->EncodeTagBlock(tag_values, tag_hash, scratch);
    encoded_tags = scratch.Bytes();
  }
  switch (co_type_) {
    case MetricCoItemType::kCoItemSuffix:
      return MakeItemOf<MetricSuffixArray>(tag_values, tag_hash, encoded_tags);
    case MetricCoItemType::kCoItemField:
      return MakeItemOf<MetricFieldArray>(tag_values, tag_hash, encoded_tags);
    case MetricCoItemType::kCoItemCompatible:
      return MakeItemOf<MetricCompatibleItem>(tag_values, tag_hash, encoded_tags);
    case MetricCoItemType::kCoItemUnknown:
      break;
  }
  return nullptr;
}

HashMapCollector::HashMapCollector(CollectorFactoryParts* factory, MetricParts* metric)
    : MetricCollectorBase(factory, metric),
      series_(std::make_unique<SeriesMap>(factory->total_series_)) {}

HashMapCollector::~HashMapCollector() = default;

std::vector<Series> HashMapCollector::GetAll() { return series_->GetAll(); }

bool HashMapCollector::NextPiece(ListCursor& cursor, SeriesItems& items) {
  return series_->NextPiece(cursor, items);
}

unsigned long HashMapCollector::SeriesSize() { return series_->Size(); }

ReturnCode HashMapCollector::Clear() {
  TakeAll();
  return ReturnCode::kOk;
}

TakenEntries HashMapCollector::TakeAll() { return series_->TakeAll<DropItem>(); }

void HashMapCollector::Erase(const std::vector<std::string>& tag_values) {
  EraseSeriesIf(tag_values, [](const MetricCollectorItem& /*item*/) { return true; });
}

bool HashMapCollector::EraseIdle(MetricCollectorItem& item, long now) {
  if (!item.ClaimForErasing()) {
    return false;
  }
  bool idle = true;
  EraseSeriesIf(item.values(), [&](const MetricCollectorItem& found) {
    idle = item.IsIdle(now);
    return idle && &found == &item;
  });
  if (!idle) {
    item.Unclaim();
  }
  return idle;
}

template <class Values, class Condition>
void HashMapCollector::EraseSeriesIf(const Values& tag_values, Condition condition) {
  const std::shared_ptr<MetricParts> metric = PinMetric();
  const std::shared_ptr<MetricCollectorItem> item = series_->EraseIf(tag_values, condition);
  if (item == nullptr) {
    return;
  }
  item->Drop();
  if (metric != nullptr) {
    metric->cache_mem_.fetch_sub(item->values().TextBytes() + item->MemSize() + kErasedSeriesBytes);
  }
}

std::shared_ptr<MetricCollectorItem> HashMapCollector::Find(const TagValueRefs& tag_values) {
  return series_->Get(tag_values);
}

bool HashMapCollector::EmitToKnown(const TagValueRefs& tag_values, const MetricFieldValue* values,
                                   size_t count) {
  if (count > kMaxPlainValues) {
    return false;
  }
  for (size_t i = 0; i < count; ++i) {
    if (HasLock(values[i].type)) {  // which another thread may hold, and writers would wait for it
      return false;
    }
  }
  bool emitted = false;
  series_->Visit(tag_values, SeriesMap::HashOf(tag_values), [&](MetricCollectorItem& item) {
    if (item.tags_valid_.load(std::memory_order_relaxed)) {
      emitted = EmitPlain(item, co_type_, values, count);
    }
  });
  return emitted;
}

std::shared_ptr<MetricCollectorItem> HashMapCollector::GetOrCreate(
    const std::vector<std::string>& tag_values) {
  return GetOrCreateHashed(tag_values, SeriesMap::HashOf(tag_values));
}

std::shared_ptr<MetricCollectorItem> HashMapCollector::GetOrCreateOf(
    const std::vector<std::string>& tag_values, const TagValueRefs& refs) {
  return GetOrCreateHashed(tag_values, SeriesMap::HashOf(refs));
}

template <class Values>
bool HashMapCollector::IsOneTooMany(const Values& tag_values, uint32_t hash) {
  const size_t most = MostSeries(tag_values, co_type_, max_series_);
  return most != SIZE_MAX &&
         series_->IsOneTooMany(tag_values, hash, !IsOverflow(tag_values, co_type_), most);
}

std::shared_ptr<MetricCollectorItem> HashMapCollector::FindOverflow(
    const TagValueRefs& tag_values) {
  return IsOneTooMany(tag_values, SeriesMap::HashOf(tag_values)) ? Overflow(tag_values) : nullptr;
}

template <class Values>
std::shared_ptr<MetricCollectorItem> HashMapCollector::Overflow(const Values& tag_values) {
  std::shared_ptr<MetricCollectorItem> item;
  bool one_too_many = false;
  for (const bool tagged : {true, false}) {
    const OverflowValues<Values> values(tag_values, co_type_, tagged);
    const uint32_t hash = SeriesMap::HashOf(values);
    item = series_->Get(values, hash);
    one_too_many = item == nullptr && IsOneTooMany(values, hash);
    if (item == nullptr && !one_too_many) {
      item = CreateSeries(values.ToVector(), hash, one_too_many);
    }
    if (!one_too_many) {
      break;
    }
  }
  assert(!one_too_many);
  if (item != nullptr && item->metric_ != nullptr) {  // else the look-up failed
    CountOverflow();
  }
  return item;
}

std::shared_ptr<MetricCollectorItem> HashMapCollector::CreateOrOverflow(
    const std::vector<std::string>& tag_values, uint32_t hash) {
  bool one_too_many = max_series_ != 0 && IsOneTooMany(tag_values, hash);
  std::shared_ptr<MetricCollectorItem> item;
  if (!one_too_many) {
    item = CreateSeries(tag_values, hash, one_too_many);
  }
  return one_too_many ? Overflow(tag_values) : item;
}

std::shared_ptr<MetricCollectorItem> HashMapCollector::CreateSeries(
    const std::vector<std::string>& tag_values, uint32_t hash, bool& one_too_many) {
  if (standby_.load(std::memory_order_acquire)) {
    return nullptr;
  }
  if (AtSeriesQuota()) {
    return CountedDummyItem(*metric_);
  }
  if (metric_ == nullptr) {
    return DummyItem();
  }
  if (HasTooLongTags(tag_values)) {
    return CountedDummyItem(*metric_);
  }
  std::shared_ptr<MetricCollectorItem> item = MakeItem(tag_values, pre_encode_tags_);
  if (item == nullptr) {
    METRICS_LOG_ERROR("Internal Error for Unknown Collector Type: %d\n",
                      static_cast<int>(co_type_));
    return CountedDummyItem(*metric_);
  }
  // A pass of expiry that comes before the first emission would erase it.
  item->last_update_.store(WallSeconds(), std::memory_order_relaxed);
  const size_t most = MostSeries(tag_values, co_type_, max_series_);
  for (ReturnCode code; (code = series_->Insert(item, hash, most)) != ReturnCode::kOk;) {
    if (code == ReturnCode::kNotSupported) {
      one_too_many = true;
      return nullptr;
    }
    if (std::shared_ptr<MetricCollectorItem> winner = series_->Get(tag_values, hash)) {
      return winner;
    }  // cleared or erased meanwhile: this item takes its place
  }
  metric_->cache_mem_.fetch_add(GetSize(tag_values) + kCreatedSeriesBytes);
  if (LogLevel() == 0) {
    DebugMsg(tag_values, "Create a Item in Collector: %s with DataBase type: %d", name_.c_str(),
             static_cast<int>(item->Type()));
  }
  return item;
}

}  // namespace METRICS
