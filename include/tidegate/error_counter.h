#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "metrics/error_log.h"
#include "tidegate/handles.h"

namespace tidegate {

/// A counter of errors that also tells of them in the library's log, not more often than one wants
/// to read:
///
///     const tidegate::ErrorCounter errors = metrics.Errors("db.errors", {"kind"});
///     errors.Count("connection refused by " + host, {{"kind", "connect"}});
///
/// Each error is counted, by its tags. Of their texts the first one is written as an Error line at
/// once; then, when a period has passed since the last line, that of the next error, with the
/// number of those that were left out before it. A value, as all handles; copies share the period.
/// Lines are written also where the counter could not be made or its `Metrics` has ended.
class ErrorCounter {
 public:
  /// Counts nothing.
  ErrorCounter() = default;
  /// For `Metrics`.
  ErrorCounter(Counter counter, std::shared_ptr<METRICS::ErrorLog> log)
      : counter_(std::move(counter)), log_(std::move(log)) {}

  /// Counts an error. Of `text`, 512 bytes are written, without control characters. What `Add` of a
  /// counter answers.
  ReturnCode Count(std::string_view text, std::initializer_list<TagView> tags = {}) const {
    return Tell(text, counter_.Add(1, tags));
  }
  /// The same with a list of tags.
  ReturnCode Count(std::string_view text, const std::vector<MetricTag>& tags) const {
    return Tell(text, counter_.Add(1, tags));
  }

  /// Whether errors are counted, as `Counter` says.
  explicit operator bool() const { return static_cast<bool>(counter_); }
  /// Why they are not, in English; empty while they are. Good for as long as the handle.
  const std::string& Error() const { return counter_.Error(); }

 private:
  ReturnCode Tell(std::string_view text, ReturnCode counted) const {
    if (log_ != nullptr) {
      log_->Tell(text);
    }
    return counted;
  }

  Counter counter_;
  std::shared_ptr<METRICS::ErrorLog> log_;
};

}  // namespace tidegate
