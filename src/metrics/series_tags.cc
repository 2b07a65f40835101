#include "metrics/series_tags.h"

#include "metrics/impl_parts.h"
#include "metrics/metric_parts.h"
#include "metrics/packed_values.h"
#include "util/metric_log.h"

namespace METRICS {

bool SeriesTags::Fits() const {
  return job_->pre_encode_tags ||
         item_->values().size() == job_->metric.impl_parts_->tag_index_.size();
}

std::string_view SeriesTags::EncodeTagKV() {
  if (!Fits()) {
    METRICS_LOG_ERROR("Internal Error with Tag storage!!!!\n");
    return "";
  }
  if (job_->pre_encode_tags) {
    cur_tag_kv_ = item_->encoded_tags_;
  } else {
    tag_scratch_.Clear();
    job_->metric.impl_parts_->EncodeTagBlock(item_->values(), item_->tag_hash_, tag_scratch_);
    cur_tag_kv_ = {tag_scratch_.begin, static_cast<size_t>(tag_scratch_.Used())};
  }
  return cur_tag_kv_;
}

void SeriesTags::ReportMisfit() {
  if (!Fits()) {
    cur_tag_kv_ = EncodeTagKV();
  }
}

}  // namespace METRICS
