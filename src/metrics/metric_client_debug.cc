#include <algorithm>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <utility>
#include <vector>

#include "metrics/impl/metric_impl.h"
#include "metrics/metric_client.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_sender_manager.h"
#include "metrics/series_census.h"
#include "util/state_text.h"

namespace METRICS {
namespace {

const char* KindText(MetricCoItemType kind) {
  switch (kind) {
    case MetricCoItemType::kCoItemSuffix:
      return "suffixes";
    case MetricCoItemType::kCoItemField:
      return "row of fields";
    case MetricCoItemType::kCoItemCompatible:
      return "compatible";
    case MetricCoItemType::kCoItemUnknown:
      break;
  }
  return "unknown";
}

/// `items` by name, for an order that repeats.
template <class T, class Name>
std::map<std::string, std::shared_ptr<T>> ByName(const std::vector<std::shared_ptr<T>>& items,
                                                 Name name_of) {
  std::map<std::string, std::shared_ptr<T>> sorted;
  for (const std::shared_ptr<T>& item : items) {
    sorted.emplace(name_of(*item), item);
  }
  return sorted;
}

constexpr size_t kManySeries = 100;
constexpr size_t kShownTags = 8;

/// How many values the tags have, the most first: what to look at where a metric has many series.
void DescribeTags(const SeriesCensus& census, std::ostream& out) {
  std::vector<const SeriesCensus::Tag*> tags;
  for (const SeriesCensus::Tag& tag : census.Tags()) {
    tags.push_back(&tag);
  }
  std::stable_sort(tags.begin(), tags.end(),
                   [&census](const SeriesCensus::Tag* a, const SeriesCensus::Tag* b) {
                     return census.ValuesOf(*a) > census.ValuesOf(*b);
                   });
  out << "    values of tags: ";
  for (size_t i = 0; i < std::min(tags.size(), kShownTags); ++i) {
    out << (i == 0 ? "" : ", ") << tags[i]->key << (tags[i]->values.IsExact() ? " " : " about ")
        << census.ValuesOf(*tags[i]);
  }
  if (tags.size() > kShownTags) {
    out << ", and fewer of the others";
  }
  out << '\n';
}

SeriesGrowth::Sizes SizesOf(const SeriesCensus& census) {
  SeriesGrowth::Sizes sizes;
  sizes.series = census.Series();
  for (const SeriesCensus::Tag& tag : census.Tags()) {
    sizes.tags[tag.key] = census.ValuesOf(tag);
  }
  return sizes;
}

SeriesGrowth::Sizes Describe(const Metric& metric, std::ostream& out) {
  MetricImpl& impl = *metric.impl_;
  const SeriesCensus census(impl);
  out << "  metric " << metric.name_ << ": " << KindText(metric.kind_) << ", "
      << StateText(impl.state_.load()) << ", series " << census.Series() << ", cells "
      << census.Cells() << ", bytes of names and tags " << metric.cache_mem_.load() << ", emitted "
      << metric.emit_success_.load() << ", failed " << metric.emit_fail_.load();
  if (metric.max_series_ != 0) {
    out << ", limit " << metric.max_series_ << ", in overflow " << metric.emit_overflow_.load();
  }
  out << '\n';
  if (census.Series() >= kManySeries && !census.Tags().empty()) {
    DescribeTags(census, out);
  }
  return SizesOf(census);
}

void Describe(const SeriesGrowth::Fastest& fastest, std::ostream& out) {
  out << "fastest growing since the " << (fastest.since_start ? "start: " : "last look: ");
  if (fastest.series == 0) {
    out << "none\n";
    return;
  }
  out << "metric " << fastest.metric << " of tenant " << fastest.tenant << ", " << fastest.series
      << " series";
  if (fastest.values != 0) {
    out << "; its tag " << fastest.tag << (fastest.exact ? ", " : ", about ") << fastest.values
        << " values";
  }
  out << '\n';
}

void Describe(const MetricRegistry& registry, std::ostream& out, SeriesGrowth::Metrics& sizes) {
  out << "registry " << registry.Tenant() << " " << registry.Prefix() << ": "
      << StateText(registry.state_.load()) << ", every " << registry.FlushInterval()
      << " s, tags {";
  const char* separator = "";
  for (const tidegate::MetricTag& tag : registry.InsertedTags()) {
    out << separator << tag.key << '=' << tag.value;
    separator = ",";
  }
  out << "}\n";
  const auto name_of = [](const Metric& metric) { return metric.name_; };
  for (const auto& [name, metric] : ByName(registry.GetAllMetric(), name_of)) {
    sizes[{registry.Tenant(), name}] = Describe(*metric, out);
  }
}

}  // namespace

std::string MetricClient::DebugString() const {
  if (!IsWhole()) {
    return "client: not in service\n";
  }
  std::ostringstream out;
  out << "client: series " << collector_factory_->total_series_.load() << " of "
      << collector_factory_->max_series_ << ", socket " << configer_->vendor_->GetSenderOutPath()
      << '\n';
  const auto key_of = [](const MetricRegistry& registry) {
    return registry.Tenant() + ' ' + registry.Prefix();
  };
  SeriesGrowth::Metrics sizes;
  for (const auto& [key, registry] : ByName(metric_factory_->GetAllRegistry(), key_of)) {
    Describe(*registry, out, sizes);
  }
  Describe(growth_->Update(std::move(sizes)), out);
  out << sender_manager_->DebugString();
  return out.str();
}

}  // namespace METRICS
