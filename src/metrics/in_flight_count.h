#pragma once

#include <atomic>
#include <cstdint>

#include "util/metric_export.h"

namespace METRICS {

/// What the handles and the open scopes of one `tidegate::InFlight` share: one number, which is
/// both what they count and what keeps this object.
///
/// Threads: all operations from any thread, but `Forget`. Ownership: whoever leaves last deletes
/// it.
class InFlightCount {
 public:
  /// With one owner, the caller.
  InFlightCount() = default;
  InFlightCount(const InFlightCount&) = delete;
  InFlightCount& operator=(const InFlightCount&) = delete;

  /// A handle more. The caller is an owner or a scope.
  void Share() { members_.fetch_add(kOwner, std::memory_order_relaxed); }
  /// A handle less.
  void Drop() { Leave(kOwner); }
  /// Opens a scope, of which `Close` has to know the result.
  uint32_t Open() {
    members_.fetch_add(1, std::memory_order_relaxed);
    return forks_.load(std::memory_order_relaxed);
  }
  /// Closes a scope; but one from before a fork does not count any more.
  void Close(uint32_t opened) {
    if (opened == forks_.load(std::memory_order_relaxed)) {
      Leave(1);
    }
  }
  /// How many scopes are open.
  int64_t Now() const {
    return static_cast<int64_t>(members_.load(std::memory_order_relaxed) % kOwner);
  }
  /// For the child of a fork: nothing is open there. What the parent's scopes refer to stays for
  /// ever.
  void Forget();

 private:
  static constexpr uint64_t kOwner = uint64_t{1} << 32;

  void Leave(uint64_t members) {
    if (members_.fetch_sub(members, std::memory_order_acq_rel) == members) {
      Delete();
    }
  }
  METRICS_API void Delete();

  std::atomic<uint64_t> members_{kOwner};  ///< open scopes, and owners above 32 bits
  std::atomic<uint32_t> forks_{0};
};

}  // namespace METRICS
