#pragma once

namespace METRICS {

/// Someone who is told of the flushes of a client.
class FlushWatch {
 public:
  /// Called on the flush thread of each tenant before each of its flushes, but the last one. Must
  /// not wait.
  virtual void BeforeFlush() = 0;

 protected:
  FlushWatch() = default;
  ~FlushWatch() = default;
};

}  // namespace METRICS
