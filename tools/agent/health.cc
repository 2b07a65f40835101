#include "agent/health.h"

namespace tidegate::agent {
namespace {

// Offsets in the header.
constexpr size_t kMagicOffset = 0;
constexpr size_t kVersionOffset = 8;

}  // namespace

DecodeFailure FailureOf(const ReadError& error) {
  if (error.offset == kMagicOffset) return DecodeFailure::kForeign;
  return error.offset == kVersionOffset ? DecodeFailure::kVersion : DecodeFailure::kMalformed;
}

Health::Number::Number(Health* health, Type type, std::string_view name, std::string_view help,
                       std::string_view reason)
    : std::atomic<uint64_t>(0), type_(type), name_(name), help_(help), reason_(reason) {
  (health->last_ == nullptr ? health->first_ : health->last_->next_) = this;
  health->last_ = this;
}

uint64_t Health::ForwardDropped() const {
  return forward_dropped_full + forward_dropped_rejected + forward_dropped_empty +
         forward_dropped_shutdown + forward_dropped_memory + forward_dropped_spool_full +
         forward_dropped_spool_damaged + forward_dropped_late;
}

Health::Number& Health::ForwardDropped(ForwardDrop reason) {
  switch (reason) {
    case ForwardDrop::kFull:
      return forward_dropped_full;
    case ForwardDrop::kRejected:
      return forward_dropped_rejected;
    case ForwardDrop::kEmpty:
      return forward_dropped_empty;
    case ForwardDrop::kShutdown:
      return forward_dropped_shutdown;
    case ForwardDrop::kMemory:
      return forward_dropped_memory;
    case ForwardDrop::kSpoolFull:
      return forward_dropped_spool_full;
    case ForwardDrop::kSpoolDamaged:
      return forward_dropped_spool_damaged;
    case ForwardDrop::kLate:
      break;
  }
  return forward_dropped_late;
}

void Health::ForEach(const std::function<void(const Sample&)>& handle) const {
  const auto uptime =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_);
  handle({"tidegate_agent_info", "Always 1; the label is the version of the agent.", false,
          "version", TIDEGATE_VERSION, 1});
  handle({"tidegate_agent_uptime_seconds",
          "Whole seconds since the start.",
          false,
          {},
          {},
          static_cast<uint64_t>(uptime.count())});
  for (const Number* number = first_; number != nullptr; number = number->next_) {
    const std::string_view label = number->reason_.empty() ? "" : "reason";
    handle({number->name_, number->help_, number->type_ == Type::kCounter, label, number->reason_,
            number->load(std::memory_order_relaxed)});
  }
}

}  // namespace tidegate::agent
