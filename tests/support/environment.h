#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "metrics/impl/metric_impl.h"
#include "metrics/metric_client.h"
#include "metrics/metric_configer.h"
#include "metrics/metric_data.h"
#include "metrics/metric_sender.h"
#include "metrics/metric_sender_manager.h"
#include "testing/temp_dir.h"
#include "tidegate/static_configer.h"
#include "tidegate/static_vendor.h"

// The environment of a client, made for tests, and the headers that nearly all of them use.

namespace tidegate::test {

// A tenant interval in seconds that does not end within a test.
constexpr int kNeverDue = 2000000;

// Tenants that are not in `intervals` get `default_interval`, which may be 0; none means "not
// found".
class TestConfiger final : public StaticConfiger {
 public:
  explicit TestConfiger(std::optional<int> default_interval = 1,
                        std::map<std::string, int> intervals = {})
      : StaticConfiger({0, std::move(intervals), "acc", "proj"}), default_(default_interval) {}
  std::pair<bool, int> GetTenantInterval(const std::string& tenant) override {
    const auto found = StaticConfiger::GetTenantInterval(tenant);
    return found.first ? found : std::pair(default_.has_value(), default_.value_or(0));
  }

 private:
  const std::optional<int> default_;
};

// Sets the library's log level for its life.
class ScopedLogLevel {
 public:
  explicit ScopedLogLevel(uint8_t level)
      : before_(METRICS::g_metricsLogLevel.exchange(level, std::memory_order_relaxed)) {}
  ~ScopedLogLevel() { METRICS::g_metricsLogLevel.store(before_, std::memory_order_relaxed); }
  ScopedLogLevel(const ScopedLogLevel&) = delete;
  ScopedLogLevel& operator=(const ScopedLogLevel&) = delete;

 private:
  const uint8_t before_;
};

struct TestClientOptions {
  std::map<std::string, int> intervals;  // by tenant, in seconds
  std::optional<int> default_interval = kNeverDue;
  StaticVendor::Options vendor;  // no path, or the default one, becomes one that nobody listens on
  // Expiry is off: to a pass, a series is idle until its first emission.
  METRICS::CoreInitCfg core{false, false};
  std::optional<uint8_t> log_level = 4;  // silent; none leaves the level alone
};

// Reports to the agent at `path`, from tenants that all have the interval `interval`.
TestClientOptions ReportTo(const std::string& path, std::optional<int> interval = 1,
                           bool pre_encode_tags = false);

// An initialised client. Ignores SIGPIPE, which a vanished agent raises, for the rest of the
// process.
class TestClient {
 public:
  explicit TestClient(TestClientOptions options = {});

  METRICS::MetricClient& operator*() { return client_; }
  METRICS::MetricClient* operator->() { return &client_; }

  // Finds or makes; a refusal is a failure of the test and gives null.
  METRICS::MetricRegistry* Registry(const std::string& prefix, const std::string& tenant = "t1",
                                    std::vector<MetricTag> tags = {}, int flush_interval = 1);
  METRICS::Metric* Metric(const std::string& name, std::vector<std::string> tag_names = {},
                          const std::string& prefix = "p", const std::string& tenant = "t1");
  METRICS::MetricSender& Sender(const std::string& tenant = "t1");
  // Sends all values as those of second `now`. REQUIRES: no flush of "t1" is due.
  void Flush(int64_t now);

 private:
  std::optional<ScopedLogLevel> log_level_;  // goes after the client
  METRICS::MetricClient client_;
};

// Sleeps to somewhere near the middle of a wall-clock second: what a 1 s tenant is told then is
// well clear of its flushes.
void SleepToMidSecond();

// Runs `action` at log level `level` and returns what it printed.
template <class Action>
std::string LogOf(Action action, uint8_t level = 1) {
  const ScopedLogLevel scoped(level);
  testing::internal::CaptureStdout();
  action();
  return testing::internal::GetCapturedStdout();
}

// How often `part` occurs in `text`.
size_t CountOf(const std::string& part, const std::string& text);

// Asks `done` until it is true, for 10 s at most.
bool WaitFor(const std::function<bool()>& done);

// The threads of this process. One that was joined may count for a moment more.
long ThreadCount();

// Threads that do `work(index)` over and over until they are stopped, with a pause in between:
// readers that never pause would starve the writers of the library's locks.
class Workers {
 public:
  Workers() = default;
  ~Workers() { Stop(); }
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  template <class Work>
  void Start(int count, Work work) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this, i, work] {
        while (!stop_.load()) {
          work(i);
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      });
    }
  }
  void Stop();

 private:
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

}  // namespace tidegate::test
