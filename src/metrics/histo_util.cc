#include "metrics/histo_util.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "util/metric_string_util.h"

namespace METRICS {
namespace {

/// One bound more than there may be is enough to be refused.
size_t Capped(size_t count) { return std::min(count, HistoUtilBase::kMaxBounds + 1); }

const char* const kTooMany = "there are more than 100 bounds";

}  // namespace

HistoUtilBase::HistoUtilBase(std::vector<double> ascending_bounds)
    : bounds(std::move(ascending_bounds)) {}

HistoUtilBase::~HistoUtilBase() = default;

bool HistoUtilBase::Check() const { return bounds.size() <= kMaxBounds; }

std::string HistoUtilBase::Reason() const { return bounds.size() > kMaxBounds ? kTooMany : ""; }

HistoUtil::HistoUtil(std::vector<double> ascending_bounds)
    : HistoUtilBase(std::move(ascending_bounds)) {}

HistoUtil HistoUtil::Linear(double first, double width, size_t count) {
  std::vector<double> bounds(Capped(count));
  for (size_t i = 0; i < bounds.size(); ++i) {
    bounds[i] = first + width * static_cast<double>(i);
  }
  return HistoUtil(std::move(bounds));
}

HistoUtil HistoUtil::Exponential(double first, double factor, size_t count) {
  std::vector<double> bounds(Capped(count));
  double bound = first;
  for (double& next : bounds) {
    next = bound;
    bound *= factor;
  }
  return HistoUtil(std::move(bounds));
}

HistoUtil HistoUtil::Explicit(std::vector<double> bounds) { return HistoUtil(std::move(bounds)); }

bool HistoUtil::Check() const { return Reason().empty(); }

std::string HistoUtil::Reason() const {
  if (bounds.empty()) {
    return "there are no bounds";
  }
  if (bounds.size() > kMaxBounds) {
    return kTooMany;
  }
  for (size_t i = 0; i < bounds.size(); ++i) {
    char text[128] = "";
    if (!std::isfinite(bounds[i])) {
      std::snprintf(text, sizeof(text), "bound %zu, %g, is not finite", i + 1, bounds[i]);
    } else if (i > 0 && !(bounds[i - 1] < bounds[i])) {
      std::snprintf(text, sizeof(text), "bound %zu, %g, is not above bound %zu, %g", i + 1,
                    bounds[i], i, bounds[i - 1]);
    } else if (i > 0 && FormatFixed(bounds[i - 1]) == FormatFixed(bounds[i])) {
      std::snprintf(text, sizeof(text), "bounds %zu, %g, and %zu, %g, are equal at six decimals", i,
                    bounds[i - 1], i + 1, bounds[i]);
    }
    if (text[0] != '\0') {
      return text;
    }
  }
  return {};
}

}  // namespace METRICS
