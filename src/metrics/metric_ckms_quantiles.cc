#include "metrics/metric_ckms_quantiles.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

#include "util/fork_guard.h"
#include "util/metric_data_util.h"

namespace METRICS {
namespace {

constexpr double kAllowedError = 0.01;
constexpr double kFirstMin = std::numeric_limits<double>::max();
// The smallest positive number, not the lowest one.
constexpr double kFirstMax = std::numeric_limits<double>::min();

}  // namespace

CKMSQuantiles::Quantile::Quantile(double target, double allowed_error)
    : quantile(target),
      error(allowed_error),
      u(2 * allowed_error / (1 - target)),
      v(2 * allowed_error / target) {}

CKMSQuantiles::CKMSQuantiles()
    : quantiles_{{0.5, kAllowedError},
                 {0.9, kAllowedError},
                 {0.95, kAllowedError},
                 {0.99, kAllowedError},
                 {0.999, kAllowedError}},
      min_(kFirstMin),
      max_(kFirstMax) {}

CKMSQuantiles::~CKMSQuantiles() { RepairInForkTeardown(mutex_, sample_, merged_); }

void CKMSQuantiles::Insert(double value) {
  const WriteGuard guard(mutex_);
  if (buffer_count_ == kBufferSize) {  // memory was short when it filled up
    MergeBuffer();
  }
  buffer_[buffer_count_] = value;
  ++buffer_count_;
  ++count_;
  sum_ += value;
  if (min_ > value) {
    min_ = value;
  }
  if (value > max_) {
    max_ = value;
  }
  if (buffer_count_ == kBufferSize) {
    try {
      MergeBuffer();
    } catch (const std::bad_alloc&) {  // the sample is kept: the next one tries again
    }
  }
}

void CKMSQuantiles::MergeBuffer() {
  insertBatch();
  compress();
}

SendRes CKMSQuantiles::Send(const unsigned int& /*interval*/) {
  const WriteGuard guard(mutex_);
  if (count_ == 0) {
    return MetricSummaryData::no_flush_res_;
  }
  const auto count = static_cast<double>(count_);
  std::vector<double> values{min_, max_, sum_ / count, sum_, count};
  values.reserve(kMetricSummaryArraySize);
  for (const Quantile& target : quantiles_) {
    values.push_back(get(target.quantile));
  }
  ResetLocked();
  return {false, std::move(values), 0.0, kMetricSummaryArraySize};
}

void CKMSQuantiles::reset() {
  const WriteGuard guard(mutex_);
  ResetLocked();
}

void CKMSQuantiles::ResetLocked() {
  count_ = 0;
  sample_.clear();
  buffer_count_ = 0;
  sum_ = 0.0;
  min_ = kFirstMin;
  max_ = kFirstMax;
}

double CKMSQuantiles::allowableError(int rank, size_t kept) const {
  const auto n = static_cast<int>(kept);
  double min_error = n + 1;
  for (const Quantile& target : quantiles_) {
    const double error = target.quantile * n >= rank ? target.u * (n - rank) : target.v * rank;
    min_error = std::min(min_error, error);
  }
  return min_error;
}

// The algorithm inserts into the list in place. Here it is merged into a second one, which gives
// the same list in one pass: `merged_` is the part before the insertion point, `read` the
// index in the old list of the part after it. What needs memory comes first, so that a failure
// leaves all as it was.
bool CKMSQuantiles::insertBatch() {
  if (buffer_count_ == 0) {
    return false;
  }
  merged_.clear();
  merged_.reserve(sample_.size() + buffer_count_);
  sample_.reserve(1);
  SortNumbersFirst(buffer_.data(), buffer_.data() + buffer_count_);
  size_t start = 0;
  if (sample_.empty()) {
    sample_.emplace_back(buffer_[0], 1, 0);
    start = 1;
  }
  size_t kept = sample_.size();
  merged_.push_back(sample_.front());
  size_t read = 1;
  for (size_t i = start; i < buffer_count_; ++i) {
    const double value = buffer_[i];
    while (read < sample_.size() && merged_.back().value < value) {
      merged_.push_back(sample_[read++]);
    }
    if (merged_.back().value > value) {
      merged_.pop_back();
      --read;
    }
    const size_t index = merged_.size();
    const bool near_an_end = index == 1 || index + 1 == kept;
    const int delta =
        near_an_end
            ? 0
            : static_cast<int>(std::floor(allowableError(static_cast<int>(index) + 1, kept))) + 1;
    merged_.emplace_back(value, 1, delta);
    ++kept;
  }
  merged_.insert(merged_.end(), sample_.begin() + static_cast<std::ptrdiff_t>(read), sample_.end());
  sample_.swap(merged_);
  buffer_count_ = 0;
  return true;
}

// The algorithm erases merged items as it goes. Here they are marked by a distance of 0, which no
// item has, and taken out at the end; indexes count without the marked ones.
void CKMSQuantiles::compress() {
  if (sample_.size() < 2) {
    return;
  }
  // One thinning pass: what was merged is not looked at again.
  size_t removed = 0;
  size_t next = 0;
  for (size_t idx = 1; idx < sample_.size() - removed; ++idx) {
    Item& left = sample_[next + removed];
    next = idx;
    Item& right = sample_[next + removed];
    const int sum = left.g + right.g + right.delta;
    if (sum <= allowableError(static_cast<int>(next), sample_.size() - removed)) {
      right.g += left.g;
      left.g = 0;
      ++removed;
    }
  }
  sample_.erase(
      std::remove_if(sample_.begin(), sample_.end(), [](const Item& item) { return item.g == 0; }),
      sample_.end());
}

double CKMSQuantiles::get(double q) {
  MergeBuffer();
  if (sample_.empty()) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  constexpr double kMaxRank = std::numeric_limits<int>::max();
  const auto desired = static_cast<int>(std::min(q * static_cast<double>(count_), kMaxRank));
  const double bound = allowableError(desired, sample_.size()) * 0.5 + desired;
  int rank_min = 0;
  for (size_t i = 0; i + 1 < sample_.size(); ++i) {
    const Item& next = sample_[i + 1];
    rank_min += sample_[i].g;
    if (rank_min + next.g + next.delta > bound) {
      return sample_[i].value;
    }
  }
  return sample_.back().value;
}

}  // namespace METRICS
