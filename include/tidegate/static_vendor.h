#pragma once

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tidegate/metric_tag.h"
#include "tidegate/vendor_interface.h"

namespace tidegate {

/// A machine that is known when the service starts: where its agent listens, who the service is,
/// and the tags that all metrics carry.
///
///     client.Init(..., std::make_unique<tidegate::StaticVendor>("/run/agent.sock"));
///
/// Constant after construction, and so safe from any thread. An illegal tag gives a Warn line for
/// each registry that is made with it, and travels as it is. The operations that the library does
/// not call answer as on a plain machine.
class StaticVendor : public PlainVendor {
 public:
  /// The machine, by name.
  struct Options {
    /// The agent's Unix domain socket, at most 107 bytes.
    std::string socket_path = kSocketPath;
    std::vector<MetricTag> tags = {};          ///< on all metrics; nothing overrides them
    std::vector<MetricTag> default_tags = {};  ///< on metrics whose registry lacks the key
    std::string service = {};   ///< identity; goes before the project of the settings
    bool self_monitor = false;  ///< report the library's own metrics
  };

  /// The defaults: a plain machine.
  StaticVendor() : StaticVendor(Options{}) {}
  /// A plain machine whose agent listens at this path.
  template <class Path, std::enable_if_t<std::is_constructible_v<std::string, Path> &&
                                             !std::is_null_pointer_v<Path>,
                                         int> = 0>
  explicit StaticVendor(Path socket_path)
      : StaticVendor(Options{std::string(std::move(socket_path))}) {}
  /// Takes the options over; nothing is checked here.
  explicit StaticVendor(Options options)
      : PlainVendor(std::move(options.tags), std::move(options.default_tags)),
        socket_path_(std::move(options.socket_path)),
        service_(std::move(options.service)),
        self_monitor_(options.self_monitor) {}
  /// Not copied. Not const, so that `StaticVendor({"/run/agent.sock"})` can only mean options.
  StaticVendor(StaticVendor&) = delete;

  // As `VendorInterface` says.
  std::string GetPSM() override { return service_; }
  std::string GetSenderOutPath() override { return socket_path_; }
  bool EnableMonitor() override { return self_monitor_; }

 private:
  std::string socket_path_;
  std::string service_;
  bool self_monitor_;
};

}  // namespace tidegate
