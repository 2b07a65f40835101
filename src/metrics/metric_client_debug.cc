#include <map>
#include <memory>
#include <ostream>
#include <sstream>

#include "metrics/impl/metric_impl.h"
#include "metrics/metric_client.h"
#include "metrics/metric_collector_factory.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_factory.h"
#include "metrics/metric_sender_manager.h"
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

void Describe(const Metric& metric, std::ostream& out) {
  MetricImpl& impl = *metric.impl_;
  out << "  metric " << metric.name_ << ": " << KindText(metric.kind_) << ", "
      << StateText(impl.state_.load()) << ", series " << impl.GetSeriesCount() << ", cells "
      << impl.GetDPCount() << ", bytes of names and tags " << metric.cache_mem_.load()
      << ", emitted " << metric.emit_success_.load() << ", failed " << metric.emit_fail_.load()
      << '\n';
}

void Describe(const MetricRegistry& registry, std::ostream& out) {
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
    Describe(*metric, out);
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
  for (const auto& [key, registry] : ByName(metric_factory_->GetAllRegistry(), key_of)) {
    Describe(*registry, out);
  }
  out << sender_manager_->DebugString();
  return out.str();
}

}  // namespace METRICS
