#include "metrics/impl/metric_multi_field_impl.h"

#include "metrics/metric_encoder.h"

namespace METRICS {

using lattice_kit::codec::FieldInfo;
using lattice_kit::codec::kCodecValueDouble;

void MultiFieldMetricImpl::GenerateDeltaCounterField(std::vector<FieldInfo>& out,
                                                     const std::string& name) {
  for (unsigned long i = 0; i < kMetricDeltaCounterArrSize; ++i) {
    const std::string& entry = MetricEncoder::ConvertIdxToDeltaCounter(i);
    out.emplace_back(name.empty() ? entry : name + "." + entry, kCodecValueDouble);
  }
}

}  // namespace METRICS
