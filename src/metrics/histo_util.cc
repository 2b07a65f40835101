#include "metrics/histo_util.h"

#include <utility>

namespace METRICS {

HistoUtilBase::HistoUtilBase(std::vector<double> ascending_bounds)
    : bounds(std::move(ascending_bounds)) {}

HistoUtilBase::~HistoUtilBase() = default;

bool HistoUtilBase::Check() const { return bounds.size() <= kMaxBounds; }

}  // namespace METRICS
