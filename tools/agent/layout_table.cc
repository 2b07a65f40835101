#include "agent/layout_table.h"

#include <algorithm>
#include <utility>

#include "agent/exposition.h"
#include "agent/shrink.h"

namespace tidegate::agent {

LayoutTable::Target LayoutTable::Find(const Block& block) {
  Target target = {KindOf(block), &block, nullptr, nullptr};
  key_.assign(1, static_cast<char>(target.kind)).append(block.name);
  key_hash_.reset();
  const auto found = metrics_.find(key_);
  if (found == metrics_.end()) return target;
  target.metric = found->second.get();
  target.layout = target.metric->Find(block);
  return target;
}

size_t LayoutTable::KeyHash() {
  if (!key_hash_) key_hash_ = std::hash<std::string>{}(key_);
  return *key_hash_;
}

size_t LayoutTable::MaxPageBytes(const Target& target, size_t label_bytes) {
  const Block& block = *target.block;
  if (target.layout != nullptr) {
    const LinesSize& size = target.layout->series_size;
    return target.layout->head_bytes + size.bytes + size.lines * label_bytes;
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
  budget_->AddWork(name + columns);
  return lines * (label_bytes + name + kRestOfLines) + columns;
}

void LayoutTable::Add(Target* target, size_t label_bytes) {
  budget_->AddWork(MaxPageBytes(*target, label_bytes));
  const Block& block = *target->block;
  if (all_.size() == all_.capacity()) all_.reserve(2 * all_.size() + 1);
  auto layout = std::make_unique<SeriesLayout>(target->kind, block, page_);
  if (target->metric == nullptr) {
    auto metric = std::make_unique<SeriesMetric>(
        SeriesMetric{target->kind,
                     block.name,
                     next_id_++,
                     NameClaims<std::string>(budget_->counted_bytes()),
                     {}});
    target->metric = metrics_.emplace(key_, std::move(metric)).first->second.get();
    budget_->Take(target->metric->Bytes(), 0);
  }
  layout->metric = target->metric;
  target->layout =
      target->metric->layouts.emplace(HashOfColumns(block), std::move(layout))->second.get();
  target->layout->index = all_.size();
  all_.push_back(target->layout);
  budget_->Take(target->layout->bytes, target->layout->head_bytes);
  names_->Show(target->layout);
}

void LayoutTable::Sweep() {
  for (auto next = metrics_.begin(); next != metrics_.end();) {
    SeriesMetric* const metric = next->second.get();
    SweepLayouts(metric);
    if (metric->layouts.empty()) {
      budget_->GiveBack(metric->Bytes(), 0);
      next = metrics_.erase(next);
    } else {
      ++next;
    }
  }
  // Names may have become free.
  for (const auto& [key, metric] : metrics_) {
    for (const auto& [hash, layout] : metric->layouts) {
      if (!layout->shown_whole) names_->Show(layout.get());
    }
  }
}

void LayoutTable::SweepLayouts(SeriesMetric* metric) {
  auto& layouts = metric->layouts;
  for (auto next = layouts.begin(); next != layouts.end();) {
    SeriesLayout* const layout = next->second.get();
    if (!layout->series.empty()) {
      layout->Shrink();
      ++next;
      continue;
    }
    names_->Hide(layout);
    all_[layout->index] = all_.back();
    all_[layout->index]->index = layout->index;
    all_.pop_back();
    budget_->GiveBack(layout->bytes, layout->head_bytes);
    next = layouts.erase(next);
  }
}

void LayoutTable::Shrink() {
  ShrinkBuckets(&metrics_);
  if (all_.capacity() / 8 > all_.size() + 1024) all_.shrink_to_fit();
}

}  // namespace tidegate::agent
