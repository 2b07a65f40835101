#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "agent/destination_status.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// The part of a destination's status that no number has.
//
// Threads: any.
class DestinationState {
 public:
  explicit DestinationState(const std::string& url);

  void SetUrl(const std::string& url);
  // Whether the last request had an answer that settled it.
  void NoteOutcome(bool up) noexcept;
  void NoteRefusal(const std::string& text, int status);

  // Fills in what it knows.
  void CopyTo(DestinationStatus* status) const;

 private:
  mutable METRICS::Mutex mutex_;
  std::string url_ METRICS_GUARDED_BY(mutex_);
  bool up_ METRICS_GUARDED_BY(mutex_) = true;
  int64_t since_ms_ METRICS_GUARDED_BY(mutex_);
  std::optional<DestinationStatus::Refusal> last_refusal_ METRICS_GUARDED_BY(mutex_);
};

}  // namespace tidegate::agent
