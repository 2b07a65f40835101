#pragma once

#include <map>
#include <string>
#include <type_traits>
#include <utility>

#include "tidegate/mconfiger_impl_base.h"

namespace tidegate {

/// Settings that are known when the service starts: who sends, and how often each tenant flushes.
///
///     client.Init(std::make_unique<tidegate::StaticConfiger>(10));  // all tenants: every 10 s
///
/// Constant after construction, and so safe from any thread. A tenant's interval that is no
/// divisor of one of its registries' intervals gives a Warn line when that registry is made.
class StaticConfiger : public MConfigerImplBase {
 public:
  /// The settings, by name.
  struct Options {
    int default_interval = 30;  ///< seconds, for tenants that `intervals` does not name
    std::map<std::string, int> intervals = {};  ///< seconds, by tenant
    std::string account_id = {};                ///< written into every packet
    std::string project_id = {};                ///< the same, unless the vendor names a service
  };

  /// The defaults.
  StaticConfiger() : StaticConfiger(Options{}) {}
  /// One interval in seconds, for all tenants.
  template <class Integer, std::enable_if_t<std::is_integral_v<Integer>, int> = 0>
  explicit StaticConfiger(Integer interval) : StaticConfiger(Options{static_cast<int>(interval)}) {}
  /// An interval below 1 leaves the tenant at the library's 30 seconds.
  explicit StaticConfiger(Options options)
      : default_interval_(options.default_interval), intervals_(std::move(options.intervals)) {
    account_id = std::move(options.account_id);
    project_id = std::move(options.project_id);
  }
  /// Not copied. Not const, so that `StaticConfiger({10})` can only mean options.
  StaticConfiger(StaticConfiger&) = delete;

  // As `MConfigerImplBase` says; nothing starts or stops here.
  void Start() override {}
  void Stop() override {}
  std::pair<bool, int> GetTenantInterval(const std::string& tenant) override {
    const auto found = intervals_.find(tenant);
    const int interval = found == intervals_.end() ? default_interval_ : found->second;
    return {interval > 0, interval};
  }
  /// None: for the Unix domain socket nothing is looked up.
  std::string GetSinkName() override { return {}; }

 private:
  const int default_interval_;
  const std::map<std::string, int> intervals_;
};

}  // namespace tidegate
