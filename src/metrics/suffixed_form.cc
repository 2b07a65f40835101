#include "metrics/suffixed_form.h"

#include "metrics/cell_kinds.h"
#include "metrics/metric_data.h"
#include "util/metric_log.h"

namespace METRICS {

void SuffixedForm::Pack(SeriesWalk& series, const FlushJob& job) {
  blocks_.Clear();
  series.EachWithCells([&](MetricCollectorItem& item, const std::vector<CellRef>& cells) {
    tags_.Begin(item, job);
    tags_.ReportMisfit();
    for (size_t i = 0; i < cells.size(); ++i) {
      packets_.DrainAndWrite([&] { EncodeMetricWithSuffix(job, cells[i], i); });
      packets_.EndUnit(false);
    }
  });
}

void SuffixedForm::EncodeMetricWithSuffix(const FlushJob& job, const CellRef& ref, size_t index) {
  if (!IsCellType(ref.type)) {
    METRICS_LOG_ERROR("Sender[%s]Internal Error for Unknown MetricType: %d\n", job.tenant.c_str(),
                      static_cast<int>(ref.type));
    return;
  }
  const SendRes res = ref.cell->Send(static_cast<unsigned int>(job.interval));
  if (res.values.empty()) {
    return;
  }
  const SuffixBlocks& blocks =
      blocks_.BlocksOf(job.metric, ref.name, ref.type, IsRow(job.metric, ref.type), index);
  if (!CheckSendRes(ref.type, res.values, blocks.numbers)) {
    return;
  }
  const std::string_view tags = tags_.EncodeCurrentTagKV();
  blocks.Pack(packets_.Current(), job.boundary, tags, res.values.data());
  if (res.need_prev && KindOf(ref.type).previous != 0) {
    METRICS_LOG_DEBUG("Pack a prev interval value for counter/meter/deltacounter.\n");
    blocks.PackPrevious(packets_, job.PreviousBoundary(), tags, res.prev_value);
  }
}

}  // namespace METRICS
