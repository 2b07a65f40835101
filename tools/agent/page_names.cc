#include "agent/page_names.h"

#include <cstdint>
#include <utility>
#include <vector>

#include "agent/fitted_names.h"
#include "agent/heap_bytes.h"
#include "agent/series_key.h"

namespace tidegate::agent {
namespace {

constexpr size_t kMaxShownName = 200;  // in a line of the log

std::string Shown(std::string_view name) {
  std::string shown(name.substr(0, kMaxShownName));
  return name.size() > kMaxShownName ? shown.append("...") : shown;
}

}  // namespace

PageNames::PageNames(const Health& health, Report report, size_t* bytes)
    : log_(std::move(report)), names_(bytes) {
  const size_t before = *bytes;
  health.ForEach([this](const Health::Sample& sample) {
    names_.Claim(std::string(sample.name), {nullptr, {}}, 0);
  });
  *bytes = before;
}

bool PageNames::ClaimLabels(std::string_view key, SeriesMetric* metric, size_t* claimed) {
  const std::string* owner = nullptr;
  std::string tag;
  SeriesKey::ForEachTag(key, [&](std::string_view tag_key, std::string_view /*value*/) {
    tag.assign(tag_key);
    AssignLabelName(tag_key, &name_);
    owner = metric->labels.Claim(name_, tag, HeapBytes(tag));
    if (owner == nullptr) ++*claimed;
    return owner == nullptr;
  });
  if (owner != nullptr) ReportLabel(metric->name, *owner, tag);
  return owner == nullptr;
}

// Without one of its labels a series would be another one.
void PageNames::ReportLabel(std::string_view metric, std::string_view owner, std::string_view tag) {
  if (log_.IsFull()) return;
  log_.Add("\"" + MetricNameOf(Shown(metric)) + '{' + Shown(name_) + "}\" stands for the tag " +
           Shown(owner) + " in /metrics; series with the tag " + Shown(tag) +
           " are left out there, rename it");
}

void PageNames::ReleaseLabels(std::string_view key, size_t count, SeriesMetric* metric) {
  SeriesKey::ForEachTag(key, [&](std::string_view tag, std::string_view /*value*/) {
    if (count-- == 0) return false;
    AssignLabelName(tag, &name_);
    metric->labels.Release(name_);
    return true;
  });
}

void PageNames::Show(SeriesLayout* layout) {
  layout->shown_whole = true;
  for (size_t i = 0; i < layout->parts.size(); ++i) {
    if (layout->sources[i] == SeriesLayout::kHidden && !ShowPart(layout, i)) {
      layout->shown_whole = false;
    }
  }
}

bool PageNames::ShowPart(SeriesLayout* layout, size_t i) {
  const FamilyPart& part = layout->parts[i];
  size_t claimed = 0;
  try {
    if (ClaimNames(*layout, part, &claimed)) {
      std::vector<FamilySource>& sources = families_[part.name];
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

bool PageNames::ClaimNames(const SeriesLayout& layout, const FamilyPart& part, size_t* claimed) {
  const NameOwner own = {layout.metric, std::string(layout.ColumnOf(part))};
  for (const std::string_view suffix : FormOf(part.type).suffixes) {
    name_.assign(part.name).append(suffix);
    const NameOwner* const owner = names_.Claim(name_, own, HeapBytes(own.column));
    if (owner != nullptr) {
      ReportName(*owner, own);
      return false;
    }
    ++*claimed;
  }
  return true;
}

void PageNames::ReportName(const NameOwner& owner, const NameOwner& late) {
  if (log_.IsFull()) return;
  const auto text = [](const NameOwner& of) {
    if (of.metric == nullptr) return std::string("agent's own number");
    return SourceOf(of.metric->kind, Shown(of.metric->name), Shown(of.column));
  };
  log_.Add("\"" + Shown(name_) + "\" stands for the " + text(owner) + " in /metrics; the " +
           text(late) + " is left out there, rename it");
}

void PageNames::ReleaseNames(const FamilyPart& part, size_t count) {
  for (const std::string_view suffix : FormOf(part.type).suffixes) {
    if (count-- == 0) return;
    name_.assign(part.name).append(suffix);
    names_.Release(name_);
  }
}

void PageNames::Hide(SeriesLayout* layout) {
  for (size_t i = 0; i < layout->parts.size(); ++i) {
    const uint32_t position = layout->sources[i];
    if (position == SeriesLayout::kHidden) continue;
    ReleaseNames(layout->parts[i], SIZE_MAX);
    const auto family = families_.find(layout->parts[i].name);
    std::vector<FamilySource>& sources = family->second;
    const FamilySource last = sources.back();
    last.layout->sources[last.part] = position;
    sources[position] = last;
    sources.pop_back();
    if (sources.empty()) families_.erase(family);
  }
}

}  // namespace tidegate::agent
