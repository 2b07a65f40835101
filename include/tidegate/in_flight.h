#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "metrics/in_flight_count.h"
#include "tidegate/handles.h"

namespace tidegate {

/// A gauge of how many scopes are open, as of requests that are being served:
///
///     const tidegate::InFlight in_flight = metrics.InFlight("requests.in_flight");
///     const auto scope = in_flight.Enter();  // in each request
///
/// The number is reported at each interval, as it stands shortly before the boundary, whether it
/// has changed or not. Handles are values, as all others: any thread, cheap to copy, harmless
/// beyond the end of their `Metrics`. In the child of a fork nothing is open, and scopes that were
/// opened before the fork close without a trace.
class InFlight {
 public:
  /// Counts from `Enter` on, until it ends. To be moved to where the work ends, in whatever thread;
  /// it may outlive the handle and its `Metrics`. Threads: one at a time.
  class [[nodiscard]] Scope {
   public:
    /// Counts nothing.
    Scope() noexcept = default;
    /// Goes on with the scope of `other`.
    Scope(Scope&& other) noexcept
        : count_(std::exchange(other.count_, nullptr)), opened_(other.opened_) {}
    /// Goes on with the scope of `other`; this one ends.
    Scope& operator=(Scope&& other) noexcept {
      if (this != &other) {
        End();
        count_ = std::exchange(other.count_, nullptr);
        opened_ = other.opened_;
      }
      return *this;
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    /// `End`.
    ~Scope() { End(); }

    /// Counts no longer. Safe twice.
    void End() noexcept {
      if (METRICS::InFlightCount* const count = std::exchange(count_, nullptr)) {
        count->Close(opened_);
      }
    }

   private:
    friend class InFlight;
    explicit Scope(METRICS::InFlightCount& count) noexcept
        : count_(&count), opened_(count.Open()) {}

    METRICS::InFlightCount* count_ = nullptr;
    uint32_t opened_ = 0;
  };

  /// Counts nothing.
  InFlight() = default;
  /// For `Metrics`: a handle on `count`, which is reported by `gauge`.
  InFlight(METRICS::InFlightCount& count, BoundGauge gauge)
      : count_(&count), gauge_(std::move(gauge)) {
    count.Share();
  }
  /// For `Metrics`: a handle that says why it does nothing.
  explicit InFlight(BoundGauge failed) : gauge_(std::move(failed)) {}
  /// Another handle on the same count.
  InFlight(const InFlight& other) : count_(other.count_), gauge_(other.gauge_) {
    if (count_ != nullptr) {
      count_->Share();
    }
  }
  /// Another handle on the count of `other`.
  InFlight& operator=(InFlight other) noexcept {
    std::swap(count_, other.count_);
    std::swap(gauge_, other.gauge_);
    return *this;
  }
  ~InFlight() {
    if (count_ != nullptr) {
      count_->Drop();
    }
  }

  /// Opens a scope.
  Scope Enter() const noexcept { return count_ != nullptr ? Scope(*count_) : Scope(); }
  /// How many scopes are open.
  int64_t Now() const noexcept { return count_ != nullptr ? count_->Now() : 0; }

  /// Whether the number is reported: false for a handle that was never given a gauge, for one whose
  /// gauge could not be made, and once its `Metrics` has ended.
  explicit operator bool() const { return static_cast<bool>(gauge_); }
  /// Why it is not, in English; empty where it is. Good for as long as the handle.
  const std::string& Error() const { return gauge_.Error(); }

 private:
  METRICS::InFlightCount* count_ = nullptr;
  BoundGauge gauge_;
};

}  // namespace tidegate
