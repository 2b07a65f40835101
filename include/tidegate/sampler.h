#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace METRICS {
struct SamplerJob;
class SamplerThread;
}  // namespace METRICS

namespace tidegate {

/// A callback that is asked for a number once per interval, as long as this handle lives:
///
///     Sampler length = metrics.Sample("queue.length", [&] { return double(queue.size()); });
///
/// The callbacks of one `Metrics` are asked one after the other on a thread of it, shortly before
/// each boundary: a tenth of the interval before it, and a second at most. They are asked once more
/// before the last flush. A callback may emit, and make and end samplers, itself included; its
/// first call may come before its `Sample` has returned. It must not wait for another sampler's
/// callback, and what it uses must outlive the handle. A callback that
/// - throws gives no number in that interval, is counted, and told by an Error line at most once a
///   minute;
/// - takes longer than a tenth of the interval is told once, by a Warn line;
/// - still runs at the boundary holds up all after it: an Error line names it, once. The end of its
///   `Metrics` waits for it for two seconds at most, and then leaves it alone.
/// Threads: one at a time for each handle. After a fork the child's `Init` starts a thread of its
/// own for the same callbacks, also for those whose handles belong to threads that the child has
/// not; without it a child asks none. Once its `Metrics` has ended, a callback is not called again.
class [[nodiscard]] Sampler {
 public:
  /// Asks nobody.
  Sampler() noexcept = default;
  Sampler(Sampler&& other) noexcept = default;  ///< `other` asks nobody
  /// Ends this one first.
  Sampler& operator=(Sampler&& other) noexcept {
    if (this != &other) {
      End();
      job_ = std::move(other.job_);
      error_ = std::move(other.error_);
    }
    return *this;
  }
  Sampler(const Sampler&) = delete;
  Sampler& operator=(const Sampler&) = delete;
  ~Sampler() { End(); }

  /// Afterwards the callback is not called, not running and destroyed. Waits for a call that is
  /// running, whatever it takes: REQUIRES: the caller holds nothing that the callback waits for.
  /// Only when called by the callback itself it returns at once. Safe twice.
  __attribute__((visibility("default"))) void End() noexcept;

  /// Whether there is a callback to be asked.
  explicit operator bool() const noexcept { return job_ != nullptr; }
  /// Why there is none; empty where there is one, or was.
  const std::string& Error() const noexcept { return error_; }
  /// How often the callback has thrown.
  __attribute__((visibility("default"))) uint64_t Failures() const noexcept;

 private:
  friend class METRICS::SamplerThread;
  explicit Sampler(std::shared_ptr<METRICS::SamplerJob> job) noexcept : job_(std::move(job)) {}
  explicit Sampler(std::string error) noexcept : error_(std::move(error)) {}

  std::shared_ptr<METRICS::SamplerJob> job_;
  std::string error_;
};

}  // namespace tidegate
