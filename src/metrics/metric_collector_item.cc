#include "metrics/metric_collector_item.h"

#include <utility>

#include "metrics/cell_kinds.h"
#include "metrics/cell_table.h"
#include "metrics/impl_parts.h"
#include "metrics/metric_data.h"
#include "metrics/metric_parts.h"
#include "util/metric_log.h"
#include "util/wall_clock.h"

namespace METRICS {

MetricCollectorItem::~MetricCollectorItem() = default;

ReturnCode MetricCollectorItem::Emit(std::vector<MetricFieldValue>&& values) {
  return Emit(std::as_const(values));
}

ReturnCode MetricCollectorItem::Emit(const std::vector<MetricFieldValue>& /*values*/) {
  return ReturnCode::kNotSupported;
}

ReturnCode MetricCollectorItem::Emit(double& /*value*/) { return ReturnCode::kNotSupported; }

ReturnCode MetricCollectorItem::EmitMap(const std::unordered_map<std::string, double>& /*values*/) {
  return ReturnCode::kNotSupported;
}

CellMap MetricCollectorItem::Fields() { return NoopFields(); }
CellPtr MetricCollectorItem::Data() { return NoopDataPtr(); }
size_t MetricCollectorItem::Size() { return 0; }
size_t MetricCollectorItem::MemSize() { return 0; }
MetricCoItemType MetricCollectorItem::Type() { return MetricCoItemType::kCoItemUnknown; }

ReturnCode MetricCollectorItem::Emit(const MetricFieldValue& /*value*/) {
  return ReturnCode::kNotSupported;
}

ReturnCode MetricCollectorItem::FindCell(const std::string& /*name*/, MetricsType /*type*/,
                                         CellPtr& /*cell*/) {
  return ReturnCode::kNotSupported;
}

void MetricCollectorItem::ListCells(std::vector<CellRef>& cells) { cells.clear(); }

CellPtr MetricCollectorItem::CreateData(const MetricsType& type, bool use_ckms,
                                        unsigned short bucket_count) {
  const CellKind* const kind = FindKind(type);
  if (kind == nullptr) {
    METRICS_LOG_ERROR("Internal Error for Unknown MetricType: %d\n", static_cast<int>(type));
    return NoopDataPtr();
  }
  return kind->make({use_ckms, bucket_count});
}

CellPtr MetricCollectorItem::NoopDataPtr() {
  static const CellPtr& cell = *new CellPtr(std::make_shared<MetricBasicData>());
  return cell;
}

CellMap& MetricCollectorItem::NoopFields() {
  static CellMap& fields = *new CellMap();
  return fields;
}

void MetricCollectorItem::Refresh() {
  MarkTime(WallSeconds());
  if (IsHidden()) {
    SetActive(true);
  }
}

void MetricCollectorItem::MarkNewSecond(int64_t now) {
  last_update_.store(now, std::memory_order_relaxed);
  if (IsHidden()) {  // since the emission began
    SetActive(true);
  }
}

void MetricCollectorItem::SetActive(bool active) {
  if (active_.load(std::memory_order_relaxed) == active) {
    return;
  }
  active_.exchange(active);
  // `Drop` marks first, then hides. This shows first, then looks at the mark: one sees the other.
  if (active && IsDropped()) {
    active_.exchange(false);
  }
}

void MetricCollectorItem::Drop() {
  holders_.fetch_or(kDropped);
  active_.exchange(false);
}

ReturnCode MetricCollectorItem::RefuseDropped() const {
  metric_->emit_fail_.fetch_add(1, std::memory_order_relaxed);
  return metric_->impl_parts_->state_.load(std::memory_order_acquire) == MetricState::BLOCKED
             ? ReturnCode::kObjectBlocked
             : ReturnCode::kObjectExit;
}

bool MetricCollectorItem::Hold() {
  uint32_t holders = holders_.load(std::memory_order_relaxed);
  while (holders < kDropped) {
    if (holders_.compare_exchange_weak(holders, holders + 1, std::memory_order_acquire)) {
      return true;
    }
  }
  return false;
}

bool MetricCollectorItem::ClaimForErasing() {
  uint32_t nobody = 0;
  return holders_.compare_exchange_strong(nobody, kErasing, std::memory_order_acquire);
}

std::shared_ptr<MetricCollectorItem> DummyItem() {
  static const std::shared_ptr<MetricCollectorItem>& item =
      *new std::shared_ptr<MetricCollectorItem>(
          std::make_shared<MetricCollectorItem>(nullptr, 0, std::string()));
  return item;
}

}  // namespace METRICS
