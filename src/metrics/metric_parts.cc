#include "metrics/metric_parts.h"

#include <algorithm>
#include <cassert>
#include <stdexcept>

#include "codec/fnv_hash.h"
#include "codec/pack.h"
#include "metrics/impl_parts.h"
#include "metrics/registry_parts.h"
#include "metrics/tag_value_refs.h"

namespace METRICS {

using lattice_kit::codec::EncodeText;
using lattice_kit::codec::kFNVOffsetBasis;
using lattice_kit::codec::Pack;
using lattice_kit::codec::StrFNVHash;
using lattice_kit::codec::TagFNVHash;

namespace {

uint16_t CheckedTagCount(size_t count) {
  if (count > TagValueRefs::kMax) {  // the registry has refused it
    throw std::length_error("more tags than a series can have");
  }
  return static_cast<uint16_t>(count);
}

}  // namespace

ImplParts::ImplParts(const std::string& tenant, const std::string& name, MetricParts* metric,
                     const std::vector<std::string>& tag_names)
    : tag_count_(CheckedTagCount(tag_names.size())),
      tag_names_(tag_names),
      tenant_(tenant),
      name_(name),
      metric_(metric) {
  std::sort(tag_names_.begin(), tag_names_.end());
}

const std::vector<double>& ImplParts::Bounds() const {
  return bounds_ready_.load(std::memory_order_acquire) ? bounds_ : MetricParts::NoopHistogram();
}

void ImplParts::EncodeTagBlock(const std::vector<std::string>& tag_values, int32_t& tag_hash,
                               Pack& out) const {
  const size_t declared = tag_values.size() == tag_index_.size() ? tag_values.size() : 0;
  const bool compute_hash = tag_hash == 0;
  const auto start = static_cast<uint32_t>(out.Used());
  out.Put(tag_hash);
  out.Put(static_cast<uint32_t>(2 * send_tags_.size()));
  uint32_t hash = kFNVOffsetBasis;
  size_t next = 0;  // both lists are sorted by key, so the indexes ascend
  for (size_t i = 0; i < send_tags_.size(); ++i) {
    const bool is_declared = next < declared && tag_index_[next] == i;
    const std::string& key = send_tags_[i].key;
    const std::string& value = is_declared ? tag_values[next++] : send_tags_[i].value;
    EncodeText(key, out);
    EncodeText(value, out);
    if (compute_hash) {
      hash = TagFNVHash(key, value, hash);
    }
  }
  if (compute_hash) {
    tag_hash = static_cast<int32_t>(hash);
    out.Patch(start, tag_hash);
  }
}

MetricParts::MetricParts(const std::string& name, RegistryParts* registry, MetricCoItemType kind)
    : name_(name),
      name_hash_(StrFNVHash(name, kFNVOffsetBasis)),
      kind_(kind),
      registry_parts_(registry),
      registry_ref_(registry->weak_from_this()) {
  assert(!registry_ref_.expired());
}

const std::vector<double>& MetricParts::GetHistogram() const {
  return kind_ == MetricCoItemType::kCoItemSuffix ? impl_parts_->Bounds() : NoopHistogram();
}

const std::vector<MetricFieldInfo>& MetricParts::GetFieldInfo() const {
  return kind_ == MetricCoItemType::kCoItemField ? impl_parts_->field_infos_ : NoopFieldInfo();
}

const std::string& MetricParts::GetCodecFieldInfo() const {
  return kind_ == MetricCoItemType::kCoItemField ? impl_parts_->codec_field_info_ : NoopStr();
}

const std::vector<double>& MetricParts::NoopHistogram() {
  static const std::vector<double>& none = *new std::vector<double>();
  return none;
}

const std::vector<MetricFieldInfo>& MetricParts::NoopFieldInfo() {
  static const std::vector<MetricFieldInfo>& none = *new std::vector<MetricFieldInfo>();
  return none;
}

const std::string& MetricParts::NoopStr() {
  static const std::string& none = *new std::string();
  return none;
}

}  // namespace METRICS
