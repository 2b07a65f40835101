#include "metrics/metric_parts.h"

#include <algorithm>
#include <cassert>
#include <stdexcept>
#include <string_view>

#include "codec/fnv_hash.h"
#include "codec/pack.h"
#include "metrics/impl_parts.h"
#include "metrics/packed_values.h"
#include "metrics/registry_parts.h"
#include "metrics/tag_value_refs.h"
#include "util/metric_size_limits.h"

namespace METRICS {

using lattice_kit::codec::Append;
using lattice_kit::codec::AppendBytes;
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

void ImplParts::PrepareTagBlock() {
  Pack part(kTagScratchBytes);
  tag_block_parts_.clear();
  part.Put(static_cast<uint32_t>(2 * send_tags_.size()));
  for (size_t i = 0; i < send_tags_.size(); ++i) {
    EncodeText(send_tags_[i].key, part);
    if (tag_block_parts_.size() < tag_index_.size() && tag_index_[tag_block_parts_.size()] == i) {
      tag_block_parts_.push_back(part.Bytes());  // both lists are sorted, so the indexes ascend
      part.Clear();
    } else {
      EncodeText(send_tags_[i].value, part);
    }
  }
  tag_block_parts_.push_back(part.Bytes());
}

template <class Values>
int32_t ImplParts::HashOfTags(const Values& tag_values) const {
  const size_t declared = tag_values.size() == tag_index_.size() ? tag_values.size() : 0;
  uint32_t hash = kFNVOffsetBasis;
  size_t next = 0;
  for (size_t i = 0; i < send_tags_.size(); ++i) {
    const bool is_declared = next < declared && tag_index_[next] == i;
    const std::string_view value =
        is_declared ? std::string_view(tag_values[next++]) : send_tags_[i].value;
    hash = TagFNVHash(send_tags_[i].key, value, hash);
  }
  return static_cast<int32_t>(hash);
}

template <class Values>
void ImplParts::EncodeTagBlock(const Values& tag_values, int32_t& tag_hash, Pack& out) const {
  const size_t declared = tag_index_.size();
  const bool fit = tag_values.size() == declared;
  const auto value_at = [&](size_t i) { return fit ? std::string_view(tag_values[i]) : ""; };
  if (tag_hash == 0) {
    tag_hash = HashOfTags(tag_values);
  }
  size_t bytes = sizeof(tag_hash) + tag_block_parts_.back().size();
  for (size_t i = 0; i < declared; ++i) {
    bytes += tag_block_parts_[i].size() + sizeof(uint32_t) + value_at(i).size();
  }
  out.Reserve(static_cast<int32_t>(bytes));
  Append(out.cursor, tag_hash);
  for (size_t i = 0; i < declared; ++i) {
    const std::string_view value = value_at(i);
    AppendBytes(out.cursor, tag_block_parts_[i]);
    Append(out.cursor, static_cast<uint32_t>(value.size()));
    AppendBytes(out.cursor, value);
  }
  AppendBytes(out.cursor, tag_block_parts_.back());
}

template void ImplParts::EncodeTagBlock(const std::vector<std::string>&, int32_t&, Pack&) const;
template void ImplParts::EncodeTagBlock(const PackedValues&, int32_t&, Pack&) const;

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
