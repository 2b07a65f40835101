#include "agent/destination_state.h"

#include <chrono>
#include <utility>

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

int64_t NowMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

DestinationState::DestinationState(const std::string& url) : url_(url), since_ms_(NowMillis()) {}

void DestinationState::SetUrl(const std::string& url) {
  const WriteGuard lock(mutex_);
  url_ = url;
}

void DestinationState::NoteOutcome(bool up) noexcept {
  const WriteGuard lock(mutex_);
  if (std::exchange(up_, up) != up) since_ms_ = NowMillis();
}

void DestinationState::NoteRefusal(const std::string& text, int status) {
  DestinationStatus::Refusal refusal = {text, status, NowMillis()};
  const WriteGuard lock(mutex_);
  last_refusal_ = std::move(refusal);
}

void DestinationState::CopyTo(DestinationStatus* status) const {
  const WriteGuard lock(mutex_);
  status->url = url_;
  status->up = up_;
  status->since_ms = since_ms_;
  status->last_refusal = last_refusal_;
}

}  // namespace tidegate::agent
