#include "metrics/metric_encoder.h"

#include <new>
#include <utility>

#include "metrics/impl_parts.h"
#include "metrics/metric_parts.h"
#include "metrics/registry_parts.h"
#include "util/metric_log.h"

namespace METRICS {

MetricEncoderBase::MetricEncoderBase(PacketSender* sender, const std::string& name)
    : sender_(sender), name_(name), pre_encode_tags(sender->pre_encode_tags_) {}

MetricEncoderBase::~MetricEncoderBase() { sender_ = nullptr; }

MetricEncoder::MetricEncoder(PacketSender* sender, const std::string& name)
    : MetricEncoderBase(sender, name),
      packets_([this](const FinishedPacket& packet) { sender_->SendPacket(packet); },
               [this] { sender_->CountLostSeries(); }) {}

MetricEncoder::~MetricEncoder() = default;

void MetricEncoder::Init(const std::string& account, const std::string& project,
                         const std::string& psm) {
  tenant_tags_.emplace_back(kAccountIdKey, account);
  tenant_tags_.emplace_back(kProjectIdKey, psm.empty() ? project : psm);
  packets_.EncodeCodecHeader(name_, tenant_tags_);
}

void MetricEncoder::PackCollector(
    const std::vector<std::shared_ptr<MetricCollectorBase>>& collectors) {
  boundary_ = sender_->last_flush_ts_;
  try {
    PackAll(collectors);
  } catch (const std::bad_alloc&) {
    EndFlush();
    throw;
  }
  EndFlush();
}

void MetricEncoder::EndFlush() {
  series_.End();
  packets_.CleanUpPackage();
  // Nothing is locked here: the last pin of a metric or registry destroys it.
  metric_.reset();
  registry_.reset();
}

void MetricEncoder::PackAll(const std::vector<std::shared_ptr<MetricCollectorBase>>& collectors) {
  for (const std::shared_ptr<MetricCollectorBase>& collector : collectors) {
    metric_ = collector->PinMetric();
    std::shared_ptr<RegistryParts> registry = metric_ == nullptr ? nullptr : metric_->PinRegistry();
    if (registry == nullptr) {
      continue;
    }
    METRICS_LOG_INFO("Sender[%s]Collector %s has %lu series at ts: %ld\n", name_.c_str(),
                     collector->name_.c_str(), collector->SeriesSize(), boundary_);
    if (registry != registry_) {
      registry_ = std::move(registry);
      interval_ = registry_->FlushInterval();
      packets_.BeginRegistry();
    }
    metric_->emit_success_.SpreadAsAsked();
    metric_->emit_overflow_.SpreadAsAsked();
    PackMetric(*collector);
  }
}

void MetricEncoder::PackMetric(MetricCollectorBase& collector) {
  if (!series_.Begin(collector)) {
    METRICS_LOG_DEBUG("Sender[%s]Collector [%s] has no series.\n", name_.c_str(),
                      collector.name_.c_str());
    return;
  }
  switch (collector.co_type_) {
    case MetricCoItemType::kCoItemSuffix:
      PackSuffixedMetric();
      return;
    case MetricCoItemType::kCoItemField:
      PackMultiFeildMetric();
      return;
    case MetricCoItemType::kCoItemCompatible:
      PackCompatibleMetric();
      return;
    case MetricCoItemType::kCoItemUnknown:
      break;
  }
  METRICS_LOG_WARN("Sender[%s]Internal Error with co_type: %d\n", name_.c_str(),
                   static_cast<int>(collector.co_type_));
}

FlushJob MetricEncoder::Job() const {
  return {*metric_, *registry_, boundary_, interval_, pre_encode_tags, name_};
}

}  // namespace METRICS
