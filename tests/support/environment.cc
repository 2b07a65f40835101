#include "support/environment.h"

#include <csignal>
#include <filesystem>
#include <iterator>
#include <memory>
#include <stdexcept>

namespace tidegate::test {

TestClientOptions ReportTo(const std::string& path, std::optional<int> interval,
                           bool pre_encode_tags) {
  TestClientOptions options;
  options.vendor.socket_path = path;
  options.default_interval = interval;
  options.core.pre_encode_tags = pre_encode_tags;
  return options;
}

TestClient::TestClient(TestClientOptions options) {
  std::signal(SIGPIPE, SIG_IGN);
  if (options.log_level.has_value()) log_level_.emplace(*options.log_level);
  std::string& path = options.vendor.socket_path;
  if (path.empty() || path == StaticVendor::Options().socket_path) path = "/tmp/nobody.listens";
  EXPECT_EQ(
      client_.Init(
          std::make_unique<TestConfiger>(options.default_interval, std::move(options.intervals)),
          std::make_unique<StaticVendor>(std::move(options.vendor)), nullptr, options.core),
      METRICS::ReturnCode::kOk);
}

METRICS::MetricRegistry* TestClient::Registry(const std::string& prefix, const std::string& tenant,
                                              std::vector<MetricTag> tags, int flush_interval) {
  METRICS::MetricRegistry* registry = nullptr;
  EXPECT_EQ(
      client_.CreateRegistry(registry, {prefix, std::move(tags), tenant, nullptr, flush_interval}),
      METRICS::ReturnCode::kOk);
  return registry;
}

METRICS::Metric* TestClient::Metric(const std::string& name, std::vector<std::string> tag_names,
                                    const std::string& prefix, const std::string& tenant) {
  const auto [metric, code] =
      client_.CreateMetric({prefix, {}, tenant, nullptr, 1}, {name, std::move(tag_names), {}, {}});
  EXPECT_EQ(code, METRICS::ReturnCode::kOk);
  return metric;
}

METRICS::MetricSender& TestClient::Sender(const std::string& tenant) {
  METRICS::MetricSender* sender = nullptr;
  client_.sender_manager_->GetSender(sender, tenant);
  if (sender == nullptr) throw std::runtime_error("no sender of " + tenant);
  return *sender;
}

void TestClient::Flush(int64_t now) {
  Sender().last_flush_ts_ = now;
  EXPECT_TRUE(Sender().DoPackAndSend());
}

void SleepToMidSecond() {
  using namespace std::chrono;
  const auto into = system_clock::now().time_since_epoch() % seconds(1);
  const auto wait = milliseconds(450) - into;
  // Anything from 0.35 to 0.55 s will do.
  if (wait > milliseconds(100) || wait < milliseconds(-100)) {
    std::this_thread::sleep_for(wait > nanoseconds(0) ? wait : wait + seconds(1));
  }
}

size_t CountOf(const std::string& part, const std::string& text) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

bool WaitFor(const std::function<bool()>& done) {
  for (int tries = 0; tries < 2000; ++tries) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

long ThreadCount() {
  using std::filesystem::directory_iterator;
  return std::distance(directory_iterator("/proc/self/task"), directory_iterator());
}

void Workers::Stop() {
  stop_.store(true);
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

}  // namespace tidegate::test
