#include "agent/merged_totals.h"

#include <algorithm>

namespace tidegate::agent {
namespace {

double Growth(double from, double to) { return to >= from ? to - from : std::max(to, 0.0); }

}  // namespace

ProcessTotal::Increases ProcessTotal::Add(int64_t timestamp, double total, double first) {
  const bool set_back = IsSetBack(newest_, timestamp);
  if (timestamp >= newest_ || set_back) {
    added_ = newest_ == INT64_MIN ? std::max(first, 0.0) : Growth(total_, total);
    before_ = set_back ? INT64_MIN : newest_;
    total_before_ = total_;
    newest_ = timestamp;
    total_ = total;
    return {{timestamp, added_}, {timestamp, 0}};
  }
  if (timestamp <= before_) return {{timestamp, 0}, {timestamp, 0}};
  const double own = before_ == INT64_MIN ? 0 : Growth(total_before_, total);
  const double later = Growth(total, total_);
  const double more = std::max(later - added_, 0.0);
  added_ = std::max(later, added_);
  before_ = timestamp;
  total_before_ = total;
  return {{timestamp, own}, {newest_, more}};
}

}  // namespace tidegate::agent
