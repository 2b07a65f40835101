#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "tidegate/metric_tag.h"
#include "tidegate/vendor_interface.h"

namespace tidegate {

/// A machine that is known when the service starts: where its agent listens, who the service is,
/// and the tags that all metrics carry.
///
///     client.Init(..., new tidegate::StaticVendor({"/run/agent.sock"}), nullptr, {});
///
/// Constant after construction, and so safe from any thread. Must come from `new`, as every vendor
/// that `Init` is given; the client deletes it. An illegal tag gives a Warn line for each registry
/// that is made with it, and travels as it is. The operations that the library does not call
/// answer as on a plain machine.
class StaticVendor : public VendorInterface {
  class Nothing {
    Nothing() = default;
  };

 public:
  struct Options {
    /// The agent's Unix domain socket, at most 107 bytes.
    std::string socket_path = "/opt/tmp/sock/metric_seqpacket.sock";
    std::vector<MetricTag> tags = {};          ///< on all metrics; nothing overrides them
    std::vector<MetricTag> default_tags = {};  ///< on metrics whose registry lacks the key
    std::string service = {};   ///< identity; goes before the project of the settings
    bool self_monitor = false;  ///< report the library's own metrics
  };

  StaticVendor() = default;
  /// `StaticVendor({})`, which could as well mean a copy: the defaults.
  explicit StaticVendor(std::initializer_list<Nothing> /*none*/) {}
  explicit StaticVendor(Options options) : options_(std::move(options)) {}

  bool Initialized() override { return true; }
  void Init() override {}
  bool Check(std::vector<std::string> /*values*/) override { return true; }
  int GetRunEnv() override { return 0; }
  std::vector<MetricTag>& ImmutableTags() override { return options_.tags; }
  std::vector<MetricTag>& RewritableTags() override { return options_.default_tags; }
  std::vector<std::string> TagKeys() override { return {}; }
  std::string GetIDC() override { return {}; }
  std::string GetPSM() override { return options_.service; }
  bool HasConfiger() override { return false; }
  std::string GetConfigerUrl() override { return {}; }
  std::string GetSenderOutPath() override { return options_.socket_path; }
  int GetSenderOutType() override { return 0; }
  bool EnableMonitor() override { return options_.self_monitor; }

 private:
  Options options_;
};

}  // namespace tidegate
