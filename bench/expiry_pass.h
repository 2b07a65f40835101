#pragma once

#include <chrono>
#include <thread>

#include "metrics/metric_collector_item.h"
#include "metrics/metric_expire_checker.h"
#include "scenarios.h"

namespace tidegate::bench {

// Time of one pass of expiry over `collector`, started on the calling thread; `first` is a series
// that the pass marks early and that is marked otherwise now.
inline double ExpiryPassMillis(Client& client, const METRICS::MetricCollectorItem& first) {
  constexpr int kLongPause = 60000;
  METRICS::MetricExpireChecker checker(&*client);
  checker.state_ = METRICS::MetricState::READY;
  // The pass that has begun is the last one.
  std::thread stopper([&, before = first.active_.load()] {
    while (first.active_.load() == before) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    checker.state_ = METRICS::MetricState::SHUTDOWN;
  });
  const auto start = std::chrono::steady_clock::now();
  checker.DoCheck(client->collector_factory_, kLongPause);
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
  stopper.join();
  return taken.count();
}

}  // namespace tidegate::bench
